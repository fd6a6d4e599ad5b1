// The ZAP handler of a CURVE endpoint: decides at each handshake whether a
// client key is accepted, and holds the live table of accepted keys that the
// workers check every request against.
#pragma once

#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "wire/keys.h"

// A flood of refusals must not flood the log: the first refusal of a 10 s
// window is logged in full, the others are only counted, and their count is
// logged as one line once the window has ended.
class refusal_window {
public:
    static constexpr int64_t seconds = 10;
    int64_t start = -seconds;  // monotonic seconds
    int suppressed = 0;

    // True when the refusal at now opens a window (log it in full); ended
    // then receives the count left from the window before it.
    bool note(int64_t now, int& ended);
    // The count of a window that ended by now, which is then cleared.
    int take_ended(int64_t now);
};

class zap_handler {
public:
    std::string keys_file;  // the authorized-keys file, reloaded when it changes

    // Starts from the keys loaded with the configuration and the stamp of
    // the file they were read from.
    zap_handler(std::string keys_file, const key_table& keys, const file_stamp& stamp);
    // Stops the thread (within a second) and joins it.
    ~zap_handler();
    zap_handler(const zap_handler&) = delete;
    zap_handler& operator=(const zap_handler&) = delete;

    // Binds inproc://zeromq.zap.01 in context, which must happen before any
    // CURVE socket of the context binds, and starts the handler thread.
    // Returns 0, or -1 (logged) when the socket cannot be made or bound.
    int start(void* context);

    // Whether the key (Z85, the ZAP user id) may use command, against the
    // current table: a key removed from the file is refused everything.
    // name receives the key's name, or "revoked" for a key no longer listed.
    bool allows(const std::string& key, uint32_t command, std::string& name) const;

    // Whether key is listed in the current table.
    bool listed(const std::string& key) const;

    // Logs that key (known as name) was refused command, bounded as above
    // for each key.
    void log_refused_command(const std::string& key, const std::string& name, uint32_t command);

    // Reloads keys_file if it changed since the last load. A file that cannot
    // be read or holds a bad line leaves no key accepted until it is fixed.
    void refresh();

private:
    void run();
    void answer(void* socket);
    // Logs the counts of refusal windows that have ended.
    void log_ended_windows();

    mutable std::mutex table_lock;
    std::shared_ptr<const key_table> table;
    file_stamp stamp;        // of the file the table came from (ZAP thread only)
    time_t loaded_at = 0;    // when it was read (ZAP thread only)
    void* socket = nullptr;  // ZMQ_REP on inproc://zeromq.zap.01, ZAP thread only
    std::mutex refusals_lock;
    refusal_window handshakes;  // refused handshakes, any key
    // refused requests per key and name; keys that were once listed only
    std::unordered_map<std::string, std::pair<std::string, refusal_window>> commands;
    std::atomic<bool> stopping{false};
    std::thread thread;
};
