#include <android/log.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "journal_log.h"
#include "monitor.h"

#define LOG_TAG "VO_MONITOR"

int main(int argc, char* argv[]) {
    bool ret;
    int opt;
    char* config_file = nullptr;
    monitor mon;

    // A vanished peer must never kill the daemon.
    signal(SIGPIPE, SIG_IGN);
    // Under systemd every line keeps its level in the journal.
    journal_log_install();

    while ((opt = getopt(argc, argv, "c:")) != -1) {
        switch (opt) {
            case 'c':
                config_file = optarg;  // the last -c wins
                break;
            default:
                show_help();
                return 0;
        }
    }
    if (config_file == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Please use '-c' to specify config file\n");
        return -1;
    }
    ret = mon.parse_config(std::string(config_file));
    if (!ret) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "monitor parse config failed\n");
        return -1;
    }

    std::thread perf_monitor(monitor_helper_thread, &mon);
    perf_monitor.join();
    return 0;
}
