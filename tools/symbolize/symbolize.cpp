// Finding a module's debug file by build-id and naming its addresses with
// libdwfl: the symbol table for the function, DWARF scopes for inlined calls
// and the line table for file and line.
#include "symbolize.h"

#include <cxxabi.h>
#include <dwarf.h>
#include <elfutils/libdw.h>
#include <elfutils/libdwelf.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>

#ifdef VIREO_HAVE_DEBUGINFOD
#include <elfutils/debuginfod.h>
#endif

namespace {

// The debug file of one build-id, opened in a Dwfl of its own, at the
// addresses of the file itself (bias 0 for a shared object).
struct debug_file {
    Dwfl* dwfl = nullptr;
    Dwfl_Module* mod = nullptr;
    Dwarf_Addr bias = 0;
};

// A debug file is looked up by build-id only: no path is searched, no
// server asked behind our back.
int no_debuginfo(Dwfl_Module*, void**, const char*, Dwarf_Addr, const char*, const char*, GElf_Word,
                 char**) {
    return -1;
}

const Dwfl_Callbacks offline_callbacks = {nullptr, no_debuginfo, dwfl_offline_section_address,
                                          nullptr};

std::string hex_bytes(const void* p, ssize_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (ssize_t i = 0; i < n; i++) {
        unsigned char b = static_cast<const unsigned char*>(p)[i];
        s += digits[b >> 4];
        s += digits[b & 15];
    }
    return s;
}

// A stripped copy of the board's file names nothing: keep looking then.
bool has_names(Elf* elf) {
    size_t strndx = 0;
    if (elf_getshdrstrndx(elf, &strndx) != 0)
        return false;
    for (Elf_Scn* scn = elf_nextscn(elf, nullptr); scn != nullptr; scn = elf_nextscn(elf, scn)) {
        GElf_Shdr sh;
        if (gelf_getshdr(scn, &sh) == nullptr || sh.sh_type == SHT_NOBITS)
            continue;
        const char* name = elf_strptr(elf, strndx, sh.sh_name);
        if (sh.sh_type == SHT_SYMTAB || (name != nullptr && strcmp(name, ".debug_info") == 0))
            return true;
    }
    return false;
}

// True when path is an ELF file with this build-id (any ELF file when the
// board sent none) that holds a symbol table or DWARF.
bool matches(const std::string& path, const std::string& build_id) {
    // Regular files only: a fifo or a device at a candidate's path would
    // hold the lookup, or do what opening it does.
    struct stat st;
    if (stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0)
        return false;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close(fd);
        return false;
    }
    elf_version(EV_CURRENT);
    Elf* elf = elf_begin(fd, ELF_C_READ_MMAP, nullptr);
    bool ok = false;
    if (elf != nullptr && elf_kind(elf) == ELF_K_ELF) {
        const void* id = nullptr;
        ssize_t n = dwelf_elf_gnu_build_id(elf, &id);
        ok = (build_id.empty() || (n > 0 && hex_bytes(id, n) == build_id)) && has_names(elf);
    }
    if (elf != nullptr)
        elf_end(elf);
    close(fd);
    return ok;
}

// Where a debug folder may hold the file: a build-id tree, the same under
// usr/lib/debug, and a sysroot (the file itself, or its .debug beside it).
std::vector<std::string> candidates(const std::string& dir, const markup_module& m) {
    std::vector<std::string> c;
    if (m.build_id.size() > 2) {
        std::string tail = m.build_id.substr(0, 2) + "/" + m.build_id.substr(2) + ".debug";
        c.push_back(dir + "/.build-id/" + tail);
        c.push_back(dir + "/usr/lib/debug/.build-id/" + tail);
    }
    // The name is the board's word: a ".." in it would lead the sysroot
    // lookups out of the debug folder, to any file of this host.
    if (!m.name.empty() && m.name[0] == '/' && (m.name + "/").find("/../") == std::string::npos) {
        c.push_back(dir + "/usr/lib/debug" + m.name + ".debug");
        size_t slash = m.name.rfind('/');
        c.push_back(dir + m.name.substr(0, slash) + "/.debug" + m.name.substr(slash));
        c.push_back(dir + m.name);
    }
    return c;
}

