#include "crash_core.h"

#include <elf.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr uint32_t nt_siginfo = 0x53494749;
constexpr uint32_t nt_file = 0x46494c45;
constexpr size_t prstatus_pid = 32;    // elf_prstatus.pr_pid on 64-bit Linux
constexpr size_t prstatus_regs = 112;  // elf_prstatus.pr_reg
constexpr uint64_t page = 4096;

struct stream {
    core_read_fn read;
    void* ctx;
    int64_t limit;
    uint64_t pos = 0;

    // Reads exactly n bytes (or to the end/limit); returns the count.
    size_t get(void* buf, size_t n) {
        size_t done = 0;
        while (done < n) {
            if (static_cast<int64_t>(pos) >= limit)
                break;
            size_t want = std::min<uint64_t>(n - done, static_cast<uint64_t>(limit) - pos);
            ssize_t r = read(ctx, static_cast<char*>(buf) + done, want);
            if (r <= 0)
                break;
            done += static_cast<size_t>(r);
            pos += static_cast<uint64_t>(r);
        }
        return done;
    }
    bool skip_to(uint64_t off) {
        char scratch[16384];
        while (pos < off) {
            size_t n = std::min<uint64_t>(sizeof scratch, off - pos);
            if (get(scratch, n) != n)
                return false;
        }
        return true;
    }
};

