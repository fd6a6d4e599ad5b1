// The board's shared library, stripped on the board: a call through it must
// be named on the host too. The work after the call keeps it from being a
// tail call, so its frame stays on the stack.
extern "C" __attribute__((noipa)) int lib_call(int (*cb)(int), int v) {
    int r = cb(v);
    asm volatile("" : "+r"(r));
    return r * 3 + 1;
}
