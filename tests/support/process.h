// Runs a shell command for a test.
#pragma once

#include <string>

namespace pellixtest {

// Runs `command` with /bin/sh; returns its exit status (-1 when it did not
// exit) with its standard output in *out and, when `err` is not null, its
// standard error in *err.
int RunCommand(const std::string& command, std::string* out, std::string* err = nullptr);

}  // namespace pellixtest
