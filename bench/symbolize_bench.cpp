// Host naming of a full (1 MiB) stack reply in symbolizer markup: once cold
// (debug files opened, every address looked up) and once warm (the same
// namer again). Prints one JSON line.
//
// Usage: vireo-bench-symbolize [--markup FILE] [--debug-dir DIR]... [--bytes N]
// Without --markup it makes the reply from its own stacks (a deep recursion
// through this program, built with -g, and the C library), repeated up to
// N bytes (default 1 MiB); without --debug-dir it reads debug information
// from the files themselves ("/" as a sysroot).
#include <elf.h>
#include <execinfo.h>
#include <link.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>

#include "symbolize.h"

namespace {

std::string hex_id(const dl_phdr_info* info) {
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        const char* p = reinterpret_cast<const char*>(info->dlpi_addr + ph.p_vaddr);
        for (size_t at = 0; ph.p_type == PT_NOTE && at + sizeof(ElfW(Nhdr)) <= ph.p_memsz;) {
            auto* n = reinterpret_cast<const ElfW(Nhdr)*>(p + at);
            auto* desc = reinterpret_cast<const unsigned char*>(n + 1) + ((n->n_namesz + 3) & ~3u);
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

int add_module(dl_phdr_info* info, size_t, void* data) {
    auto* out = static_cast<std::string*>(data);
    std::string name = info->dlpi_name, id = hex_id(info);
    if (name.empty()) {
        char exe[4096] = {};
        if (readlink("/proc/self/exe", exe, sizeof exe - 1) > 0)
            name = exe;
    }
    static int next = 0;
    if (id.empty() || name.empty() || name[0] != '/')
        return 0;
    int mod = next++;
    *out += "{{{module:" + std::to_string(mod) + ":" + name + ":elf:" + id + "}}}\n";
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr)& ph = info->dlpi_phdr[i];
        uintptr_t v = ph.p_vaddr & ~uintptr_t(4095);
        char line[160];
        if (ph.p_type == PT_LOAD &&
            snprintf(line, sizeof line, "{{{mmap:%#lx:%#lx:load:%d:r%s:%#lx}}}\n",
                     static_cast<unsigned long>(info->dlpi_addr + v),
                     static_cast<unsigned long>(ph.p_memsz + ph.p_vaddr - v), mod,
                     ph.p_flags & PF_X ? "x" : "", static_cast<unsigned long>(v)) > 0)
            *out += line;
    }
    return 0;
}

std::string stack_text;

__attribute__((noinline)) void record() {
    void* addrs[64];
    int n = backtrace(addrs, 64);
    for (int i = 0; i < n; i++) {
        char line[80];
        snprintf(line, sizeof line, "{{{bt:%d:%p:%s}}}\n", i, addrs[i], i ? "ra" : "pc");
        stack_text += line;
    }
}

__attribute__((noinline)) int descend_b(int depth);
__attribute__((noinline)) int descend_a(int depth) {
    int r = depth > 0 ? descend_b(depth - 1) : (record(), 0);
    asm volatile("" : "+r"(r));
    return r + 1;
}
__attribute__((noinline)) int descend_b(int depth) {
    int r = descend_a(depth);
    asm volatile("" : "+r"(r));
    return r + 2;
}

double ms_since(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t).count();
}

// Names the markup once; returns the milliseconds it took.
double name_once(const std::string& markup, symbolizer& s, size_t& lines_out, size_t& with_line) {
    FILE* in = fmemopen(const_cast<char*>(markup.data()), markup.size(), "r");
    char* buf = nullptr;
    size_t len = 0;
    FILE* out = open_memstream(&buf, &len);
    std::string why;
    auto t = std::chrono::steady_clock::now();
    int rc = in && out ? symbolize_stream(in, out, s, why) : -1;
    double ms = ms_since(t);
    if (in)
        fclose(in);
    if (out)
        fclose(out);
    lines_out = 0;
    for (size_t i = 0; buf && i < len; i++) lines_out += buf[i] == '\n';
    with_line = 0;
    for (const char* p = buf; p && (p = strstr(p, ") at ")) != nullptr; p++) with_line++;
    free(buf);
    if (rc != 0)
        fprintf(stderr, "vireo-bench-symbolize: %s\n", why.c_str());
    return rc == 0 ? ms : -1;
}

}  // namespace

int main(int argc, char** argv) {
    symbolize_options o;
    o.use_env_urls = false;
    std::string markup_file;
    size_t bytes = 1 << 20;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strcmp(argv[i], "--markup") == 0)
            markup_file = argv[i + 1];
        else if (strcmp(argv[i], "--debug-dir") == 0)
            o.debug_dirs.push_back(argv[i + 1]);
        else if (strcmp(argv[i], "--bytes") == 0)
            bytes = strtoull(argv[i + 1], nullptr, 10);
    }
    if (o.debug_dirs.empty())
        o.debug_dirs.push_back("/");
    std::string markup = "{{{reset}}}\n";
    if (markup_file.empty()) {
        dl_iterate_phdr(add_module, &markup);
        descend_a(24);
        for (int t = 0; markup.size() + stack_text.size() + 64 < bytes; t++)
            markup += "Thread " + std::to_string(1000 + t) + " (worker):\n" + stack_text;
    } else if (FILE* f = fopen(markup_file.c_str(), "r")) {
        char buf[65536];
        markup.clear();
        for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) markup.append(buf, n);
        fclose(f);
    }
    size_t frames = 0, lines_cold = 0, lines_warm = 0, with_line = 0;
    for (size_t at = 0; (at = markup.find("{{{bt:", at)) != std::string::npos; at++) frames++;
    symbolizer s(o);
    double cold = name_once(markup, s, lines_cold, with_line);
    double warm = name_once(markup, s, lines_warm, with_line);
    printf(
        "{\"bench\":\"symbolize\",\"markup_bytes\":%zu,\"frames\":%zu,\"lines_out\":%zu,"
        "\"frames_with_line\":%zu,"
        "\"cold_ms\":%.1f,\"warm_ms\":%.1f,\"goal_warm_ms\":1000,\"ok\":%s}\n",
        markup.size(), frames, lines_warm, with_line, cold, warm,
        warm >= 0 && warm < 1000 && lines_cold == lines_warm ? "true" : "false");
    return warm >= 0 ? 0 : 1;
}
