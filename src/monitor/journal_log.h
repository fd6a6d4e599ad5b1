// Log lines the systemd journal understands.
#pragma once

// When standard error is the journal's stream (JOURNAL_STREAM names its
// device and inode), makes liblog write each line as "<N>TAG: text", N the
// syslog priority of the line, with the text's trailing newline dropped.
// Returns true if installed; otherwise the output stays liblog's own.
bool journal_log_install();
