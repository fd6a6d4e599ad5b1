// CURVE keys of the "security" configuration: key files, the authorized-keys
// file with the command codes each client key may use, and the short
// fingerprint under which keys appear in the log.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <istream>
#include <string>
#include <unordered_map>
#include <vector>

// Length of a CURVE key in Z85 text (32 bytes).
constexpr size_t z85_key_len = 40;

// What one accepted client key may ask for.
class key_rights {
public:
    std::string name;             // second field of its line, for people and logs
    bool all_codes = false;       // "*"
    std::vector<uint32_t> codes;  // otherwise exactly these command codes

    // Whether the key may use command (the client-id commands included).
    bool allows(uint32_t command) const;
};

// Accepted client keys by their Z85 text.
using key_table = std::unordered_map<std::string, key_rights>;

// What identifies a file's current contents without reading it: device,
// inode, size, modification and change times. A replaced file (new inode),
// an edit (mtime, size) and a permission change (ctime) all differ.
class file_stamp {
public:
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    timespec mtime{};
    timespec ctime{};

    static file_stamp of(const std::string& path);
    bool operator==(const file_stamp& o) const;
    bool operator!=(const file_stamp& o) const { return !(*this == o); }
};

// True for 40 characters of valid Z85 (a 32-byte key).
bool is_z85_key(const std::string& text);

// The fingerprint of a key in logs: its first 10 Z85 characters, which encode
// its first 8 bytes and are the start of the line in its .pub file.
std::string key_fingerprint(const std::string& z85);
std::string key_fingerprint(const uint8_t* key32);

// A key file: blank lines and lines starting with '#' are skipped, the first
// other line (surrounding whitespace removed) must be a Z85 key. Returns 0
// with the key in z85; -1 when the file cannot be read, -2 when it holds no
// key or a bad one; the reason in error.
int read_key_file(const std::string& path, std::string& z85, std::string& error);
// The same rule on a stream; line is set to the line of the key or of the
// bad line (0 when there is none).
int read_key_text(std::istream& in, std::string& z85, std::string& error, int& line);

// One fault of an authorized-keys file: its line, the column (from 1) of the
// field at fault, and what is wrong.
struct key_problem {
    int line;
    int column;
    std::string message;
};

// Parses an authorized-keys text: one "<Z85 public key> <name> <codes>" per
// line, fields separated by whitespace, codes "*" or hexadecimal codes (as
// command codes in the configuration) separated by commas; blank and '#'
// lines skipped. Every line is read: each bad line, and each repeat of a key,
// adds one problem, in line order; keys gets the good lines (the first of a
// repeated key).
void parse_authorized_keys(std::istream& in, key_table& keys, std::vector<key_problem>& problems);

// Reads an authorized-keys file. Any unreadable file, bad line or repeated
// key fails the whole file: returns -1 with the reason ("line N: ...") in
// error and table untouched, or 0 with table replaced.
int load_authorized_keys(const std::string& path, key_table& table, std::string& error);
