// CURVE keys of the "security" configuration: key files, the authorized-keys
// file with the command codes each client key may use, and the short
// fingerprint under which keys appear in the log.
#pragma once

#include <sys/stat.h>

#include <cstdint>
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

    // The client-id commands (0xEAEA) are open to every accepted key.
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

// Reads a key file: blank lines and lines starting with '#' are skipped, the
// first other line (surrounding whitespace removed) must be a Z85 key.
// Returns 0 with the key in z85, or -1 with the reason in error.
int read_key_file(const std::string& path, std::string& z85, std::string& error);

// Reads an authorized-keys file: one "<Z85 public key> <name> <codes>" per
// line, fields separated by whitespace, codes "*" or hexadecimal codes
// separated by commas; blank and '#' lines skipped. Any unreadable file, bad
// line or repeated key fails the whole file: returns -1 with the reason (and
// line number) in error and table untouched, or 0 with table replaced.
int load_authorized_keys(const std::string& path, key_table& table, std::string& error);
