// Placeholder until the subcommand's own implementation is merged.
#include <cstdio>

#include "vireo_client.h"

int run_profile(int, char** argv) {
    fprintf(stderr, "vireo-client: %s: not built yet\n", argv[0]);
    return 64;
}
