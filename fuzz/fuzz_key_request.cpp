// fuzz_request as the worker of a CURVE endpoint: see fuzz_request.cpp.
#define VIREO_FUZZ_KEY_FRAME 1
#include "fuzz_request.cpp"
