// The crash plug-in: lists, serves and deletes the reports vireo-crash
// keeps. Reading and deleting are separate functions, to be put under
// separate command codes, so that a key may read without deleting.
#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <string>
#include <vector>

#include "crash_conf.h"
#include "crash_report.h"
#include "crash_store.h"
#include "server_comm.h"
#include "wire/reply.h"

// The plug-in's entry points; everything else stays hidden.
#define CRASH_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// crash.conf beside the library as the configuration names it, else the
// installed one; read at the first request.
const crash_conf& settings() {
    static crash_conf conf;
    static std::once_flag once;
    std::call_once(once, [] {
        Dl_info info{};
        std::string path = VIREO_CRASH_SYSTEM_CONF;
        if (dladdr(reinterpret_cast<void*>(&settings), &info) != 0 && info.dli_fname != nullptr) {
            std::string lib = info.dli_fname;
            size_t slash = lib.rfind('/');
            std::string beside =
                (slash == std::string::npos ? "." : lib.substr(0, slash)) + "/crash.conf";
            if (access(beside.c_str(), R_OK) == 0)
                path = beside;
        }
        std::string err;
        crash_conf_load(path, conf, err);
    });
    return conf;
}

// The report id in the request payload: msg_len bytes of text.
int request_id(comm_data* c, std::string& id) {
    const data_struct* req = c->recv_data;
    if (req->msg_len < 1 || req->msg_len > 64)
        return -EINVAL;
    id.assign(reinterpret_cast<const char*>(req->msg), static_cast<size_t>(req->msg_len));
    while (!id.empty() && (id.back() == '\0' || id.back() == '\n')) id.pop_back();
    return crash_id_valid(id) ? 0 : -EINVAL;
}

int serve_file(comm_data* c, const char* suffix) {
    std::string id, data;
    int rc = request_id(c, id);
    if (rc == 0)
        rc = crash_store_read(settings().store, id, suffix, data, static_cast<int>(max_multi_reply_len));
    if (rc == -ELOOP)
        rc = -EINVAL;
    return rc != 0 ? rc : send_reply(c, reinterpret_cast<const uint8_t*>(data.data()), data.size());
}

}  // namespace

// One line per report, oldest first: id, time, executable, signal, and the
// size of its stack-only core (0 without one), separated by tabs.
CRASH_EXPORT int crash_list(comm_data* c) {
    const std::string& dir = settings().store;
    std::vector<crash_entry> all;
    int rc = crash_store_list(dir, all);
    if (rc == -ENOENT)
        all.clear();
    else if (rc != 0)
        return rc;
    std::string text;
    for (const auto& e : all) {
        std::string head, core;
        if (crash_store_read(dir, e.id, ".txt", head, static_cast<int>(max_multi_reply_len)) != 0)
            continue;
        crash_summary s;
        crash_report_summary(head.substr(0, 4096), s);
        int64_t core_bytes = e.bytes - static_cast<int64_t>(head.size());
        std::string line = e.id + "\t" + std::to_string(s.time) + "\t" + s.exe + "\t" +
                           std::to_string(s.sig) + "\t" + std::to_string(core_bytes) + "\n";
        if (text.size() + line.size() + 16 > max_multi_reply_len) {
            text += truncated_line;
            break;
        }
        text += line;
    }
    return send_reply(c, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

CRASH_EXPORT int crash_fetch(comm_data* c) {
    return serve_file(c, ".txt");
}

CRASH_EXPORT int crash_core(comm_data* c) {
    return serve_file(c, ".core.gz");
}

CRASH_EXPORT int crash_delete(comm_data* c) {
    std::string id;
    int rc = request_id(c, id);
    return rc != 0 ? rc : crash_store_delete(settings().store, id);
}
