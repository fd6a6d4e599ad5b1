// A program as a board runs it, stripped: each of its two threads prints its
// own stack as symbolizer markup, the form the board sends, and it exits
// (with an argument, both spin in leaf_record until killed, for the daemon).
// The stacks hold an inlined function, a template in a namespace and a call
// through a stripped shared library.
#include <dlfcn.h>
#include <elf.h>
#include <execinfo.h>
#include <link.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

extern "C" int lib_call(int (*cb)(int), int v);

namespace {

std::string build_id(const dl_phdr_info* info) {
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        const char* p = reinterpret_cast<const char*>(info->dlpi_addr + ph.p_vaddr);
        for (size_t at = 0; ph.p_type == PT_NOTE && at + sizeof(ElfW(Nhdr)) <= ph.p_memsz;) {
            auto* n = reinterpret_cast<const ElfW(Nhdr)*>(p + at);
            const unsigned char* desc =
                reinterpret_cast<const unsigned char*>(n + 1) + ((n->n_namesz + 3) & ~3u);
            std::string id;
            for (unsigned k = 0; n->n_type == NT_GNU_BUILD_ID && k < n->n_descsz; k++) {
                char h[3];
                snprintf(h, sizeof h, "%02x", desc[k]);
                id += h;
            }
            if (!id.empty())
                return id;
            at += sizeof(*n) + ((n->n_namesz + 3) & ~3u) + ((n->n_descsz + 3) & ~3u);
        }
    }
    return "";
}

// A module element per loaded ELF object, an mmap element per segment.
int module_lines(dl_phdr_info* info, size_t, void* next_id) {
    std::string name = info->dlpi_name;
    if (name.empty()) {
        char exe[4096] = {};
        if (readlink("/proc/self/exe", exe, sizeof exe - 1) > 0)
            name = exe;
    }
    std::string id = build_id(info);
    if (id.empty())
        return 0;
    int mod = (*static_cast<int*>(next_id))++;
    printf("{{{module:%d:%s:elf:%s}}}\n", mod, name.c_str(), id.c_str());
    uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        if (ph.p_type != PT_LOAD)
            continue;
        uintptr_t vaddr = ph.p_vaddr & ~(page - 1);
        printf("{{{mmap:%#lx:%#lx:load:%d:%s%s%s:%#lx}}}\n",
               static_cast<unsigned long>(info->dlpi_addr + vaddr),
               static_cast<unsigned long>(ph.p_memsz + ph.p_vaddr - vaddr), mod,
               ph.p_flags & PF_R ? "r" : "", ph.p_flags & PF_W ? "w" : "",
               ph.p_flags & PF_X ? "x" : "", static_cast<unsigned long>(vaddr));
    }
    return 0;
}

std::string stacks[2];
// "hold": both threads spin in leaf_record for ever, to be walked and sampled.
bool hold = false;
volatile unsigned long spins = 0;

}  // namespace

// The board adds the name its dynamic symbol table gives, when it has one.
static inline __attribute__((always_inline)) void leaf_record(int slot) {
    while (hold) spins = spins + 1;
    void* addrs[32];
    int n = backtrace(addrs, 32);
    char name[16] = "?";
    pthread_getname_np(pthread_self(), name, sizeof name);
    std::string& s = stacks[slot];
    s = "Thread " + std::to_string(gettid()) + " (" + name + "):\n";
    for (int i = 0; i < n; i++) {
        char line[256];
        Dl_info d{};
        int len = snprintf(line, sizeof line, "{{{bt:%d:%p:ra}}}", i, addrs[i]);
        if (dladdr(addrs[i], &d) != 0 && d.dli_sname != nullptr)
            snprintf(line + len, sizeof line - len, " %s+%#lx", d.dli_sname,
                     static_cast<unsigned long>(static_cast<char*>(addrs[i]) -
                                                static_cast<char*>(d.dli_saddr)));
        s += line + std::string("\n");
    }
}

namespace ns {
template <typename T>
__attribute__((noipa)) T worker(T v, int slot) {
    leaf_record(slot);
    asm volatile("" ::: "memory");
    return v + 1;
}
}  // namespace ns

__attribute__((noipa)) static int callback(int v) {
    return ns::worker<int>(v, 0) + 1;
}

int main(int argc, char**) {
    hold = argc > 1;
    std::thread t([] {
        pthread_setname_np(pthread_self(), "sym-worker");
        ns::worker<long>(2, 1);
    });
    if (!hold)
        t.join();
    int r = lib_call(callback, 1);
    int next_id = 0;
    printf("{{{reset}}}\n");
    dl_iterate_phdr(module_lines, &next_id);
    printf("%s%s", stacks[0].c_str(), stacks[1].c_str());
    return r > 0 ? 0 : 1;
}