uint64_t rd64(const char* p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return v;
}
uint32_t rd32(const char* p) {
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

int sp_index(int machine, int* pc) {
    if (machine == EM_X86_64) {
        *pc = 16;
        return 19;
    }
    if (machine == EM_AARCH64) {
        *pc = 32;
        return 31;
    }
    *pc = -1;
    return -1;
}

void parse_prstatus(core_data& d, const char* p, size_t n, int max_threads) {
    if (n < prstatus_regs + 8 || static_cast<int>(d.threads.size()) >= max_threads)
        return;
    core_thread t;
    t.tid = static_cast<int>(rd32(p + prstatus_pid));
    size_t nregs = core_reg_names(d.machine).size();
    if (prstatus_regs + nregs * 8 > n)
        nregs = 0;
    for (size_t i = 0; i < nregs; i++) t.regs.push_back(rd64(p + prstatus_regs + i * 8));
    int pc = -1, sp = sp_index(d.machine, &pc);
    if (nregs > 0 && sp >= 0) {
        t.sp = t.regs[static_cast<size_t>(sp)];
        t.pc = t.regs[static_cast<size_t>(pc)];
    }
    d.threads.push_back(std::move(t));
}

// NT_FILE: count, page size, count * (start, end, page offset), then the
// names, each NUL-terminated.
void parse_file_note(core_data& d, const char* p, size_t n) {
    if (n < 16)
        return;
    uint64_t count = rd64(p), page_size = rd64(p + 8);
    if (count > (n - 16) / 24)
        return;
    const char* names = p + 16 + count * 24;
    const char* end = p + n;
    for (uint64_t i = 0; i < count && names < end; i++) {
        const char* e =
            static_cast<const char*>(memchr(names, 0, static_cast<size_t>(end - names)));
        if (e == nullptr)
            break;
        core_file_map m;
        m.start = rd64(p + 16 + i * 24);
        m.end = rd64(p + 24 + i * 24);
        m.page_offset = rd64(p + 32 + i * 24) * page_size;
        m.path.assign(names, e);
        d.files.push_back(std::move(m));
        names = e + 1;
    }
}

void parse_auxv(core_data& d, const char* p, size_t n) {
    for (size_t i = 0; i + 16 <= n; i += 16)
        if (rd64(p + i) == AT_SYSINFO_EHDR)
            d.vdso = rd64(p + i + 8);
}

void parse_notes(core_data& d, int max_threads) {
    const char* p = d.notes.data();
    size_t n = d.notes.size(), off = 0;
    while (off + 12 <= n) {
        uint64_t namesz = rd32(p + off), descsz = rd32(p + off + 4);
        uint32_t type = rd32(p + off + 8);
        uint64_t name_off = off + 12, desc_off = name_off + ((namesz + 3) & ~uint64_t(3));
        uint64_t next = desc_off + ((descsz + 3) & ~uint64_t(3));
        if (desc_off > n || descsz > n - desc_off)
            break;
        bool core = namesz == 5 && memcmp(p + name_off, "CORE", 5) == 0;
        const char* desc = p + desc_off;
        if (core && type == NT_PRSTATUS)
            parse_prstatus(d, desc, descsz, max_threads);
        else if (core && type == nt_siginfo && descsz >= 24) {
            d.have_siginfo = true;
            d.sig_no = static_cast<int>(rd32(desc));
            d.sig_errno = static_cast<int>(rd32(desc + 4));
            d.sig_code = static_cast<int>(rd32(desc + 8));
            d.fault_addr = rd64(desc + 16);
        } else if (core && type == nt_file)
            parse_file_note(d, desc, descsz);
        else if (core && type == NT_AUXV)
            parse_auxv(d, desc, descsz);
        off = next;
    }
}

// The part of segment s worth keeping: [*from, *to) relative to its start.
bool wanted(const core_data& d, const core_segment& s, const core_limits& lim, uint64_t* from,
            uint64_t* to, bool* is_stack) {
    *is_stack = false;
    if (s.filesz == 0)
        return false;
    uint64_t lo = UINT64_MAX, hi = 0;
    for (const auto& t : d.threads) {
        if (t.sp < s.vaddr || t.sp - s.vaddr >= s.filesz)
            continue;
        // From the page holding SP - 256 (the red zone of a leaf function):
        // readers of cores assume page-aligned segments.
        uint64_t a = t.sp - s.vaddr >= 256 ? (t.sp - 256 - s.vaddr) & ~(page - 1) : 0;
        uint64_t b =
            std::min<uint64_t>(s.filesz, t.sp - s.vaddr + static_cast<uint64_t>(lim.stack_bytes));
        lo = std::min(lo, a);
        hi = std::max(hi, b);
    }
    if (hi > lo) {
        *from = lo;
        *to = hi;
        *is_stack = true;
        return true;
    }
    // Small data segments: among them the dynamic section, the linker's
    // r_debug and its list of loaded libraries, by which host debuggers find
    // the libraries of a core.
    if (!(s.flags & PF_X) && s.filesz <= static_cast<uint64_t>(lim.small_segment_bytes)) {
        *from = 0;
        *to = s.filesz;
        return true;
    }
    bool header = s.vaddr == d.vdso && d.vdso != 0;
    for (const auto& f : d.files) header = header || (f.start == s.vaddr && f.page_offset == 0);
    if (!header)
        return false;
    *from = 0;
    *to = std::min<uint64_t>(s.filesz, s.vaddr == d.vdso ? 4 * page : page);
    return true;
}

int read_headers(stream& in, core_data& d, const core_limits& lim,
                 std::vector<core_segment>& notes) {
    Elf64_Ehdr eh;
    if (in.get(&eh, sizeof eh) != sizeof eh || memcmp(eh.e_ident, ELFMAG, SELFMAG) != 0 ||
        eh.e_ident[EI_CLASS] != ELFCLASS64 || eh.e_ident[EI_DATA] != ELFDATA2LSB ||
        eh.e_type != ET_CORE || eh.e_phentsize != sizeof(Elf64_Phdr)) {
        d.problem = "not a 64-bit little-endian ELF core";
        return -ENOEXEC;
    }
    d.machine = eh.e_machine;
    if (eh.e_phnum == 0 || eh.e_phnum > lim.max_segments || eh.e_phoff < sizeof eh) {
        d.problem = "bad program header count or offset";
        return -ENOEXEC;
    }
    if (!in.skip_to(eh.e_phoff)) {
        d.problem = "cut before its program headers";
        return -ENODATA;
    }
    std::vector<Elf64_Phdr> ph(eh.e_phnum);
    size_t want = ph.size() * sizeof(Elf64_Phdr);
    if (in.get(ph.data(), want) != want) {
        d.problem = "cut in its program headers";
        return -ENODATA;
    }
    for (const auto& p : ph) {
        core_segment s{p.p_offset, p.p_vaddr, p.p_filesz, p.p_memsz, p.p_flags};
        if (p.p_type == PT_LOAD)
            d.loads.push_back(s);
        else if (p.p_type == PT_NOTE)
            notes.push_back(s);
    }
    return 0;
}

int read_notes(stream& in, core_data& d, const core_limits& lim, std::vector<core_segment>& notes) {
    std::sort(notes.begin(), notes.end(),
              [](const core_segment& a, const core_segment& b) { return a.offset < b.offset; });
    for (const auto& s : notes) {
        if (s.filesz > static_cast<uint64_t>(lim.notes_limit) - d.notes.size() ||
            s.offset < in.pos || !in.skip_to(s.offset)) {
            d.problem = "notes out of order, cut or too large";
            break;
        }
        std::string buf(s.filesz, '\0');
        size_t got = in.get(&buf[0], buf.size());
        buf.resize(got);
        d.notes += buf;
        if (got != s.filesz) {
            d.problem = "cut in its notes";
            break;
        }
    }
    parse_notes(d, lim.max_threads);
    if (d.notes.empty() && d.problem.empty())
        d.problem = "no notes";
    // Memory is of no use without the notes that say whose it is.
    return d.problem.empty() ? 0 : -ENODATA;
}

}  // namespace

