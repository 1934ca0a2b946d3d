// Entry points the ftpd command hands over to when it is asked for the
// appliance (an accounts database, a settings file, metrics or syslog, or
// the user sub-commands).
#pragma once

namespace ftpd_appliance {

// The ftpd command's usage line: the plain server and the appliance.
inline constexpr const char* kCommandUsage =
    "ftpd [--listen PORT] [--root DIR] [--user N:P[:LEVEL]]... | ftpd [--config FILE] --db FILE "
    "[--listen PORT] [--root DIR] [--statsd H:P] [--syslog H:P] | ftpd --db FILE user "
    "add NAME [--level read|write|all] | passwd NAME | disable NAME | del NAME | list";
// True when the command line asks for the appliance.
bool handles(int argc, char** argv);
// Runs `vekutil ftpd ...` as the appliance; returns the exit code.
int run(int argc, char** argv);

}  // namespace ftpd_appliance
