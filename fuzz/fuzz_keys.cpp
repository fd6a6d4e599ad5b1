// One fuzz input is a file that the daemon reads as a key file and as an
// authorized-keys file. A key read must be valid Z85 of 32 bytes; a table
// loaded must hold only such keys, each with a name and rights, and a file
// that fails must leave the table as it was.
#include <android/log.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>

#include "wire/keys.h"

namespace {
std::string path;

void quiet_logger(const struct __android_logger_data*, const char*) {}

void fail(const char* what) {
    fprintf(stderr, "fuzz_keys: %s\n", what);
    abort();
}

void remove_file() {
    unlink(path.c_str());
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_logger(quiet_logger);
    char tmpl[] = "/tmp/vireo-fuzz-keys-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0)
        fail("mkstemp");
    close(fd);
    path = tmpl;
    atexit(remove_file);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));

    std::string z85, error;
    if (read_key_file(path, z85, error) == 0 && !is_z85_key(z85))
        fail("read_key_file accepted a bad key");
    if (read_key_file(path, z85, error) != 0 && error.empty())
        fail("read_key_file failed without a reason");

    key_table table{{"sentinel", key_rights{}}};
    int rc = load_authorized_keys(path, table, error);
    if (rc != 0) {
        if (table.size() != 1 || table.count("sentinel") != 1 || error.empty())
            fail("a failed load changed the table or gave no reason");
        return 0;
    }
    for (const auto& [key, rights] : table) {
        if (!is_z85_key(key) || rights.name.empty())
            fail("a loaded key is not a key or has no name");
        if (!rights.all_codes && rights.codes.empty())
            fail("a loaded key has no rights");
        if (key_fingerprint(key) != key.substr(0, 10))
            fail("fingerprint");
    }
    return 0;
}
