// Targets for the probe tests, by the first argument:
//   (none) or "threads N DEPTH [NAME]": N-1 named threads "vh-worker-I" (the
//          first one NAME when given), each DEPTH
//          calls deep in vireo_helper_deep and then in pause(), and a main
//          thread that blocks in read() three known calls deep. It writes
//          "ready\n" just before that read; given one byte on stdin it writes
//          "alive\n" and exits 0, or "broken\n" and exits 1 when the read
//          failed (an interrupted call a probe should have restarted).
//   "hot": writes "ready\n" and spins in vireo_helper_hot forever.
//   "busy": two threads in pause() as above, then as "hot".
//   "exit US": three threads, then the process exits after US microseconds.
//   "vfork": three threads as above, then the main thread blocks in vfork
//          (uninterruptible) while the child writes "ready\n" and pauses.
//   "leader-exit": three threads as above, then writes "ready\n" and ends
//          its main thread with pthread_exit().
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" {
__attribute__((noinline)) void* vireo_helper_deep(void* depth) {
    static volatile bool forever = true;
    if (auto left = reinterpret_cast<uintptr_t>(depth); left > 0) return vireo_helper_deep(reinterpret_cast<void*>(left - 1));
    while (forever) pause();
    return nullptr;
}
__attribute__((noinline)) int vireo_helper_inner() {
    char byte;
    write(1, "ready\n", 6);
    return read(0, &byte, 1) == 1 ? 0 : 1;
}
__attribute__((noinline)) int vireo_helper_middle() { return vireo_helper_inner() + 0; }
__attribute__((noinline)) int vireo_helper_outer() { return vireo_helper_middle() + 0; }
__attribute__((noinline)) void vireo_helper_hot() { for (volatile unsigned long i = 0;; i = i + 1) {} }
}  // extern "C"

int main(int argc, char** argv) {
    std::string mode = argc > 1 ? argv[1] : "threads";
    int threads = mode == "threads" && argc > 2 ? atoi(argv[2]) : mode == "busy" ? 3 : 4;
    long depth = argc > 3 ? atol(argv[3]) : 0;
    if (mode == "hot") write(1, "ready\n", 6), vireo_helper_hot();
    for (int i = 0; i < threads - 1; i++) {
        pthread_t t;
        pthread_create(&t, nullptr, vireo_helper_deep, reinterpret_cast<void*>(depth));
        pthread_setname_np(t, (i == 0 && argc > 4 ? std::string(argv[4]) : "vh-worker-" + std::to_string(i)).c_str());
    }
    if (mode == "busy") write(1, "ready\n", 6), vireo_helper_hot();
    if (mode == "vfork" && vfork() == 0) {
        syscall(SYS_write, 1, "ready\n", 6);
        for (;;) syscall(SYS_ppoll, nullptr, 0, nullptr, nullptr, 0);  // pause(), which arm64 lacks as a call
    }
    if (mode == "vfork") _exit(0);
    if (mode == "leader-exit") write(1, "ready\n", 6), pthread_exit(nullptr);
    if (mode == "exit") usleep(static_cast<useconds_t>(atol(argv[2]))), exit(0);
    int rc = vireo_helper_outer();
    write(1, rc == 0 ? "alive\n" : "broken\n", rc == 0 ? 6 : 7);
    _exit(rc);
}
