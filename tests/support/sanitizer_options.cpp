// Linked into every test binary: what ThreadSanitizer should know about our uninstrumented test
// dependencies.
//
// Debian's cpp-httplib (the loopback server of the networking tests) is a compiled library built
// without ThreadSanitizer. Its function-local statics are initialised under a guard whose fast
// path is an atomic load inside the library, which ThreadSanitizer cannot see; the library's
// later reads of such a static from another connection's thread then look like races. Ignoring
// the memory accesses of interceptors called from that library (memcpy, send, ...) silences
// exactly those reports; our own code, handlers included, stays fully checked.

#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libcpp-httplib.so\n"; }
#endif
