// Crashes as the crash tests ask: "segv" with SIGSEGV in crash_here, at a
// known address; "abort" with abort() from its second thread; "spin" never.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>

extern "C" __attribute__((noinline)) void crash_here(volatile int* p) {
    *p = 42;
}

extern "C" __attribute__((noinline)) void abort_here() {
    abort();
}

int main(int argc, char** argv) {
    const char* how = argc > 1 ? argv[1] : "segv";
    if (strcmp(how, "segv") == 0)
        crash_here(reinterpret_cast<volatile int*>(0x1234));
    if (strcmp(how, "abort") == 0) {
        std::thread t(abort_here);
        t.join();
    }
    pause();
    return 0;
}