std::string demangle(const char* name) {
    int status = -1;
    char* d = abi::__cxa_demangle(name, nullptr, nullptr, &status);
    std::string s = status == 0 && d != nullptr ? d : name;
    free(d);
    return s;
}

// The name of a subprogram or inlined call, from its abstract origin or
// declaration when it has none of its own.
std::string die_function(Dwarf_Die* die) {
    Dwarf_Attribute a;
    const char* s = dwarf_formstring(dwarf_attr_integrate(die, DW_AT_linkage_name, &a));
    if (s == nullptr)
        s = dwarf_formstring(dwarf_attr_integrate(die, DW_AT_MIPS_linkage_name, &a));
    if (s != nullptr)
        return demangle(s);
    s = dwarf_formstring(dwarf_attr_integrate(die, DW_AT_name, &a));
    return s != nullptr ? s : "";
}

// A source file as the compiler saw it: relative names are relative to the
// unit's compilation folder.
std::string source_path(Dwarf_Die* cu, const char* file) {
    if (file == nullptr)
        return "";
    Dwarf_Attribute a;
    const char* dir = dwarf_formstring(dwarf_attr(cu, DW_AT_comp_dir, &a));
    if (file[0] == '/' || dir == nullptr || dir[0] == '\0')
        return file;
    return std::string(dir) + "/" + file;
}

// The source position an inlined call was made from.
void call_site(Dwarf_Die* cu, Dwarf_Die* inl, std::string& file, int& line) {
    Dwarf_Attribute a;
    Dwarf_Word idx = 0, ln = 0;
    Dwarf_Files* files = nullptr;
    size_t n = 0;
    file.clear();
    line = 0;
    if (dwarf_formudata(dwarf_attr(inl, DW_AT_call_line, &a), &ln) == 0)
        line = static_cast<int>(ln);
    if (dwarf_formudata(dwarf_attr(inl, DW_AT_call_file, &a), &idx) == 0 &&
        dwarf_getsrcfiles(cu, &files, &n) == 0 && idx < n) {
        file = source_path(cu, dwarf_filesrc(files, idx, nullptr, nullptr));
    }
}

// Frames from the DWARF scopes around addr, innermost first.
void dwarf_frames(Dwfl_Module* mod, Dwarf_Addr addr, std::vector<frame_name>& out) {
    Dwarf_Addr cu_bias = 0;
    Dwarf_Die* cu = dwfl_module_addrdie(mod, addr, &cu_bias);
    if (cu == nullptr)
        return;
    frame_name next;
    if (Dwfl_Line* l = dwfl_module_getsrc(mod, addr)) {
        next.file =
            source_path(cu, dwfl_lineinfo(l, nullptr, &next.line, nullptr, nullptr, nullptr));
    }
    // The innermost scope, then the scopes around it in the concrete tree
    // (dwarf_getscopes would go on into the inlined functions' abstract
    // definitions instead of the functions they were inlined into).
    Dwarf_Die* scopes = nullptr;
    int n = dwarf_getscopes(cu, addr - cu_bias, &scopes);
    if (n <= 0) {
        free(scopes);
        return;
    }
    Dwarf_Die inner = scopes[0];
    free(scopes);
    scopes = nullptr;
    n = dwarf_getscopes_die(&inner, &scopes);
    for (int i = 0; i < n; i++) {
        int tag = dwarf_tag(&scopes[i]);
        if (tag != DW_TAG_inlined_subroutine && tag != DW_TAG_subprogram)
            continue;
        frame_name f = next;
        f.function = die_function(&scopes[i]);
        f.inlined = tag == DW_TAG_inlined_subroutine;
        // A function with internal linkage has no linkage name in DWARF;
        // its symbol still carries the parameter types.
        const char* sym = f.inlined ? nullptr : dwfl_module_addrname(mod, addr);
        std::string from_sym = sym != nullptr ? demangle(sym) : "";
        if (!from_sym.empty() && from_sym.compare(0, f.function.size(), f.function) == 0)
            f.function = from_sym;
        out.push_back(f);
        if (!f.inlined)
            break;
        call_site(cu, &scopes[i], next.file, next.line);
    }
    free(scopes);
}

}  // namespace

