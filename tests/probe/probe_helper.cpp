// A target for the probe tests: three named threads waiting in pause(), and
// a main thread that blocks in read() three known calls deep. It writes
// "ready\n" just before that read; given one byte on stdin it writes
// "alive\n" and exits 0, or "broken\n" and exits 1 when the read failed
// (an interrupted call that a probe should have restarted transparently).
#include <pthread.h>
#include <unistd.h>

#include <string>

extern "C" {
__attribute__((noinline)) void* vireo_helper_worker(void*) {
    for (;;) pause();
}
__attribute__((noinline)) int vireo_helper_inner() {
    char byte;
    write(1, "ready\n", 6);
    return read(0, &byte, 1) == 1 ? 0 : 1;
}
__attribute__((noinline)) int vireo_helper_middle() { return vireo_helper_inner() + 0; }
__attribute__((noinline)) int vireo_helper_outer() { return vireo_helper_middle() + 0; }
}  // extern "C"

int main() {
    for (int i = 0; i < 3; i++) {
        pthread_t t;
        pthread_create(&t, nullptr, vireo_helper_worker, nullptr);
        pthread_setname_np(t, ("vh-worker-" + std::to_string(i)).c_str());
    }
    int rc = vireo_helper_outer();
    write(1, rc == 0 ? "alive\n" : "broken\n", rc == 0 ? 6 : 7);
    _exit(rc);
}
