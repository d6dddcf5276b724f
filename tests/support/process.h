// Runs a shell command for a test, and reads the test process's own figures.
#pragma once

#include <sys/types.h>

#include <string>

namespace pellixtest {

// Runs `command` with /bin/sh; returns its exit status (-1 when it did not
// exit) with its standard output in *out and, when `err` is not null, its
// standard error in *err.
int RunCommand(const std::string& command, std::string* out, std::string* err = nullptr);

// A size of process `pid` (0: this one) from /proc/<pid>/status, in KiB:
// `field` as "VmRSS:" (resident now) or "VmHWM:" (resident at the peak); -1
// if absent.
long StatusKiB(const char* field, pid_t pid = 0);

// The descriptors process `pid` (0: this one) has open; -1 if unknown.
int OpenDescriptors(pid_t pid = 0);

}  // namespace pellixtest
