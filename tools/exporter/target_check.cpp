// What a /probe target may be, and the one spelling each board is known by.
//
// libzmq accepts more than a board's address: "SOURCE;HOST:PORT" binds the
// connection to a source the caller picks, a port is wrapped modulo 65536,
// and leading zeros or "127.1" style hosts give one board many names. Each
// spelling would hold its own link and its own series, so only one is let
// through.
#include <arpa/inet.h>

#include <algorithm>
#include <cctype>

#include "exporter.h"

namespace {

constexpr size_t max_host_len = 240;

bool all_of_chars(const std::string& s, const char* set) {
    return s.find_first_not_of(set) == std::string::npos;
}

// A decimal port 1..65535 without sign or leading zero.
bool plain_port(const std::string& p) {
    if (p.empty() || p.size() > 5 || p[0] == '0' || !all_of_chars(p, "0123456789")) {
        return false;
    }
    long v = std::stol(p);
    return v >= 1 && v <= 65535;
}

// A DNS name, lower-cased and without a trailing dot.
bool host_name(std::string& h) {
    if (!h.empty() && h.back() == '.') {
        h.pop_back();
    }
    if (h.empty() ||
        !all_of_chars(h, "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-")) {
        return false;
    }
    std::transform(h.begin(), h.end(), h.begin(), [](unsigned char c) { return tolower(c); });
    size_t start = 0;
    while (start <= h.size()) {
        size_t dot = std::min(h.find('.', start), h.size());
        size_t len = dot - start;
        if (len == 0 || len > 63 || h[start] == '-' || h[dot - 1] == '-') {
            return false;
        }
        start = dot + 1;
    }
    // "127.1", "0x7f.0.0.1" or "2130706433" would be read as an address.
    in_addr a;
    return inet_aton(h.c_str(), &a) == 0;
}

// The canonical text of an address literal, or false.
bool address(int family, const std::string& h, std::string& out) {
    unsigned char bin[16];
    char text[INET6_ADDRSTRLEN];
    if (inet_pton(family, h.c_str(), bin) != 1 || !inet_ntop(family, bin, text, sizeof text)) {
        return false;
    }
    out = family == AF_INET6 ? "[" + std::string(text) + "]" : text;
    return true;
}

}  // namespace

int canonical_target(const std::string& target, std::string& key, std::string& why) {
    why.clear();
    if (target.size() > max_target_len) {
        why = "target longer than " + std::to_string(max_target_len) + " characters";
    } else if (target.compare(0, 6, "tcp://") != 0) {
        why = "target is neither tcp://HOST:PORT nor a configured name";
    }
    std::string rest = why.empty() ? target.substr(6) : "";
    size_t colon = rest.rfind(':');
    std::string host = colon == std::string::npos ? "" : rest.substr(0, colon);
    std::string port = colon == std::string::npos ? "" : rest.substr(colon + 1);
    std::string canon;
    if (!why.empty()) {
    } else if (rest.find(';') != std::string::npos) {
        why = "target names a source address (;)";
    } else if (colon == std::string::npos || !plain_port(port)) {
        why = "target port is not a number from 1 to 65535";
    } else if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        if (!address(AF_INET6, host.substr(1, host.size() - 2), canon)) {
            why = "target host is not an IPv6 address";
        }
    } else if (host.size() > max_host_len ||
               (!address(AF_INET, host, canon) && !host_name(canon = host))) {
        why = "target host is not an IPv4 address or a host name";
    }
    if (!why.empty()) {
        return -1;
    }
    key = "tcp://" + canon + ":" + port;
    return 0;
}

int parse_allow(const std::string& list, std::vector<allow_rule>& out, std::string& why) {
    size_t start = 0;
    while (start <= list.size()) {
        size_t comma = std::min(list.find(',', start), list.size());
        std::string item = list.substr(start, comma - start);
        start = comma + 1;
        allow_rule r;
        size_t slash = item.find('/');
        std::string host = item.substr(0, slash);
        if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
            host = host.substr(1, host.size() - 2);
        }
        r.family = inet_pton(AF_INET, host.c_str(), r.net) == 1    ? AF_INET
                   : inet_pton(AF_INET6, host.c_str(), r.net) == 1 ? AF_INET6
                                                                   : 0;
        int max_bits = r.family == AF_INET ? 32 : 128;
        r.bits = max_bits;
        if (slash != std::string::npos) {
            std::string b = item.substr(slash + 1);
            r.bits =
                b.empty() || b.size() > 3 || !all_of_chars(b, "0123456789") ? -1 : std::stoi(b);
        }
        if (r.family == 0 && slash == std::string::npos && host_name(host)) {
            r.name = host;
        } else if (r.family == 0 || r.bits < 0 || r.bits > max_bits) {
            why = "--probe.allow: \"" + item + "\" is not a network, an address or a host name";
            return -1;
        }
        out.push_back(r);
    }
    return 0;
}

bool allowed(const std::vector<allow_rule>& rules, const std::string& key) {
    // key is canonical: tcp://HOST:PORT, an IPv6 HOST in brackets.
    std::string host = key.substr(6, key.rfind(':') - 6);
    if (!host.empty() && host.front() == '[') {
        host = host.substr(1, host.size() - 2);
    }
    unsigned char bin[16];
    int family = inet_pton(AF_INET, host.c_str(), bin) == 1    ? AF_INET
                 : inet_pton(AF_INET6, host.c_str(), bin) == 1 ? AF_INET6
                                                               : 0;
    for (const allow_rule& r : rules) {
        if (r.family == 0 ? r.name == host : r.family == family) {
            int bits = r.family == 0 ? 0 : r.bits;
            bool in = true;
            for (int i = 0; i < bits && in; i++) {
                unsigned char m = static_cast<unsigned char>(0x80 >> (i % 8));
                in = (bin[i / 8] & m) == (r.net[i / 8] & m);
            }
            if (in) {
                return true;
            }
        }
    }
    return false;
}
