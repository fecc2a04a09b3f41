// libcpp-httplib is not built with ThreadSanitizer, so races reported inside it are noise and are
// suppressed. Only reports are suppressed: the calls it makes (close, thread joins, locks) stay
// visible to the tool, which would otherwise lose track of the sockets the servers close and take a
// reused descriptor number for a race between a finished server thread and the test.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
    return "race:libcpp-httplib.so\n";
}
#endif
