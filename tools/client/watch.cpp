// Rounds of vireo-client: one request and its reply printed, repeated under
// --watch and --count until the count is reached or a signal stops it.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

#include "client_cli.h"

volatile sig_atomic_t stop_signal = 0;

namespace {

void on_signal(int sig) {
    stop_signal = sig;
}

// Sleeps up to seconds, waking early when interrupted.
void pause_for(double seconds) {
    auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (stop_signal == 0 && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

// The screen a terminal shows under --watch: cleared, with a title line.
void print_watch_title(const request_spec& rq, const options& o) {
    time_t now = time(nullptr);
    char when[64] = "";
    struct tm tm_local;
    if (localtime_r(&now, &tm_local) != nullptr) {
        strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm_local);
    }
    printf("\033[H\033[2JEvery %.1fs: %s on %s    %s\n\n", o.watch_s, rq.label.c_str(),
           o.endpoint.c_str(), when);
}

int one_round(client_conn& conn, const request_spec& rq, const options& o) {
    client_reply r;
    std::string why;
    int rc = conn.request(rq.command, rq.sub_command, rq.payload, r, why);
    if (rc == client_interrupted) {
        return client_exit::signalled + stop_signal;
    }
    if (rc == client_malformed) {
        fprintf(stderr, "vireo-client: malformed reply from %s: %s\n", conn.endpoint.c_str(),
                why.c_str());
    } else if (rc != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
    }
    if (rc != 0) {
        return client_exit::of_result(rc);
    }
    if (o.verbose) {
        print_verbose(r);
    }
    if (r.header().msg_len >= 0 && rq.take_id && r.payload.size() != 1) {
        fprintf(stderr,
                "vireo-client: malformed reply from %s: take-id answered %zu bytes, not 1\n",
                conn.endpoint.c_str(), r.payload.size());
        return client_exit::malformed;
    }
    if (o.json) {
        print_json(r, conn.endpoint, rq.take_id);
    }
    if (r.header().msg_len < 0) {
        fprintf(stderr, "vireo-client: %s: error %d (%s)%s\n", rq.label.c_str(), r.header().msg_len,
                status_text(r.header().msg_len).c_str(),
                status_hint(rq, r.header().msg_len).c_str());
        return flush_output() != client_exit::ok ? client_exit::output : client_exit::status;
    }
    if (!o.json) {
        if (rq.take_id) {
            printf("%u\n", static_cast<uint8_t>(r.payload[0]));
        } else if (o.raw_asked() && !o.raw) {
            return print_named_markup(r.payload, o);
        } else {
            fwrite(r.payload.data(), 1, r.payload.size(), stdout);
        }
    }
    return flush_output();
}

}  // namespace

void catch_stop_signals() {
    // No SA_RESTART: an interrupt ends a pending wait at once.
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

int run_rounds(client_conn& conn, const request_spec& rq, const options& o) {
    const bool tty = isatty(STDOUT_FILENO) == 1;
    const bool repeat = o.watch || o.count > 0;
    int status = client_exit::ok;
    for (long round = 0; stop_signal == 0; round++) {
        if (o.watch && tty) {
            print_watch_title(rq, o);
        }
        status = one_round(conn, rq, o);
        if (!repeat || (o.count > 0 && round + 1 >= o.count) || status == client_exit::usage ||
            status == client_exit::output || status > client_exit::signalled) {
            break;
        }
        pause_for(o.watch_s);
    }
    return stop_signal != 0 && status != client_exit::output ? client_exit::signalled + stop_signal
                                                             : status;
}
