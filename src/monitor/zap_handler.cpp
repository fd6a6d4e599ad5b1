#include "zap_handler.h"

#include <android/log.h>
#include <errno.h>
#include <zmq.h>

#include <algorithm>
#include <utility>
#include <vector>

#define LOG_TAG "VO_MONITOR"

namespace {
// How often the file is looked at while no handshake comes, so that a key
// removed from it stops being served on connections already open.
constexpr int check_ms = 1000;

std::string text(zmq_msg_t& part) {
    return std::string(static_cast<const char*>(zmq_msg_data(&part)), zmq_msg_size(&part));
}

int64_t monotonic_seconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}
}  // namespace

bool refusal_window::note(int64_t now, int& ended) {
    ended = 0;
    if (now - start < seconds) {
        suppressed++;
        return false;
    }
    ended = suppressed;
    start = now;
    suppressed = 0;
    return true;
}

int refusal_window::take_ended(int64_t now) {
    if (suppressed == 0 || now - start < seconds) {
        return 0;
    }
    int ended = suppressed;
    suppressed = 0;
    return ended;
}

zap_handler::zap_handler(std::string keys_file, const key_table& keys, const file_stamp& stamp)
    : keys_file(std::move(keys_file)),
      table(std::make_shared<const key_table>(keys)),
      stamp(stamp),
      loaded_at(time(nullptr)) {}

zap_handler::~zap_handler() {
    stopping = true;
    if (thread.joinable()) {
        thread.join();
    }
}

int zap_handler::start(void* context) {
    socket = zmq_socket(context, ZMQ_REP);
    if (socket == nullptr || zmq_bind(socket, "inproc://zeromq.zap.01") != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "ZAP handler error, %s",
                            zmq_strerror(errno));
        if (socket != nullptr) {
            zmq_close(socket);
            socket = nullptr;
        }
        return -1;
    }
    thread = std::thread(&zap_handler::run, this);
    return 0;
}

bool zap_handler::allows(const std::string& key, uint32_t command, std::string& name) const {
    std::lock_guard<std::mutex> lock(table_lock);
    auto it = table->find(key);
    if (it == table->end()) {
        name = "revoked";
        return false;
    }
    name = it->second.name;
    // The client-id commands too need their code among the key's rights:
    // ids are a shared pool that a key must not be able to drain unasked.
    return it->second.allows(command);
}

bool zap_handler::listed(const std::string& key) const {
    std::lock_guard<std::mutex> lock(table_lock);
    return table->count(key) != 0;
}

void zap_handler::log_refused_command(const std::string& key, const std::string& name,
                                      uint32_t command) {
    std::lock_guard<std::mutex> lock(refusals_lock);
    auto& entry = commands[key];
    entry.first = name;
    int ended;
    if (!entry.second.note(monotonic_seconds(), ended)) {
        return;
    }
    std::string fingerprint = key_fingerprint(key);
    if (ended > 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "Key %s (%s): %d more refusals in the last 10 s", fingerprint.c_str(),
                            name.c_str(), ended);
    }
    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Key %s (%s) may not use command 0x%x",
                        fingerprint.c_str(), name.c_str(), command);
}

void zap_handler::log_ended_windows() {
    int64_t now = monotonic_seconds();
    std::lock_guard<std::mutex> lock(refusals_lock);
    if (int ended = handshakes.take_ended(now)) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "%d more refused keys in the last 10 s",
                            ended);
    }
    for (auto& [key, entry] : commands) {
        if (int ended = entry.second.take_ended(now)) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                                "Key %s (%s): %d more refusals in the last 10 s",
                                key_fingerprint(key).c_str(), entry.first.c_str(), ended);
        }
    }
}

void zap_handler::refresh() {
    file_stamp now = file_stamp::of(keys_file);
    // An edit within the second of the last load may leave the stamp as it
    // was (coarse file times): such a file is read again until it is older.
    if (now == stamp && now.mtime.tv_sec + 1 < loaded_at) {
        return;
    }
    bool changed = now != stamp;
    stamp = now;
    loaded_at = time(nullptr);
    key_table keys;
    std::string error;
    if (load_authorized_keys(keys_file, keys, error) != 0) {
        // Stale keys would keep a revoked key working: refuse all instead.
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                            "Authorized keys %s: %s, no key accepted until it is fixed",
                            keys_file.c_str(), error.c_str());
        keys.clear();
    } else if (changed) {
        __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "Authorized keys %s: %zu keys",
                            keys_file.c_str(), keys.size());
    }
    auto fresh = std::make_shared<const key_table>(std::move(keys));
    std::lock_guard<std::mutex> lock(table_lock);
    table = std::move(fresh);
}

void zap_handler::run() {
    while (!stopping) {
        zmq_pollitem_t item = {socket, 0, ZMQ_POLLIN, 0};
        int rc = zmq_poll(&item, 1, check_ms);
        if (rc == -1 && errno != EINTR) {
            break;  // the context is ending
        }
        refresh();
        log_ended_windows();
        if (rc > 0) {
            answer(socket);
        }
    }
    zmq_close(socket);
}

// One ZAP request (version, request id, domain, address, routing id,
// mechanism, credentials) and its reply (version, request id, status code,
// status text, user id, metadata). The user id of an accepted key is its Z85
// text, which reaches the workers with each request.
void zap_handler::answer(void* socket) {
    std::vector<zmq_msg_t> parts;
    parts.reserve(16);  // never moved once received into
    bool more = true;
    while (more && parts.size() < 16) {
        parts.emplace_back();
        zmq_msg_init(&parts.back());
        if (zmq_msg_recv(&parts.back(), socket, 0) == -1) {
            zmq_msg_close(&parts.back());
            parts.pop_back();
            break;
        }
        more = zmq_msg_more(&parts.back()) != 0;
    }
    std::string request_id = parts.size() > 1 ? text(parts[1]) : "";
    std::string address = parts.size() > 3 ? text(parts[3]) : "?";
    std::string status = "400", user_id, fingerprint = "?", name;
    if (parts.size() == 7 && text(parts[0]) == "1.0" && text(parts[5]) == "CURVE" &&
        zmq_msg_size(&parts[6]) == 32) {
        const uint8_t* key = static_cast<const uint8_t*>(zmq_msg_data(&parts[6]));
        char z85[z85_key_len + 1];
        zmq_z85_encode(z85, key, 32);
        fingerprint = key_fingerprint(z85);
        std::lock_guard<std::mutex> lock(table_lock);
        auto it = table->find(z85);
        if (it != table->end()) {
            status = "200";
            user_id = z85;
            name = it->second.name;
        }
    }
    for (auto& part : parts) {
        zmq_msg_close(&part);
    }
    if (status == "200") {
        __android_log_print(ANDROID_LOG_INFO, LOG_TAG, "Accepted key %s (%s) from %s",
                            fingerprint.c_str(), name.c_str(), address.c_str());
    } else {
        std::lock_guard<std::mutex> lock(refusals_lock);
        int ended;
        if (handshakes.note(monotonic_seconds(), ended)) {
            if (ended > 0) {
                __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                                    "%d more refused keys in the last 10 s", ended);
            }
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Refused key %s from %s",
                                fingerprint.c_str(), address.c_str());
        }
    }
    const std::string reply[6] = {"1.0",   request_id, status, status == "200" ? "OK" : "refused",
                                  user_id, ""};
    for (int i = 0; i < 6; i++) {
        zmq_send(socket, reply[i].data(), reply[i].size(), i < 5 ? ZMQ_SNDMORE : 0);
    }
}
