// libcpp-httplib is not built with ThreadSanitizer, so its own locking is invisible to the tool and
// reports from inside it are noise; races in the library and the tests are still reported.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\n";
}
#endif
