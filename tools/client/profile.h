// What vireo-client profile collects, shared by its output formats.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// One thread's line in one sample.
struct profile_event {
    uint32_t request;  // index into profile_data::times
    pid_t tid;
    int32_t stack;  // index into profile_data::stacks; -1: left out (not on a CPU)
};

struct profile_data {
    std::vector<std::string> stacks;  // folded, root first ("a;b;leaf")
    // Samples counted by thread and stack (left-out ones not).
    std::map<std::pair<pid_t, int32_t>, long> counts;
    // Every sample in the order it came, and each request's start in seconds
    // from the first: kept only for a timeline, which needs them all.
    std::vector<profile_event> events;
    std::vector<double> times;
    double end = 0;                      // seconds from the first request to the end
    std::map<pid_t, std::string> names;  // each thread's name, as last seen
};

// "NAME (TID)": a thread as the root frame of its stacks (';' in the name
// would split the frame, so it becomes ':').
std::string thread_root(const profile_data& d, pid_t tid);

// speedscope's JSON file format: one "sampled" profile per thread, its
// samples in order with the time each stands for as the weight (an empty
// stack where the thread was left out), so that each thread has a timeline.
// 0, or -1 with why.
int write_speedscope(const profile_data& d, const std::string& title, const std::string& path,
                     std::string& why);
