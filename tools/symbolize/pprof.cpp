// The pprof profile format (profile.proto, gzipped), encoded by hand: a
// handful of messages of varints and length-delimited fields, which takes
// fewer lines than a generated protobuf class and its build rules.
#include <zlib.h>

#include <cerrno>
#include <cstring>

#include "symbolize.h"

namespace {

// A protobuf message being written.
struct pb {
    std::string b;

    void varint(uint64_t v) {
        for (; v >= 0x80; v >>= 7) b += static_cast<char>((v & 0x7f) | 0x80);
        b += static_cast<char>(v);
    }
    void key(int field, int wire_type) { varint(static_cast<uint64_t>(field) << 3 | wire_type); }
    // Zero is the default and is left out, as protobuf writers do.
    void num(int field, uint64_t v) {
        if (v != 0) {
            key(field, 0);
            varint(v);
        }
    }
    void bytes(int field, const std::string& s) {
        key(field, 2);
        varint(s.size());
        b += s;
    }
    void packed(int field, const std::vector<uint64_t>& vs) {
        pb inner;
        for (uint64_t v : vs) inner.varint(v);
        bytes(field, inner.b);
    }
};

// Field numbers of profile.proto.
enum profile_field {
    p_sample_type = 1,
    p_sample = 2,
    p_mapping = 3,
    p_location = 4,
    p_function = 5,
    p_string_table = 6,
    p_time_nanos = 9,
    p_duration_nanos = 10,
    p_period_type = 11,
    p_period = 12
};

struct writer {
    pb out;
    std::vector<std::string> strings{""};
    std::map<std::string, uint64_t> string_ids{{"", 0}};
    std::map<std::pair<std::string, std::string>, uint64_t> functions;  // (name, file)
    std::map<uint64_t, uint64_t> locations;                             // address -> id
    std::map<const markup_mmap*, uint64_t> mappings;

    uint64_t str(const std::string& s) {
        auto it = string_ids.find(s);
        if (it != string_ids.end())
            return it->second;
        strings.push_back(s);
        return string_ids[s] = strings.size() - 1;
    }

    void value_type(int field, const char* type, const char* unit) {
        pb v;
        v.num(1, str(type));
        v.num(2, str(unit));
        out.bytes(field, v.b);
    }

    uint64_t function(const std::string& name, const std::string& file) {
        auto key = std::make_pair(name, file);
        auto it = functions.find(key);
        if (it != functions.end())
            return it->second;
        uint64_t id = functions.size() + 1;
        pb f;
        f.num(1, id);
        f.num(2, str(name));
        f.num(3, str(name));
        f.num(4, str(file));
        out.bytes(p_function, f.b);
        return functions[key] = id;
    }

    uint64_t mapping(const markup_context& space, const markup_mmap* m, symbolizer* s);
    uint64_t location(const markup_context& space, uint64_t addr, bool ret, symbolizer* s);
};

std::string base_name(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

uint64_t writer::mapping(const markup_context& space, const markup_mmap* m, symbolizer* s) {
    auto it = mappings.find(m);
    if (it != mappings.end())
        return it->second;
    uint64_t id = mappings.size() + 1;
    const markup_module& mod = space.modules.at(m->module_id);
    bool named = s != nullptr && s->has_debug_file(mod);
    uint64_t offset = m->module_addr;
    if (s != nullptr)
        s->file_offset(mod, m->module_addr, offset);
    pb p;
    p.num(1, id);
    p.num(2, m->start);
    p.num(3, m->start + m->size);
    p.num(4, offset);
    p.num(5, str(mod.name));
    p.num(6, str(mod.build_id));
    // Every location carries its function, named or not, so that readers
    // do not look for the board's files on this host.
    p.num(7, 1);
    p.num(8, named);
    p.num(9, named);
    p.num(10, named);
    out.bytes(p_mapping, p.b);
    return mappings[m] = id;
}

uint64_t writer::location(const markup_context& space, uint64_t addr, bool ret, symbolizer* s) {
    auto it = locations.find(addr);
    if (it != locations.end())
        return it->second;
    uint64_t id = locations.size() + 1;
    pb loc;
    loc.num(1, id);
    loc.num(3, addr);
    const markup_mmap* m = space.find(addr);
    auto mod = m != nullptr ? space.modules.find(m->module_id) : space.modules.end();
    std::vector<frame_name> names;
    if (mod != space.modules.end()) {
        loc.num(2, mapping(space, m, s));
        uint64_t rel = addr - m->start + m->module_addr;
        if (s != nullptr)
            s->name(mod->second, rel - (ret && rel > 0 ? 1 : 0), names);
        if (names.empty() || names.back().function.empty()) {
            char off[32];
            snprintf(off, sizeof off, "+0x%llx", static_cast<unsigned long long>(rel));
            names.assign(1, frame_name{base_name(mod->second.name) + off, "", 0, false});
        }
    } else {
        names.assign(1, frame_name{"??", "", 0, false});
    }
    // Lines run from the innermost inlined call to the function it sits in.
    for (const frame_name& n : names) {
        if (n.function.empty())
            continue;
        pb line;
        line.num(1, function(n.function, n.file));
        line.num(2, static_cast<uint64_t>(n.line));
        loc.bytes(4, line.b);
    }
    out.bytes(p_location, loc.b);
    return locations[addr] = id;
}

}  // namespace

std::string encode_pprof(const pprof_profile& p, symbolizer* s) {
    writer w;
    w.value_type(p_sample_type, "samples", "count");
    if (p.period_ns > 0)
        w.value_type(p_sample_type, "cpu", "nanoseconds");
    for (const pprof_sample& smp : p.samples) {
        std::vector<uint64_t> ids;
        for (size_t i = 0; i < smp.addrs.size(); i++)
            ids.push_back(w.location(p.space, smp.addrs[i], i > 0, s));
        pb sample;
        sample.packed(1, ids);
        std::vector<uint64_t> values{static_cast<uint64_t>(smp.count)};
        if (p.period_ns > 0)
            values.push_back(static_cast<uint64_t>(smp.count * p.period_ns));
        sample.packed(2, values);
        pb label;
        label.num(1, w.str("thread"));
        label.num(2, w.str(smp.thread));
        sample.bytes(3, label.b);
        w.out.bytes(p_sample, sample.b);
    }
    w.out.num(p_time_nanos, static_cast<uint64_t>(p.time_ns));
    w.out.num(p_duration_nanos, static_cast<uint64_t>(p.duration_ns));
    if (p.period_ns > 0) {
        w.value_type(p_period_type, "cpu", "nanoseconds");
        w.out.num(p_period, static_cast<uint64_t>(p.period_ns));
    }
    // The string table comes last: only now are all its strings known.
    for (const std::string& str : w.strings) w.out.bytes(p_string_table, str);
    return w.out.b;
}

int write_pprof(const pprof_profile& p, symbolizer* s, const std::string& path, std::string& why) {
    std::string raw = encode_pprof(p, s);
    gzFile f = gzopen(path.c_str(), "wb");
    if (f == nullptr) {
        why = path + ": " + strerror(errno);
        return symbolize_io_error;
    }
    int wrote = raw.empty() ? 0 : gzwrite(f, raw.data(), static_cast<unsigned>(raw.size()));
    int closed = gzclose(f);
    if (wrote != static_cast<int>(raw.size()) || closed != Z_OK) {
        why = path + ": writing failed";
        return symbolize_io_error;
    }
    return 0;
}
