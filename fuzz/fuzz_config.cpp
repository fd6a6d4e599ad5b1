// One fuzz input is a main configuration file and one sub-configuration
// file, split at the first 0x00 byte (no zero: the sub file is empty). Every
// "@SUB@" in the main file becomes the sub file's path and every "@PLUGIN@"
// in the sub file the fuzz plug-in's path, so the fuzzer reaches the command
// lists and a loadable library without guessing build paths. Both files are
// written to a private directory that is also the working directory, so
// relative "config" paths stay inside it.
//
// Fuzzed "lib" values are handed to dlopen by the parser. The link wraps
// dlopen (-Wl,--wrap=dlopen): only the fuzz plug-in is really opened, any
// other path fails as a missing library would, so no input can load an
// arbitrary library from the system.
#include <android/log.h>
#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "config_parser.h"

extern "C" void* __real_dlopen(const char* file, int mode);

extern "C" void* __wrap_dlopen(const char* file, int mode) {
    if (file != nullptr && strcmp(file, VIREO_FUZZ_PLUGIN) == 0) {
        return __real_dlopen(file, mode);
    }
    return nullptr;
}

namespace {

std::string dir;

void quiet_logger(const struct __android_logger_data*, const char*) {}

void remove_dir() {
    std::filesystem::remove_all(dir);
}

void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::string substitute(std::string text, const std::string& mark, const std::string& with) {
    for (size_t at = text.find(mark); at != std::string::npos;
         at = text.find(mark, at + with.size())) {
        text.replace(at, mark.size(), with);
    }
    return text;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    __android_log_set_logger(quiet_logger);
    char tmpl[] = "/tmp/vireo-fuzz-config-XXXXXX";
    if (mkdtemp(tmpl) == nullptr || chdir(tmpl) != 0) {
        perror("fuzz_config: temp dir");
        abort();
    }
    dir = tmpl;
    atexit(remove_dir);
    // The plug-in carries coverage counters that libFuzzer keeps reading
    // after each input: it must never be unmapped by the parser's dlclose.
    if (__real_dlopen(VIREO_FUZZ_PLUGIN, RTLD_LAZY | RTLD_NODELETE) == nullptr) {
        fprintf(stderr, "fuzz_config: %s\n", dlerror());
        abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    const char* zero = static_cast<const char*>(memchr(text, 0, size));
    size_t main_size = zero != nullptr ? static_cast<size_t>(zero - text) : size;
    std::string sub_text = zero != nullptr ? std::string(zero + 1, size - main_size - 1) : "";
    const std::string sub_path = dir + "/sub.json";
    write_file(dir + "/main.json", substitute(std::string(text, main_size), "@SUB@", sub_path));
    write_file(sub_path, substitute(sub_text, "@PLUGIN@", VIREO_FUZZ_PLUGIN));

    config_parser parser(dir + "/main.json");
    parser.parse_config();
    return 0;
}
