// The address sanitizer does not unpoison the stack frames that a thread cancellation unwinds (it
// only does so for C++ throws), so its first stack check afterwards, in sigaltstack, reports the
// dead frames. The report is false; the same check then clears the stack. Forced ends of threads
// are part of these tests, so that one interceptor's report is suppressed.
#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __asan_default_suppressions() {
    return "interceptor_name:sigaltstack\n";
}
#endif