struct symbolize_cache {
    std::map<std::string, debug_file> files;  // by build-id, or name when none
    // Addresses named so far: a stack reply repeats the same few hundred
    // frames across its threads and samples.
    std::map<std::pair<const debug_file*, uint64_t>, std::vector<frame_name>> named;
#ifdef VIREO_HAVE_DEBUGINFOD
    debuginfod_client* client = nullptr;
#endif
    std::chrono::steady_clock::time_point deadline;
    bool deadline_set = false;

    ~symbolize_cache() {
        for (auto& f : files)
            if (f.second.dwfl != nullptr)
                dwfl_end(f.second.dwfl);
#ifdef VIREO_HAVE_DEBUGINFOD
        if (client != nullptr)
            debuginfod_end(client);
#endif
    }
};

namespace {

bool open_debug_file(const std::string& path, const std::string& name, debug_file& d) {
    d.dwfl = dwfl_begin(&offline_callbacks);
    if (d.dwfl == nullptr)
        return false;
    dwfl_report_begin(d.dwfl);
    d.mod = dwfl_report_elf(d.dwfl, name.c_str(), path.c_str(), -1, 0, false);
    dwfl_report_end(d.dwfl, nullptr, nullptr);
    if (d.mod == nullptr || dwfl_module_getelf(d.mod, &d.bias) == nullptr) {
        dwfl_end(d.dwfl);
        d = debug_file();
        return false;
    }
    return true;
}

#ifdef VIREO_HAVE_DEBUGINFOD
// Cancels a transfer once the namer's time for the network is spent.
int past_deadline(debuginfod_client* c, long, long) {
    auto* cache = static_cast<symbolize_cache*>(debuginfod_get_user_data(c));
    return std::chrono::steady_clock::now() > cache->deadline ? 1 : 0;
}
#endif

}  // namespace

symbolizer::symbolizer(symbolize_options o) : opts(std::move(o)), cache(new symbolize_cache) {}

symbolizer::~symbolizer() = default;

namespace {

// The servers to ask, as libdebuginfod reads them; empty when none.
std::string server_urls(const symbolize_options& o) {
    std::string urls;
    for (const std::string& u : o.debuginfod_urls) urls += (urls.empty() ? "" : " ") + u;
    const char* env = getenv("DEBUGINFOD_URLS");
    if (urls.empty() && o.use_env_urls && env != nullptr)
        urls = env;
    return urls;
}

}  // namespace

#ifdef VIREO_HAVE_DEBUGINFOD
// A debug file from a server into libdebuginfod's cache; its path, or "".
static std::string fetch(symbolizer& s, symbolize_cache& c, const markup_module& m) {
    std::string urls = server_urls(s.opts);
    if (urls.empty() || m.build_id.empty())
        return "";
    if (!c.deadline_set) {
        // Each transfer gives up after DEBUGINFOD_TIMEOUT seconds without
        // progress; all of them together after debuginfod_deadline_ms.
        setenv("DEBUGINFOD_URLS", urls.c_str(), 1);
        setenv("DEBUGINFOD_TIMEOUT", std::to_string(s.opts.debuginfod_timeout_s).c_str(), 0);
        c.deadline = std::chrono::steady_clock::now() +
                     std::chrono::milliseconds(s.opts.debuginfod_deadline_ms);
        c.deadline_set = true;
        c.client = debuginfod_begin();
        if (c.client != nullptr) {
            debuginfod_set_user_data(c.client, &c);
            debuginfod_set_progressfn(c.client, past_deadline);
        }
    }
    if (c.client == nullptr || std::chrono::steady_clock::now() > c.deadline)
        return "";
    s.debuginfod_lookups++;
    char* path = nullptr;
    int fd = debuginfod_find_debuginfo(
        c.client, reinterpret_cast<const unsigned char*>(m.build_id.c_str()), 0, &path);
    std::string p = fd >= 0 && path != nullptr ? path : "";
    if (fd >= 0)
        close(fd);
    free(path);
    return p;
}
#endif

