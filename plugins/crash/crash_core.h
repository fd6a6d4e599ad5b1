// Reading a process core as the kernel streams it into a pipe: the ELF
// header, the program headers, the notes, and only the memory a report and
// a stack-only core need (each thread's stack near its stack pointer, the
// first page of each mapped ELF file, the vDSO, small data segments). The stream is read in one
// pass, in file order, and never past the last needed byte.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// Reads up to n bytes into buf; returns the count, 0 at the end, <0 on error.
using core_read_fn = ssize_t (*)(void* ctx, void* buf, size_t n);

struct core_limits {
    int64_t read_limit = 512 << 20;   // bytes of the stream ever read
    int64_t stack_bytes = 256 << 10;  // kept from each thread's SP upwards
    int64_t notes_limit = 8 << 20;
    int64_t kept_limit = 64 << 20;           // memory kept, all pieces together
    int64_t small_segment_bytes = 64 << 10;  // data segments up to this size are kept whole
    int max_threads = 256;
    int max_segments = 65534;
};

struct core_thread {
    int tid = 0;
    uint64_t pc = 0, sp = 0;
    std::vector<uint64_t> regs;  // the machine's general registers, in pr_reg order
};

struct core_piece {
    uint64_t vaddr = 0;
    uint32_t flags = 0;  // PF_R | PF_W | PF_X of its segment
    bool stack = false;
    std::string bytes;
};

struct core_file_map {
    uint64_t start = 0, end = 0, page_offset = 0;
    std::string path;
};

struct core_segment {
    uint64_t offset = 0, vaddr = 0, filesz = 0, memsz = 0;
    uint32_t flags = 0;
};

struct core_data {
    int machine = 0;                   // e_machine
    std::vector<core_segment> loads;   // every PT_LOAD, as in the stream
    std::string notes;                 // the PT_NOTE contents, unchanged
    std::vector<core_thread> threads;  // NT_PRSTATUS order: the dumping thread first
    std::vector<core_file_map> files;  // NT_FILE
    std::vector<core_piece> pieces;    // the memory kept
    bool have_siginfo = false;
    int sig_no = 0, sig_code = 0, sig_errno = 0;
    uint64_t fault_addr = 0;
    uint64_t vdso = 0;  // AT_SYSINFO_EHDR
    uint64_t bytes_read = 0;
    std::string problem;  // empty, or why the core was cut short
};

// Reads a core from read(ctx). Returns 0 with everything found, a negative
// errno value when the stream is not a 64-bit little-endian ELF core
// (-ENOEXEC) or ends before the end of its notes (-ENODATA); data.problem says which.
// Whatever was read before a later failure stays in data (a short report
// is still possible).
int core_read(core_read_fn read, void* ctx, const core_limits& lim, core_data& data);

// A valid ELF core of data: one PT_NOTE with the original notes, then one
// PT_LOAD per kept piece, each stack piece cut to stack_bytes from its
// start (0: stacks as kept).
std::string core_build(const core_data& data, int64_t stack_bytes);

// Names of the general registers of pr_reg for e_machine, or empty.
std::vector<const char*> core_reg_names(int machine);
