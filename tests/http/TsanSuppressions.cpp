// libcpp-httplib is not built with ThreadSanitizer, so its own locking is invisible to the tool and
// reports from inside it are noise; races in the library and the tests are still reported.
// OpenSSL's socket reads and writes are ignored for the same reason: a TLS server thread writes
// through it on a socket that httplib (ignored) later closes, and a reuse of that descriptor
// number would show as a race with the write.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libcpp-httplib.so\n"
           "called_from_lib:libcrypto.so\n";
}
#endif
