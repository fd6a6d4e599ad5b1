// Reading symbolizer markup and writing it back with named frames.
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "symbolize.h"

namespace {

// Markup numbers are decimal, or hexadecimal with a 0x prefix.
bool parse_number(const std::string& s, uint64_t& out) {
    if (s.empty())
        return false;
    int base = s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X') ? 16 : 10;
    const char* p = s.c_str() + (base == 16 ? 2 : 0);
    if (*p == '\0' || *p == '-' || *p == '+')
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(p, &end, base);
    if (*end != '\0' || errno != 0)
        return false;
    out = v;
    return true;
}

bool hex_text(const std::string& s) {
    for (char c : s)
        if (!isxdigit(static_cast<unsigned char>(c)))
            return false;
    return s.size() % 2 == 0;
}

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos)
        return "";
    return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

// module:ID:NAME:elf:BUILDID. NAME may itself hold colons, so the build-id
// and type are taken from the end.
int parse_module(const std::vector<std::string>& f, markup_module& m) {
    if (f.size() < 5 || !parse_number(f[1], m.id))
        return symbolize_bad_markup;
    m.build_id = lower(f.back());
    if (f[f.size() - 2] != "elf" || !hex_text(m.build_id))
        return symbolize_bad_markup;
    m.name.clear();
    for (size_t i = 2; i + 2 < f.size(); i++) m.name += (i > 2 ? ":" : "") + f[i];
    return 0;
}

int parse_mmap(const std::vector<std::string>& f, markup_mmap& m) {
    if (f.size() != 7 || f[3] != "load" || !parse_number(f[1], m.start) ||
        !parse_number(f[2], m.size) || !parse_number(f[4], m.module_id) ||
        !parse_number(f[6], m.module_addr) || m.size == 0)
        return symbolize_bad_markup;
    m.flags = f[5];
    return 0;
}

int parse_bt(const std::vector<std::string>& f, markup_frame& fr) {
    if (f.size() < 3 || f.size() > 4 || !parse_number(f[1], fr.index) ||
        !parse_number(f[2], fr.addr))
        return symbolize_bad_markup;
    if (f.size() == 4 && f[3] != "ra" && f[3] != "pc")
        return symbolize_bad_markup;
    // Without a type, the innermost frame is where the thread was and the
    // others are return addresses.
    fr.return_address = f.size() == 4 ? f[3] == "ra" : fr.index > 0;
    return 0;
}

}  // namespace

std::vector<std::string> markup_split(const std::string& s, char sep) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t at; (at = s.find(sep, from)) != std::string::npos; from = at + 1)
        parts.push_back(s.substr(from, at - from));
    parts.push_back(s.substr(from));
    return parts;
}

const markup_mmap* markup_context::find(uint64_t addr) const {
    for (const markup_mmap& m : mmaps)
        if (addr >= m.start && addr - m.start < m.size)
            return &m;
    return nullptr;
}

int parse_markup_line(const std::string& line, markup_line& out) {
    out = markup_line();
    size_t open = line.find("{{{");
    size_t close = open == std::string::npos ? open : line.find("}}}", open);
    if (close == std::string::npos)
        return 0;
    std::vector<std::string> f = markup_split(line.substr(open + 3, close - open - 3), ':');
    int rc = 0;
    if (f[0] == "reset" && f.size() == 1) {
        out.kind = markup_line::reset;
    } else if (f[0] == "module") {
        out.kind = markup_line::module;
        rc = parse_module(f, out.mod);
    } else if (f[0] == "mmap") {
        out.kind = markup_line::mmap;
        rc = parse_mmap(f, out.map);
    } else if (f[0] == "bt") {
        out.kind = markup_line::bt;
        rc = parse_bt(f, out.frame);
        out.frame.board_name = trim(line.substr(close + 3));
    }
    return rc;
}

void apply_markup_line(const markup_line& l, markup_context& ctx) {
    if (l.kind == markup_line::reset) {
        ctx.modules.clear();
        ctx.mmaps.clear();
    } else if (l.kind == markup_line::module) {
        ctx.modules[l.mod.id] = l.mod;
    } else if (l.kind == markup_line::mmap) {
        ctx.mmaps.push_back(l.map);
    }
}

namespace {

std::string base_name(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string hex(uint64_t v, bool wide) {
    char b[32];
    snprintf(b, sizeof b, wide ? "0x%016" PRIx64 : "0x%" PRIx64, v);
    return b;
}

}  // namespace

std::vector<std::string> frame_lines(const markup_context& ctx, const markup_frame& f,
                                     symbolizer& s) {
    std::string at = hex(f.addr, true) + " in ";
    const markup_mmap* map = ctx.find(f.addr);
    auto mod = map ? ctx.modules.find(map->module_id) : ctx.modules.end();
    if (mod == ctx.modules.end())
        return {at + (f.board_name.empty() ? "??" : f.board_name)};
    const std::string& path = mod->second.name;
    uint64_t rel = f.addr - map->start + map->module_addr;
    std::vector<frame_name> names;
    s.name(mod->second, rel - (f.return_address && rel > 0 ? 1 : 0), names);
    std::vector<std::string> lines;
    for (const frame_name& n : names) {
        if (n.function.empty())
            continue;
        std::string l = at + n.function + " (" + path + ")";
        if (!n.file.empty() && n.line > 0)
            l += " at " + n.file + ":" + std::to_string(n.line);
        lines.push_back(l + (n.inlined ? " [inlined]" : ""));
    }
    if (lines.empty()) {
        // The board's own name beats a bare offset: it came from the
        // board's symbol table, which a stripped file may still hold.
        std::string fallback = f.board_name.empty() || f.board_name == "??"
                                   ? base_name(path) + "+" + hex(rel, false)
                                   : f.board_name;
        lines.push_back(at + fallback + " (" + path + ")");
    }
    return lines;
}

int symbolize_stream(std::FILE* in, std::FILE* out, symbolizer& s, std::string& why) {
    markup_context ctx;
    uint64_t number = 0, line_no = 0;
    bool fault = false;
    int rc = 0;
    // getline, not fgets: a line may hold NUL bytes (from whatever answered
    // on the endpoint), and text passes through as it came.
    char* buf = nullptr;
    size_t cap = 0;
    for (ssize_t n; rc == 0 && (n = getline(&buf, &cap, in)) > 0;) {
        std::string line(buf, static_cast<size_t>(n));
        line_no++;
        if (line.back() == '\n')
            line.pop_back();
        markup_line l;
        if (parse_markup_line(line, l) != 0) {
            why = "line " + std::to_string(line_no) + ": malformed markup: " + line;
            rc = symbolize_bad_markup;
        } else if (l.kind == markup_line::text) {
            line += '\n';
            fault |= fwrite(line.data(), 1, line.size(), out) != line.size();
        } else if (l.kind == markup_line::bt) {
            if (l.frame.index == 0)
                number = 0;
            for (const std::string& f : frame_lines(ctx, l.frame, s))
                fault |= fprintf(out, "#%-2" PRIu64 " %s\n", number++, f.c_str()) < 0;
        } else {
            apply_markup_line(l, ctx);
        }
    }
    free(buf);
    if (rc == 0 && (ferror(in) || fault || fflush(out) != 0)) {
        why = std::string("read or write failed: ") + strerror(errno);
        rc = symbolize_io_error;
    }
    return rc;
}
