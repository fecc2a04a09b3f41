// The loopback test servers run inside libcpp-httplib, which is not built with ThreadSanitizer: its
// own locking is invisible to the tool, so reports from inside it are noise. Races in the library
// and in the tests themselves are still reported.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\n";
}
#endif
