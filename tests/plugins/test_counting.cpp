// A plug-in that counts its loads and unloads in the host program's
// vireo_test_loads / vireo_test_unloads, when the host exports them.
#include <dlfcn.h>

class comm_data;

namespace {
void bump(const char* name) {
    if (auto* counter = static_cast<int*>(dlsym(RTLD_DEFAULT, name))) {
        ++*counter;
    }
}
__attribute__((constructor)) void on_load() { bump("vireo_test_loads"); }
__attribute__((destructor)) void on_unload() { bump("vireo_test_unloads"); }
}  // namespace

extern "C" int counted(comm_data*) { return 0; }