std::vector<const char*> core_reg_names(int machine) {
    if (machine == EM_X86_64)
        return {"r15",    "r14", "r13", "r12",     "rbp",     "rbx", "r11",      "r10", "r9",
                "r8",     "rax", "rcx", "rdx",     "rsi",     "rdi", "orig_rax", "rip", "cs",
                "eflags", "rsp", "ss",  "fs_base", "gs_base", "ds",  "es",       "fs",  "gs"};
    if (machine == EM_AARCH64)
        return {"x0",  "x1",  "x2",  "x3",  "x4",  "x5",  "x6",    "x7",  "x8",
                "x9",  "x10", "x11", "x12", "x13", "x14", "x15",   "x16", "x17",
                "x18", "x19", "x20", "x21", "x22", "x23", "x24",   "x25", "x26",
                "x27", "x28", "x29", "x30", "sp",  "pc",  "pstate"};
    return {};
}

int core_read(core_read_fn read, void* ctx, const core_limits& lim, core_data& d) {
    stream in{read, ctx, lim.read_limit};
    std::vector<core_segment> notes;
    int rc = read_headers(in, d, lim, notes);
    if (rc == 0)
        rc = read_notes(in, d, lim, notes);
    if (rc != 0) {
        d.bytes_read = in.pos;
        return rc;
    }
    std::vector<core_segment> loads = d.loads;
    std::sort(loads.begin(), loads.end(),
              [](const core_segment& a, const core_segment& b) { return a.offset < b.offset; });
    int64_t budget = lim.kept_limit;
    for (const auto& s : loads) {
        uint64_t from = 0, to = 0;
        bool stack = false;
        if (!wanted(d, s, lim, &from, &to, &stack))
            continue;
        // Two stacks far apart in one segment must not make one huge piece.
        to = std::min<uint64_t>(to, from + static_cast<uint64_t>(std::max<int64_t>(budget, 0)));
        if (to <= from)
            continue;
        budget -= static_cast<int64_t>(to - from);
        if (s.offset + from < in.pos || !in.skip_to(s.offset + from)) {
            d.problem = in.pos >= static_cast<uint64_t>(lim.read_limit) ? "read limit reached"
                                                                        : "cut in its memory";
            break;
        }
        core_piece piece{s.vaddr + from, s.flags, stack, std::string(to - from, '\0')};
        size_t got = in.get(&piece.bytes[0], piece.bytes.size());
        piece.bytes.resize(got);
        if (got > 0)
            d.pieces.push_back(std::move(piece));
        if (got != to - from) {
            d.problem = "cut in its memory";
            break;
        }
    }
    d.bytes_read = in.pos;
    return 0;
}

std::string core_build(const core_data& d, int64_t stack_bytes) {
    std::vector<const core_piece*> keep;
    for (const auto& p : d.pieces) keep.push_back(&p);
    size_t nph = 1 + keep.size();
    Elf64_Ehdr eh{};
    memcpy(eh.e_ident, ELFMAG, SELFMAG);
    eh.e_ident[EI_CLASS] = ELFCLASS64;
    eh.e_ident[EI_DATA] = ELFDATA2LSB;
    eh.e_ident[EI_VERSION] = EV_CURRENT;
    eh.e_type = ET_CORE;
    eh.e_machine = static_cast<Elf64_Half>(d.machine);
    eh.e_version = EV_CURRENT;
    eh.e_phoff = sizeof eh;
    eh.e_ehsize = sizeof eh;
    eh.e_phentsize = sizeof(Elf64_Phdr);
    eh.e_phnum = static_cast<Elf64_Half>(nph);
    std::string out(reinterpret_cast<const char*>(&eh), sizeof eh);
    uint64_t off = sizeof eh + nph * sizeof(Elf64_Phdr);
    std::string body = d.notes;
    Elf64_Phdr note{};
    note.p_type = PT_NOTE;
    note.p_offset = off;
    note.p_filesz = d.notes.size();
    note.p_align = 4;
    out.append(reinterpret_cast<const char*>(&note), sizeof note);
    for (const core_piece* p : keep) {
        size_t n = p->bytes.size();
        if (p->stack && stack_bytes > 0)
            n = std::min<size_t>(n, static_cast<size_t>(stack_bytes) + 2 * page);
        // File offsets congruent to the addresses modulo the page size, as
        // the kernel writes them.
        body.resize(((off + body.size() + page - 1) & ~(page - 1)) - off, '\0');
        Elf64_Phdr ph{};
        ph.p_type = PT_LOAD;
        ph.p_flags = p->flags;
        ph.p_offset = off + body.size();
        ph.p_vaddr = p->vaddr;
        ph.p_filesz = ph.p_memsz = n;
        ph.p_align = page;
        out.append(reinterpret_cast<const char*>(&ph), sizeof ph);
        body.append(p->bytes, 0, n);
    }
    return out + body;
}
