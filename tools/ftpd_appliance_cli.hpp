// Entry points the ftpd command hands over to when it is asked for the
// appliance (an accounts database, a settings file, metrics or syslog, or
// the user sub-commands).
#pragma once

namespace ftpd_appliance {

// The ftpd command's usage line: the plain server and the appliance.
inline constexpr const char* kCommandUsage =
    "ftpd [--db FILE [user add|passwd|disable|del|list [NAME] [--level read|write|all]]] [--config FILE] "
    "[--listen PORT] [--root DIR] [--statsd H:P] [--syslog H:P] [--public-ip ADDR] [--user N:P[:LEVEL]]...";
// True when the command line asks for the appliance.
bool handles(int argc, char** argv);
// Runs `vekutil ftpd ...` as the appliance; returns the exit code.
int run(int argc, char** argv);

}  // namespace ftpd_appliance
