// Which collector reads which of the board's system files.
#include "exporter.h"

const collector system_collectors[n_system_collectors] = {
    {"meminfo", &command_map::meminfo, render_meminfo},
    {"loadavg", &command_map::loadavg, render_loadavg},
    {"stat", &command_map::stat, render_stat},
    {"uptime", &command_map::uptime, render_uptime},
    {"crash", &command_map::crash, render_crashes},
};
