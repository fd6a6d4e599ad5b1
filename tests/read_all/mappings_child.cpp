// Maps 800 pages as 800 mappings (alternating protections keep the kernel
// from merging them), says so on stdout, and waits to be killed. Linked
// statically: no other process maps its file, so its smaps stays the same
// byte for byte while it waits.
#include <sys/mman.h>
#include <unistd.h>

int main() {
    const long page = sysconf(_SC_PAGESIZE);
    char* area = static_cast<char*>(
        mmap(nullptr, 800 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    for (int i = 0; area != MAP_FAILED && i < 800; i += 2) {
        mprotect(area + i * page, page, PROT_READ);
    }
    if (area == MAP_FAILED || write(1, "r", 1) != 1) {
        return 1;
    }
    for (;;) pause();
}
