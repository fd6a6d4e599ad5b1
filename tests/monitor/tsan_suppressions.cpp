// libzmq is not built with ThreadSanitizer: its I/O thread hands message data
// over through lock-free pipes the sanitizer cannot see. Ignore races reported
// inside libzmq; races in our own code are still reported.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libzmq.so.5\n";
}
