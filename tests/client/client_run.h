// Runs the real vireo-client binary and checks what it says.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <string>

#include "test_util.h"

struct run_result { int status; std::string out, err; };

// Runs vireo-client with args (split by the shell) in the source tree, where
// the sample configuration's relative paths hold, under wrap (e.g. a
// `timeout -s INT`), stdout to out_to if given; killed after 20 s.
inline run_result run_client(const std::string& args, const std::string& wrap = "",
                             const std::string& out_to = "") {
    temp_dir io;
    std::string out = io.path() + "/out", err = io.path() + "/err";
    std::string emulator;  // the cross build's qemu-user, empty natively
    for (const std::string& w : emulator_prefix()) emulator += w + " ";
    int st = system(("cd " VIREO_SOURCE_DIR " && timeout -s KILL 20 " + wrap + " " + emulator +
                     VIREO_CLIENT_BIN " " + args + " >" + (out_to.empty() ? out : out_to) +
                     " 2>" + err).c_str());
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, read_text_file(out), read_text_file(err)};
}

// Checks the exit status, the exact stdout and a piece of stderr.
inline void expect_run(const std::string& args, int status, const std::string& out,
                       const std::string& err_has, const std::string& out_to = "") {
    run_result got = run_client(args, "", out_to);
    EXPECT_EQ(got.status, status) << args << "\n" << got.err;
    EXPECT_EQ(got.out, out) << args;
    EXPECT_NE(got.err.find(err_has), std::string::npos) << args << "\n" << got.err;
    if (status == 64) {  // one line, then where help is
        EXPECT_TRUE(std::count(got.err.begin(), got.err.end(), '\n') == 2 &&
                    got.err.find("\nTry 'vireo-client --help' for more information.\n") != std::string::npos) << got.err;
    }
}
