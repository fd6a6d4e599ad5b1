// What a vireo-monitor plug-in includes: the connection a function is called
// with (comm_data, the request and reply frames), the byte helpers, and a
// macro for the entry point. The daemon exports its helpers (u8_to_u32, ...),
// so a plug-in may call them without linking anything.
//
//   VIREO_PLUGIN_EXPORT int my_command(comm_data* c);
//
// Returns the reply payload length written to c->send_data->msg (0 to
// c->max_send_len) or a negative error code; may run on several worker
// threads at once.
#pragma once

#include "server_comm.h"

// The type of a plug-in function, as the daemon calls it.
typedef int (*CUST_CALLBACK)(comm_data*);

// An unmangled, visible symbol, so that dlsym finds it by its plain name
// even in a library built with hidden visibility.
#define VIREO_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))
