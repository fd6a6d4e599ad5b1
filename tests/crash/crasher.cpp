// Crashes as the crash tests ask: "segv" with SIGSEGV in crash_here, at a
// known address; "abort" with abort() from its second thread; "segv10" like
// "segv" with nine more threads waiting.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

extern "C" __attribute__((noinline)) void crash_here(volatile int* p) {
    *p = 42;
}

extern "C" __attribute__((noinline)) void abort_here() {
    abort();
}

extern "C" __attribute__((noinline)) void wait_here() {
    pause();
}

int main(int argc, char** argv) {
    const char* how = argc > 1 ? argv[1] : "segv";
    std::vector<std::thread> waiting;
    for (int i = 0; strcmp(how, "segv10") == 0 && i < 9; i++) waiting.emplace_back(wait_here);
    if (strncmp(how, "segv", 4) == 0) {
        usleep(waiting.empty() ? 0 : 100000);
        crash_here(reinterpret_cast<volatile int*>(0x1234));
    }
    if (strcmp(how, "abort") == 0) {
        std::thread t(abort_here);
        t.join();
    }
    pause();
    return 0;
}
