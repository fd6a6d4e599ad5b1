// Target of the board test's stack walks, cross-built four ways.
//   walk park       the main thread waits in board_leaf, three calls deep
//   walk hot        the main thread spins in board_hot (for the profile)
//   walk N          N more threads wait in board_leaf beside the main one
//   walk crash      nine more threads wait, the main one faults in board_crash
// The call after each call and the volatile flags keep every frame real:
// no inlining, cloning, tail calls or calls into a function known not to
// return.
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

volatile int board_stop;
volatile unsigned long board_sink;

__attribute__((noinline, noclone)) void board_leaf(void) {
    while (!board_stop) pause();
    board_sink++;
}

__attribute__((noinline, noclone)) void board_middle(void) {
    board_leaf();
    board_sink += 2;
}

__attribute__((noinline, noclone)) void board_outer(void) {
    board_middle();
    board_sink += 3;
}

__attribute__((noinline, noclone)) void board_hot(void) {
    while (!board_stop) board_sink++;
}

__attribute__((noinline, noclone)) void board_crash(void) {
    *(volatile int*)0x1234 = 1;
    board_sink++;
}

static void* board_thread(void* arg) {
    board_outer();
    return arg;
}

int main(int argc, char** argv) {
    const char* mode = argc > 1 ? argv[1] : "park";
    if (strcmp(mode, "hot") == 0) {
        board_hot();
        return 0;
    }
    const int crash = strcmp(mode, "crash") == 0;
    for (int i = crash ? 9 : atoi(mode); i > 0; --i) {
        pthread_t t;
        if (pthread_create(&t, NULL, board_thread, NULL) != 0)
            return 1;
    }
    if (crash)
        board_crash();
    board_outer();
    return 0;
}
