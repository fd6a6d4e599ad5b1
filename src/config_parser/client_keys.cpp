#include "client_keys.h"

#include <errno.h>
#include <zmq.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "config_parser.h"

namespace {
bool same_time(const timespec& a, const timespec& b) {
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

std::string trimmed(const std::string& line) {
    const char* space = " \t\r\n";
    size_t start = line.find_first_not_of(space);
    if (start == std::string::npos) {
        return "";
    }
    return line.substr(start, line.find_last_not_of(space) - start + 1);
}

// Opens path for reading, or says why not.
bool open_text(const std::string& path, std::ifstream& in, std::string& error) {
    in.open(path);
    if (!in.is_open()) {
        error = std::string("cannot be read: ") + strerror(errno);
        return false;
    }
    return true;
}

// "*" or hexadecimal codes separated by commas, each with the daemon's hex rule.
bool parse_codes(const std::string& text, key_rights& rights) {
    if (text == "*") {
        rights.all_codes = true;
        return true;
    }
    std::istringstream list(text);
    std::string code;
    while (std::getline(list, code, ',')) {
        try {
            rights.codes.push_back(hex_code(code));
        } catch (const std::exception&) {
            return false;
        }
    }
    // A trailing comma leaves an empty last code that getline does not return.
    return !rights.codes.empty() && text.back() != ',';
}
}  // namespace

bool key_rights::allows(uint32_t command) const {
    return all_codes || command == 0xEAEA ||
           std::find(codes.begin(), codes.end(), command) != codes.end();
}

file_stamp file_stamp::of(const std::string& path) {
    file_stamp s;
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        s.exists = true;
        s.dev = st.st_dev;
        s.ino = st.st_ino;
        s.size = st.st_size;
        s.mtime = st.st_mtim;
        s.ctime = st.st_ctim;
    }
    return s;
}

bool file_stamp::operator==(const file_stamp& o) const {
    return exists == o.exists && dev == o.dev && ino == o.ino && size == o.size &&
           same_time(mtime, o.mtime) && same_time(ctime, o.ctime);
}

bool is_z85_key(const std::string& text) {
    uint8_t key[32];
    return text.size() == z85_key_len && zmq_z85_decode(key, text.c_str()) != nullptr;
}

std::string key_fingerprint(const std::string& z85) {
    return z85.substr(0, 10);
}

std::string key_fingerprint(const uint8_t* key32) {
    char text[z85_key_len + 1];
    if (zmq_z85_encode(text, key32, 32) == nullptr) {
        return "?";
    }
    return key_fingerprint(std::string(text));
}

int read_key_file(const std::string& path, std::string& z85, std::string& error) {
    std::ifstream in;
    if (!open_text(path, in, error)) {
        return -1;
    }
    std::string line;
    while (std::getline(in, line)) {
        line = trimmed(line);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (!is_z85_key(line)) {
            error = "not a 40-character Z85 key";
            return -1;
        }
        z85 = line;
        return 0;
    }
    error = "holds no key";
    return -1;
}

int load_authorized_keys(const std::string& path, key_table& table, std::string& error) {
    std::ifstream in;
    if (!open_text(path, in, error)) {
        return -1;
    }
    key_table keys;
    std::string line;
    for (int number = 1; std::getline(in, line); number++) {
        std::istringstream fields(line);
        std::string key, name, codes, extra;
        if (!(fields >> key) || key[0] == '#') {
            continue;
        }
        std::string where = "line " + std::to_string(number) + ": ";
        key_rights rights;
        if (!(fields >> name >> codes) || (fields >> extra)) {
            error = where + "expected <key> <name> <codes>";
            return -1;
        }
        if (!is_z85_key(key)) {
            error = where + "not a 40-character Z85 key";
            return -1;
        }
        if (!parse_codes(codes, rights)) {
            error = where + "bad codes \"" + codes + "\"";
            return -1;
        }
        rights.name = name;
        if (!keys.emplace(key, rights).second) {
            error = where + "key listed twice";
            return -1;
        }
    }
    if (in.bad()) {
        error = std::string("cannot be read: ") + strerror(errno);
        return -1;
    }
    table.swap(keys);
    return 0;
}
