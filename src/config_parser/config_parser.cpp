#include <android/log.h>

#include <fstream>
#include <stdexcept>

#include "config_parser.h"

#define LOG_TAG "MONITOR_CONFIG"

json_config::json_config(const std::string& json) {
    Json::CharReaderBuilder builder;
    std::string errs;
    std::ifstream stream(json);
    // Sub-configuration files share this code, and so the "main config" words.
    if (!stream.is_open()) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Open main config:%s failed\n",
                            json.c_str());
        throw std::runtime_error("open json");
    }
    if (!Json::parseFromStream(builder, stream, &root, &errs)) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Parse main config %s failed\n",
                            json.c_str());
        stream.close();
        throw std::runtime_error("Parse json");
    }
    stream.close();
}

main_config::main_config(const std::string& main_json) : json_config(main_json) {}

sub_config::sub_config(const std::string& sjson, std::string& class_name, uint32_t cd)
    : json_config(sjson), sub_file(sjson), name(class_name), code(cd) {}

config_parser::config_parser(const std::string& mjson) : main_file(mjson) {}

bool config_parser::parse_config() {
    if (!parse_main_config()) {
        return false;
    }
    return parse_sub_config();
}

Json::Value config_parser::search_key(Json::Value& root, const std::string& key) {
    if (!root.isMember(key)) {
        throw std::runtime_error("Not found key");
    }
    return root[key];
}

bool config_parser::parse_main_config() {
    try {
        mconfig = std::make_unique<main_config>(main_file);
        mconfig->mode = search_key(mconfig->root, key_name(key_mode)).asString();
        mconfig->ip = search_key(mconfig->root, key_name(key_server_ip)).asString();
        mconfig->port = search_key(mconfig->root, key_name(key_port)).asInt();

        Json::Value configs = search_key(mconfig->root, key_name(key_sub_configs));
        for (uint32_t i = 0; i < configs.size(); i++) {
            Json::Value sub = configs[i];
            std::string name = search_key(sub, key_name(key_class)).asString();
            uint32_t code = hex_code(search_key(sub, key_name(key_code)).asString());
            std::string configFile = search_key(sub, key_name(key_config)).asString();
            bool disable = false;
            if (sub.isMember(key_name(key_group_disable))) {
                disable = sub[key_name(key_group_disable)].asBool();
            }
            // The file is opened and parsed even when the code turns out to
            // be a duplicate.
            auto sc = std::make_shared<sub_config>(configFile, name, code);
            sc->enabled = !disable;
            // The first group with a code wins.
            mconfig->subs_map.emplace(code, sc);
        }
        if (mconfig->root.isMember(key_name(key_security))) {
            parse_security(mconfig->root[key_name(key_security)]);
        }
        return true;
    } catch (const std::exception& e) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Exception caught: %s in %s\n", e.what(),
                            main_file.c_str());
        return false;
    }
}

void config_parser::parse_security(const Json::Value& security) {
    Json::Value sec = security;
    main_config& mc = *mconfig;
    mc.secret_key_file = search_key(sec, key_name(key_secret_key)).asString();
    mc.authorized_keys_file = search_key(sec, key_name(key_authorized_keys)).asString();
    std::string error;
    if (read_key_file(mc.secret_key_file, mc.secret_key, error) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Secret key %s: %s",
                            mc.secret_key_file.c_str(), error.c_str());
        throw std::runtime_error("secret key");
    }
    struct stat st;
    if (stat(mc.secret_key_file.c_str(), &st) == 0 && (st.st_mode & 077) != 0) {
        __android_log_print(ANDROID_LOG_WARN, LOG_TAG,
                            "Secret key %s can be read by other users: chmod 600 it",
                            mc.secret_key_file.c_str());
    }
    // Stamped before reading: an edit in between is picked up by the first
    // reload.
    mc.keys_stamp = file_stamp::of(mc.authorized_keys_file);
    if (load_authorized_keys(mc.authorized_keys_file, mc.keys, error) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Authorized keys %s: %s",
                            mc.authorized_keys_file.c_str(), error.c_str());
        throw std::runtime_error("authorized keys");
    }
    const config_key& most = config_keys[key_max_client_ids];
    if (sec.isMember(most.name)) {
        mc.max_client_ids = sec[most.name].asInt();
        if (mc.max_client_ids < most.min || mc.max_client_ids > most.max) {
            __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "max-client-ids %d outside 0..254",
                                mc.max_client_ids);
            throw std::runtime_error("max-client-ids");
        }
    }
    mc.secure = true;
}

bool config_parser::parse_sub_config() {
    try {
        for (auto& entry : mconfig->subs_map) {
            std::shared_ptr<sub_config> cfg = entry.second;
            Json::Value cmds = search_key(cfg->root, key_name(key_cmd_list));
            for (uint32_t i = 0; i < cmds.size(); i++) {
                Json::Value element = cmds[i];
                std::string name = search_key(element, key_name(key_entry_name)).asString();
                uint32_t id = hex_code(search_key(element, key_name(key_id)).asString());
                std::shared_ptr<mon_cmd> mn;
                if (search_key(element, key_name(key_type)).asString() == "file") {
                    std::string file = search_key(element, key_name(key_cmd_file)).asString();
                    mn = std::make_shared<mon_cmd>(name, id, file);
                    if (element.isMember(key_name(key_read_all))) {
                        mn->read_all = element[key_name(key_read_all)].asBool();
                    }
                } else if (search_key(element, key_name(key_type)).asString() == "custom") {
                    std::string lib = search_key(element, key_name(key_lib)).asString();
                    std::string sym = search_key(element, key_name(key_symbols)).asString();
                    bool detach = false;
                    if (element.isMember(key_name(key_detach))) {
                        detach = element[key_name(key_detach)].asBool();
                    }
                    mn = std::make_shared<mon_cmd>(name, id, lib, sym, detach);
                    // Loaded even for a duplicate id, which releases it again.
                    mn->load_library();
                } else {
                    // asCString throws for a type that is not a JSON string,
                    // which fails the whole load.
                    __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
                                        "Not support cmd type:%s, skiping\n",
                                        element[key_name(key_type)].asCString());
                    continue;
                }
                if (element.isMember(key_name(key_disable))) {
                    mn->enabled = !element[key_name(key_disable)].asBool();
                }
                // The first command with an id wins.
                cfg->cmds.emplace(id, mn);
            }
        }
        return true;
    } catch (const std::exception& e) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "Exception caught: %s in sub config\n",
                            e.what());
        return false;
    }
}
