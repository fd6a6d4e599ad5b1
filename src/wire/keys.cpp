#include "wire/keys.h"

#include <errno.h>
#include <zmq.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <fstream>
#include <sstream>

#include "wire/config_keys.h"

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
    return all_codes || std::find(codes.begin(), codes.end(), command) != codes.end();
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

int read_key_text(std::istream& in, std::string& z85, std::string& error, int& line_no) {
    std::string line;
    line_no = 0;
    for (int n = 1; std::getline(in, line); n++) {
        line = trimmed(line);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        line_no = n;
        if (!is_z85_key(line)) {
            error = "not a 40-character Z85 key";
            return -2;
        }
        z85 = line;
        return 0;
    }
    error = "holds no key";
    return -2;
}

int read_key_file(const std::string& path, std::string& z85, std::string& error) {
    std::ifstream in;
    if (!open_text(path, in, error)) {
        return -1;
    }
    int line = 0;
    return read_key_text(in, z85, error, line);
}

void parse_authorized_keys(std::istream& in, key_table& keys, std::vector<key_problem>& problems) {
    std::string line;
    for (int number = 1; std::getline(in, line); number++) {
        std::vector<std::pair<std::string, int>> words;  // text, column
        for (size_t i = 0; i < line.size();) {
            size_t start = i;
            while (i < line.size() && !isspace(static_cast<unsigned char>(line[i]))) {
                i++;
            }
            if (i > start) {
                words.emplace_back(line.substr(start, i - start), static_cast<int>(start) + 1);
            }
            i++;
        }
        if (words.empty() || words[0].first[0] == '#') {
            continue;
        }
        const std::string& key = words[0].first;
        key_rights rights;
        if (words.size() != 3) {
            problems.push_back({number, 1, "expected <key> <name> <codes>"});
        } else if (!is_z85_key(key)) {
            problems.push_back({number, words[0].second, "not a 40-character Z85 key"});
        } else if (!parse_codes(words[2].first, rights)) {
            problems.push_back({number, words[2].second, "bad codes \"" + words[2].first + "\""});
        } else {
            rights.name = words[1].first;
            if (!keys.emplace(key, rights).second) {
                problems.push_back({number, words[0].second, "key listed twice"});
            }
        }
    }
}

int load_authorized_keys(const std::string& path, key_table& table, std::string& error) {
    std::ifstream in;
    if (!open_text(path, in, error)) {
        return -1;
    }
    key_table keys;
    std::vector<key_problem> problems;
    parse_authorized_keys(in, keys, problems);
    if (!problems.empty()) {
        error = "line " + std::to_string(problems[0].line) + ": " + problems[0].message;
        return -1;
    }
    if (in.bad()) {
        error = std::string("cannot be read: ") + strerror(errno);
        return -1;
    }
    table.swap(keys);
    return 0;
}