bool symbolizer::has_debug_file(const markup_module& m) {
    std::string key = m.build_id.empty() ? "name:" + m.name : m.build_id;
    auto it = cache->files.find(key);
    if (it != cache->files.end())
        return it->second.mod != nullptr;
    debug_file& d = cache->files[key];
    for (const std::string& dir : opts.debug_dirs)
        for (const std::string& path : candidates(dir, m))
            if (matches(path, m.build_id) && open_debug_file(path, m.name, d))
                return true;
#ifdef VIREO_HAVE_DEBUGINFOD
    std::string fetched = fetch(*this, *cache, m);
    if (!fetched.empty() && matches(fetched, m.build_id))
        return open_debug_file(fetched, m.name, d);
#endif
    return false;
}

int symbolizer::name(const markup_module& m, uint64_t module_addr, std::vector<frame_name>& out) {
    out.clear();
    if (!has_debug_file(m))
        return 0;
    const debug_file& d = cache->files[m.build_id.empty() ? "name:" + m.name : m.build_id];
    auto known = cache->named.find({&d, module_addr});
    if (known != cache->named.end()) {
        out = known->second;
        return static_cast<int>(out.size());
    }
    Dwarf_Addr addr = module_addr + d.bias;
    dwarf_frames(d.mod, addr, out);
    if (out.empty() || out.back().function.empty()) {
        // No DWARF here: the symbol table still names the function.
        const char* sym = dwfl_module_addrname(d.mod, addr);
        if (sym != nullptr && out.empty())
            out.emplace_back();
        if (sym != nullptr)
            out.back().function = demangle(sym);
    }
    cache->named[{&d, module_addr}] = out;
    return static_cast<int>(out.size());
}

int symbolizer::file_offset(const markup_module& m, uint64_t module_addr, uint64_t& out) {
    if (!has_debug_file(m))
        return -1;
    const debug_file& d = cache->files[m.build_id.empty() ? "name:" + m.name : m.build_id];
    Dwarf_Addr bias = 0;
    Elf* elf = dwfl_module_getelf(d.mod, &bias);
    size_t n = 0;
    if (elf == nullptr || elf_getphdrnum(elf, &n) != 0)
        return -1;
    uint64_t lowest = UINT64_MAX;
    GElf_Phdr hit{};
    for (size_t i = 0; i < n; i++) {
        GElf_Phdr ph;
        if (gelf_getphdr(elf, static_cast<int>(i), &ph) == nullptr || ph.p_type != PT_LOAD)
            continue;
        lowest = std::min<uint64_t>(lowest, ph.p_vaddr & ~(ph.p_align > 0 ? ph.p_align - 1 : 0));
        if (module_addr >= ph.p_vaddr && module_addr - ph.p_vaddr < ph.p_memsz)
            hit = ph;
    }
    if (hit.p_filesz > 0) {  // a whole file: its own offsets
        out = module_addr - hit.p_vaddr + hit.p_offset;
        return 0;
    }
    // A separate debug file keeps the segments but not their offsets; linkers
    // put code as far from the file's start as from the first segment's
    // address.
    if (lowest == UINT64_MAX || module_addr < lowest)
        return -1;
    out = module_addr - lowest;
    return 0;
}
