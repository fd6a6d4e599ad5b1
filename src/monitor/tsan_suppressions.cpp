// Linked into the daemon only in ThreadSanitizer builds. libzmq is not built
// with the sanitizer: its I/O thread hands message data over through
// lock-free pipes the sanitizer cannot see, so every message looks like a
// race. Ignore what happens inside libzmq; races in our code still count.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libzmq.so.5\n";
}
