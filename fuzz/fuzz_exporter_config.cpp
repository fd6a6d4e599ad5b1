// The exporter's configuration file, and the same bytes as a /probe target
// and as a --probe.allow list. The file is written to a private directory,
// which is also the working directory, so that relative key paths stay in it.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "exporter.h"

namespace {

std::string dir;

void remove_dir() {
    std::filesystem::remove_all(dir);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char tmpl[] = "/tmp/vireo-fuzz-exporter-XXXXXX";
    if (mkdtemp(tmpl) == nullptr || chdir(tmpl) != 0) {
        perror("fuzz_exporter_config: temp dir");
        abort();
    }
    dir = tmpl;
    atexit(remove_dir);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::ofstream(dir + "/e.json", std::ios::binary | std::ios::trunc) << text;
    exporter_config cfg;
    std::string why, key;
    if (load_exporter_config(dir + "/e.json", cfg, why) != 0 && why.empty()) {
        __builtin_trap();
    }
    // A canonical key is its own canonical spelling.
    std::string again;
    if (canonical_target(text, key, why) == 0 &&
        (canonical_target(key, again, why) != 0 || again != key)) {
        __builtin_trap();
    }
    std::vector<allow_rule> rules;
    if (parse_allow(text, rules, why) == 0 && !key.empty()) {
        allowed(rules, key);
    }
    return 0;
}
