// ASan does not unpoison the frames a thread cancellation unwinds, so its next stack check (in
// sigaltstack) reports dead frames falsely; forced ends are part of these tests.
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __asan_default_suppressions() {
    return "interceptor_name:sigaltstack\n";
}
#endif
