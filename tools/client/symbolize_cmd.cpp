// vireo-client symbolize: names the frames of stacks saved as symbolizer
// markup, from debug files on this host.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "client_cli.h"

#ifdef VIREO_HAVE_SYMBOLIZE
#include "symbolize.h"
#endif

namespace {

const char symbolize_usage[] =
    "usage: vireo-client symbolize [--debug-dir DIR]... [--debuginfod URL]... [FILE]\n"
    "  FILE             markup saved from the board (default: standard input)\n"
    "  --debug-dir DIR  debug files: a build-id tree (DIR/.build-id/xx/rest.debug)\n"
    "                   or a sysroot (DIR + the module's path on the board)\n"
    "  --debuginfod URL ask this debuginfod server (default: DEBUGINFOD_URLS, if set)\n"
    "  --no-debuginfod  ignore DEBUGINFOD_URLS (--debuginfod URLs still apply)\n"
    "Each server transfer gives up after DEBUGINFOD_TIMEOUT seconds without progress\n"
    "(default 5), all of them together after 10 s; frames that stay unknown show as\n"
    "module+0xOFFSET, or by the board's own name.\n"
    "exit status: 0 named, 3 malformed markup, 64 usage error, 74 reading or writing failed\n";

int usage(const std::string& why) {
    fprintf(stderr,
            "vireo-client symbolize: %s\n"
            "Try 'vireo-client symbolize --help' for more information.\n",
            why.c_str());
    return 64;
}

}  // namespace

int print_named_markup(const std::string& text, const options& o) {
#ifndef VIREO_HAVE_SYMBOLIZE
    (void)text;
    (void)o;
    fputs("vireo-client: built without elfutils' libdw: no naming on this host\n", stderr);
    return client_exit::usage;
#else
    symbolize_options so;
    so.debug_dirs = o.debug_dirs;
    so.debuginfod_urls = o.debuginfod_urls;
    so.use_env_urls = !o.no_debuginfod;
    // One namer for every round of --watch: debug files stay open.
    static symbolizer s(so);
    if (text.empty())
        return flush_output();
    FILE* in = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    if (in == nullptr)
        return client_exit::output;
    std::string why;
    int rc = symbolize_stream(in, stdout, s, why);
    fclose(in);
    if (rc == symbolize_bad_markup) {
        fprintf(stderr, "vireo-client: malformed markup in the reply: %s\n", why.c_str());
        return client_exit::malformed;
    }
    return rc != 0 ? client_exit::output : flush_output();
#endif
}

int run_symbolize(int argc, char** argv) {
#ifndef VIREO_HAVE_SYMBOLIZE
    (void)argc;
    (void)argv;
    fputs("vireo-client symbolize: built without elfutils' libdw\n", stderr);
    return 64;
#else
    symbolize_options o;
    std::string file;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            fputs(symbolize_usage, stdout);
            return 0;
        }
        if ((a == "--debug-dir" || a == "--debuginfod") && i + 1 >= argc)
            return usage(a + " needs a value");
        if (a == "--debug-dir")
            o.debug_dirs.push_back(argv[++i]);
        else if (a == "--debuginfod")
            o.debuginfod_urls.push_back(argv[++i]);
        else if (a == "--no-debuginfod")
            o.use_env_urls = false;
        else if (a.size() > 1 && a[0] == '-')
            return usage("unknown option " + a);
        else if (file.empty())
            file = a;
        else
            return usage("one FILE at most");
    }
    FILE* in = file.empty() ? stdin : fopen(file.c_str(), "r");
    if (in == nullptr) {
        fprintf(stderr, "vireo-client symbolize: %s: %s\n", file.c_str(), strerror(errno));
        return 74;
    }
    symbolizer s(o);
    std::string why;
    int rc = symbolize_stream(in, stdout, s, why);
    if (in != stdin)
        fclose(in);
    if (rc != 0)
        fprintf(stderr, "vireo-client symbolize: %s\n", why.c_str());
    return rc == 0 ? 0 : rc == symbolize_bad_markup ? 3 : 74;
#endif
}
