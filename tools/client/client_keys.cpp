// CURVE key files of the client: reading them and making a new pair.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zmq.h>

#include <cerrno>
#include <cstring>
#include <fstream>

#include "vireo_client.h"
#include "wire/keys.h"

namespace {

// The daemon's reader, with the client's wording and result code.
int key_from_file(const std::string& path, std::string& key, std::string& why) {
    std::string error;
    if (::read_key_file(path, key, error) != 0) {
        why = "key file " + path + ": " + error;
        return client_bad_input;
    }
    return 0;
}

// Creates path with mode, never over an existing file, and writes text.
int create_file(const std::string& path, mode_t mode, const std::string& text, std::string& why) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    if (fd < 0) {
        why = "cannot create " + path + ": " + strerror(errno);
        return client_bad_input;
    }
    ssize_t n = write(fd, text.data(), text.size());
    int err = errno;
    if (close(fd) != 0 && n == static_cast<ssize_t>(text.size())) {
        n = -1;
        err = errno;
    }
    if (n != static_cast<ssize_t>(text.size())) {
        why = "cannot write " + path + ": " + strerror(n < 0 ? err : ENOSPC);
        unlink(path.c_str());
        return client_bad_input;
    }
    return 0;
}

// Creates the missing folders above file, each 0700; 0, or client_bad_input
// with why.
int make_folders(const std::string& file, std::string& why) {
    for (size_t at = file.find('/', 1); at != std::string::npos; at = file.find('/', at + 1)) {
        const std::string dir = file.substr(0, at);
        struct stat st;
        if (stat(dir.c_str(), &st) != 0 && mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
            why = "cannot create the folder " + dir + ": " + strerror(errno);
            return client_bad_input;
        }
    }
    return 0;
}

}  // namespace

int load_server_key(const std::string& file_or_z85, std::string& key, std::string& why) {
    // A key given as text is used as it is unless a file has that name.
    if (is_z85_key(file_or_z85) && access(file_or_z85.c_str(), F_OK) != 0) {
        key = file_or_z85;
        return 0;
    }
    return key_from_file(file_or_z85, key, why);
}

int load_secret_key(const std::string& path, client_keys& keys, std::string& why) {
    if (int rc = key_from_file(path, keys.secret_key, why); rc != 0) {
        return rc;
    }
    char pub[z85_key_len + 1];
    if (zmq_curve_public(pub, keys.secret_key.c_str()) != 0) {
        why = "cannot derive the public key of " + path + ": " + zmq_strerror(errno);
        return client_bad_input;
    }
    keys.public_key = pub;
    return 0;
}

int write_key_pair(const std::string& base, std::string& public_key, std::string& why) {
    const std::string sec_path = base + ".key", pub_path = base + ".pub";
    for (const std::string& p : {sec_path, pub_path}) {
        struct stat st;
        if (lstat(p.c_str(), &st) == 0) {
            why = p + " exists already; remove it first to make a new key pair";
            return client_bad_input;
        }
    }
    char pub[z85_key_len + 1], sec[z85_key_len + 1];
    if (make_folders(sec_path, why) != 0) {
        return client_bad_input;
    }
    if (zmq_curve_keypair(pub, sec) != 0) {
        why = std::string("zmq_curve_keypair: ") + zmq_strerror(errno);
        return client_bad_input;
    }
    // The secret file is 0600 from its creation on: there is no moment in
    // which another user could open it.
    if (create_file(sec_path, 0600, "# vireo-monitor CURVE secret key\n" + std::string(sec) + "\n",
                    why) != 0) {
        return client_bad_input;
    }
    if (create_file(pub_path, 0644, "# vireo-monitor CURVE public key\n" + std::string(pub) + "\n",
                    why) != 0) {
        unlink(sec_path.c_str());
        return client_bad_input;
    }
    public_key = pub;
    return 0;
}
