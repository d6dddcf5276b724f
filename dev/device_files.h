// The development device's files (dev/sysroot), built in: whoever lays out a
// device of its own writes these texts, so that each is kept in one place.
#pragma once

#include <string>

namespace devicefiles {

// The text of the development device's file at `path` ("/etc/talvinfo.conf");
// "" when it has none.
std::string Text(const std::string& path);
// `text` with the value of its first line that sets `key` ("key=value" or
// "key = value") replaced by `value`; as it was when no line sets it.
std::string WithValue(std::string text, const std::string& key, const std::string& value);
// The relay daemon's configuration naming `host` as the account service's.
std::string RelayConf(const std::string& host);

}  // namespace devicefiles
