// Naming stacks on the host. A board sends its stacks as symbolizer markup
// (module, mmap and bt elements between plain text lines); here the frames
// get names, inlined calls and source lines from debug files found by
// build-id: in local debug folders, or from debuginfod servers when asked.
//
// Nothing here is shared between threads; each thread uses its own namer.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Results besides 0.
constexpr int symbolize_bad_markup = -74;  // an element that does not parse
constexpr int symbolize_io_error = -5;     // a file could not be read or written

// {{{module:ID:NAME:elf:BUILDID}}}
struct markup_module {
    uint64_t id = 0;
    std::string name;      // the path on the board
    std::string build_id;  // lower-case hex, may be empty
};

// {{{mmap:ADDR:SIZE:load:MODID:FLAGS:MODRELADDR}}}
struct markup_mmap {
    uint64_t start = 0, size = 0;
    uint64_t module_id = 0;
    uint64_t module_addr = 0;  // the module's own address of start
    std::string flags;
};

// {{{bt:N:ADDR[:ra|:pc]}}} and the board's own name after it, if any.
struct markup_frame {
    uint64_t index = 0;
    uint64_t addr = 0;
    bool return_address = true;  // look up addr - 1
    std::string board_name;      // text after the element, trimmed
};

// What the elements so far have said about the address space.
struct markup_context {
    std::map<uint64_t, markup_module> modules;
    std::vector<markup_mmap> mmaps;

    // The mapping holding addr, or nullptr.
    const markup_mmap* find(uint64_t addr) const;
};

// One line of markup, parsed. kind says which element it held (or text).
struct markup_line {
    enum kind_t { text, reset, module, mmap, bt } kind = text;
    markup_module mod;
    markup_mmap map;
    markup_frame frame;
};

// Parses one line (without its newline). A line without "{{{" is text; a
// line with an unknown element is kept as text too, as a reader of markup
// must pass through what it does not know. Returns 0 or symbolize_bad_markup
// (a known element with a malformed field).
int parse_markup_line(const std::string& line, markup_line& out);
// The fields of s between each sep (an empty one where two meet).
std::vector<std::string> markup_split(const std::string& s, char sep);
// Applies a reset, module or mmap line to the context.
void apply_markup_line(const markup_line& l, markup_context& ctx);

// One named frame. Several come from one address when calls were inlined,
// the innermost first.
struct frame_name {
    std::string function;  // demangled; empty when unknown
    std::string file;      // source file, empty when unknown
    int line = 0;
    bool inlined = false;  // inlined into the next frame
};

// Where debug files come from, and how long the network may take.
struct symbolize_options {
    std::vector<std::string> debug_dirs;
    std::vector<std::string> debuginfod_urls;  // empty: none, unless DEBUGINFOD_URLS
    bool use_env_urls = true;                  // take DEBUGINFOD_URLS when set
    int debuginfod_timeout_s = 5;              // each transfer, unless DEBUGINFOD_TIMEOUT
    int debuginfod_deadline_ms = 10000;        // all transfers of one namer together
};

struct symbolize_cache;  // debug files opened, by build-id

// Names addresses from debug files. Files are opened once per build-id and
// kept for the life of the namer, so naming warm costs only lookups.
class symbolizer {
public:
    explicit symbolizer(symbolize_options o);
    ~symbolizer();
    symbolizer(const symbolizer&) = delete;
    symbolizer& operator=(const symbolizer&) = delete;

    // Names module_addr (the module's own address) of module m. Returns the
    // number of frames found (0: no debug file or no symbol there).
    int name(const markup_module& m, uint64_t module_addr, std::vector<frame_name>& out);
    // True when a debug file for the module was found.
    bool has_debug_file(const markup_module& m);
    // The file offset of module_addr, from the debug file's program headers;
    // 0, or -1 without a debug file or a segment holding it.
    int file_offset(const markup_module& m, uint64_t module_addr, uint64_t& out);

    symbolize_options opts;
    int debuginfod_lookups = 0;  // lookups that went to a server

private:
    std::unique_ptr<symbolize_cache> cache;
};

// Reads markup from in and writes it named to out: text lines as they are,
// context elements dropped, each bt element as one or more lines
// "#N  0xADDR in NAME (MODULE) at FILE:LINE", numbered again from 0 at each
// bt 0 so that inlined frames count as frames. Returns 0, or
// symbolize_bad_markup with the line number in why.
int symbolize_stream(std::FILE* in, std::FILE* out, symbolizer& s, std::string& why);
// The lines for one frame, as symbolize_stream writes them (without
// numbering: each starts at "0x").
std::vector<std::string> frame_lines(const markup_context& ctx, const markup_frame& f,
                                     symbolizer& s);

// A profile for the pprof format: the address space (from markup) and the
// samples, each a stack of addresses leaf first.
struct pprof_sample {
    std::string thread;
    std::vector<uint64_t> addrs;  // leaf first; all but the first are return addresses
    int64_t count = 1;
};
struct pprof_profile {
    markup_context space;
    std::vector<pprof_sample> samples;
    int64_t period_ns = 0;    // time between samples, 0 when unknown
    int64_t duration_ns = 0;  // the profile's length, 0 when unknown
    int64_t time_ns = 0;      // its start, Unix time
};

// Writes the profile as gzipped profile.proto to path, naming functions
// through s where debug files were found (s may be null: addresses only).
int write_pprof(const pprof_profile& p, symbolizer* s, const std::string& path, std::string& why);
// The same, ungzipped, into a string (for the writer and its checks).
std::string encode_pprof(const pprof_profile& p, symbolizer* s);
