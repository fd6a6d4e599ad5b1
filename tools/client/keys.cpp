// CURVE keys of vireo-client: keygen, and the keys a request is sent with.
#include <cstdio>

#include "client_cli.h"

int keygen(const options& o) {
    if (o.args.size() != 2) {
        return usage_error("keygen needs one BASE name: it writes BASE.key and BASE.pub");
    }
    std::string pub, why;
    if (write_key_pair(expand_home(o.args[1]), pub, why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return client_exit::output;
    }
    printf("%s\n", pub.c_str());
    return flush_output();
}

int find_keys(const options& o, const client_config* cfg, client_keys& keys) {
    std::string server_key = o.server_key, key = o.key, why;
    if (cfg != nullptr) {
        server_key = server_key.empty() ? cfg->server_key : server_key;
        key = key.empty() ? cfg->key : key;
    }
    if (server_key.empty() && key.empty()) {
        return client_exit::ok;
    }
    if (server_key.empty() || key.empty()) {
        return usage_error(
            "a CURVE client needs both the server's key (--server-key) and its own (--key)");
    }
    // A ~ the shell left alone (--key=~/x) is the home folder all the same.
    if (load_server_key(expand_home(server_key), keys.server_public, why) != 0 ||
        load_secret_key(expand_home(key), keys, why) != 0) {
        fprintf(stderr, "vireo-client: %s\n", why.c_str());
        return client_exit::config;
    }
    return client_exit::ok;
}
