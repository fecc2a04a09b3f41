// cpp-httplib and OpenSSL are not built with ThreadSanitizer, so races reported inside them are
// noise and are suppressed: the tool sees their memory accesses only through the calls it intercepts
// (memcpy, free) and none of their atomic operations, so the reference counts that order OpenSSL's
// shared TLS sessions between threads are invisible to it. Only reports are suppressed: the calls
// these libraries make (close, thread joins, locks) stay visible, without which the tool would lose
// track of the sockets the servers close and take a reused descriptor number for a race.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions() {
    return "race:libcpp-httplib.so\n"
           "race:libcrypto.so\n"
           "race:libssl.so\n";
}
#endif
