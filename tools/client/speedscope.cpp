// vireo-client profile --format speedscope: the samples as speedscope's file
// format (https://www.speedscope.app/file-format-schema.json).
#include <json/json.h>

#include <fstream>
#include <memory>

#include "profile.h"

std::string thread_root(const profile_data& d, pid_t tid) {
    auto it = d.names.find(tid);
    std::string name = it != d.names.end() ? it->second : "?";
    for (char& ch : name) ch = ch == ';' ? ':' : ch;
    return name + " (" + std::to_string(tid) + ")";
}

namespace {

// The frame indices of each folded stack, root first, interning its frame
// names into frames.
std::vector<Json::Value> stack_frames(const profile_data& d, Json::Value& frames) {
    std::map<std::string, int> index;
    std::vector<Json::Value> out;
    for (const std::string& folded : d.stacks) {
        Json::Value stack(Json::arrayValue);
        for (size_t at = 0; at <= folded.size();) {
            size_t end = std::min(folded.find(';', at), folded.size());
            std::string name = folded.substr(at, end - at);
            auto it = index.find(name);
            if (it == index.end()) {
                it = index.emplace(name, static_cast<int>(index.size())).first;
                Json::Value f(Json::objectValue);
                f["name"] = name;
                frames.append(f);
            }
            stack.append(it->second);
            at = end + 1;
        }
        out.push_back(std::move(stack));
    }
    return out;
}

}  // namespace

int write_speedscope(const profile_data& d, const std::string& title, const std::string& path,
                     std::string& why) {
    Json::Value root(Json::objectValue);
    root["$schema"] = "https://www.speedscope.app/file-format-schema.json";
    root["exporter"] = "vireo-client";
    root["name"] = title;
    root["activeProfileIndex"] = 0;
    Json::Value& frames = root["shared"]["frames"] = Json::Value(Json::arrayValue);
    const std::vector<Json::Value> stacks = stack_frames(d, frames);
    // A sample stands for the time until the next request, the last one
    // for the time until sampling ended.
    std::map<pid_t, Json::Value> profiles;
    for (const profile_event& e : d.events) {
        Json::Value& p = profiles[e.tid];
        const double at = d.times[e.request];
        const double next = e.request + 1 < d.times.size() ? d.times[e.request + 1] : d.end;
        if (p.isNull()) {
            p["type"] = "sampled";
            p["name"] = thread_root(d, e.tid);
            p["unit"] = "milliseconds";
            p["startValue"] = at * 1000;
            p["endValue"] = at * 1000;
            p["samples"] = Json::Value(Json::arrayValue);
            p["weights"] = Json::Value(Json::arrayValue);
        }
        p["samples"].append(e.stack >= 0 ? stacks[static_cast<size_t>(e.stack)]
                                         : Json::Value(Json::arrayValue));
        p["weights"].append((next - at) * 1000);
        p["endValue"] = next * 1000;
    }
    Json::Value& list = root["profiles"] = Json::Value(Json::arrayValue);
    for (auto& e : profiles) list.append(std::move(e.second));
    Json::StreamWriterBuilder w;
    w["indentation"] = "";
    w["precisionType"] = "decimal";  // microseconds are enough
    w["precision"] = 3;
    std::ofstream out(path);
    std::unique_ptr<Json::StreamWriter>(w.newStreamWriter())->write(root, &out);
    out << '\n';
    out.close();
    if (!out) {
        why = "writing " + path + " failed";
        return -1;
    }
    return 0;
}
