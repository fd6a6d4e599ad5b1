// Built only with -DVIREO_SANITIZE=thread. libzmq is not built with
// ThreadSanitizer: its I/O thread copies and frees message data handed over
// through lock-free pipes whose atomics the tool cannot see, so every message
// looks like a race. With CURVE the I/O thread decrypts into the message
// through libsodium, whose frames hide libzmq's from the report, and each
// context start and end goes through libpgm's global mutex. Ignore what
// happens inside these libraries; races in our own code are still reported.
extern "C" const char* __tsan_default_suppressions() {
    return "called_from_lib:libzmq.so.5\n"
           "race:libzmq.so.5\n"
           "race:libsodium.so.23\n"
           "race:libpgm-5.3.so.0\n";
}
