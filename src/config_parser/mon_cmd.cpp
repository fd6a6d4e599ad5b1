#include <android/log.h>
#include <dlfcn.h>
#include <unistd.h>

#include "config_parser.h"

#define LOG_TAG "MONITOR_CONFIG"

mon_cmd::mon_cmd(const std::string& mon_name, uint32_t idx, const std::string& file)
    : file_t{file, -1},
      cust_t{"", "", nullptr, nullptr, false},
      id(idx),
      type(FILE_TYPE),
      name(mon_name),
      enabled(true) {
    // Any "$" makes the path dynamic, not only "$pid".
    if (file_t.mon_file.find('$') != std::string::npos) {
        type = DYN_FILE_TYPE;
    }
}

mon_cmd::mon_cmd(const std::string& mon_name, uint32_t idx, const std::string& lib,
                 const std::string& sym, bool detach)
    : file_t{"", -1},
      cust_t{lib, sym, nullptr, nullptr, detach},
      id(idx),
      type(CUSTOM_TYPE),
      name(mon_name),
      enabled(true) {}

mon_cmd::~mon_cmd() {
    // Descriptor 0 is never ours to close.
    if (type == FILE_TYPE && file_t.fd > 0) {
        close(file_t.fd);
    } else if (type == CUSTOM_TYPE && cust_t.handler != nullptr) {
        dlclose(cust_t.handler);
    }
}

void mon_cmd::load_library() {
    cust_t.handler = dlopen(cust_t.library.c_str(), RTLD_LAZY);
    if (cust_t.handler != nullptr) {
        cust_t.function = reinterpret_cast<CUST_CALLBACK>(dlsym(cust_t.handler, cust_t.symbol.c_str()));
    }
    if (cust_t.handler == nullptr || cust_t.function == nullptr) {
        std::string what = "dlopen lib: " + cust_t.library + " symbol: " + cust_t.symbol;
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%s failed\n", what.c_str());
    }
}
