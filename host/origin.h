// Origins, as browsers send them in Origin and Referer, and the ones the
// development host admits: its own (a loopback name and its port) and those
// `serve --trust-origin` names.
#pragma once

#include <string>
#include <vector>

namespace webapihost {

// The origin `text` is, as `serve --trust-origin` takes it: scheme://host
// with an optional :port and nothing else (no path, query, fragment nor user
// info), the scheme http or https. The result is as a browser sends it:
// lower case, the scheme's default port left out. Empty, with *problem (may
// be null) saying why, when `text` is no such origin.
std::string ParseOrigin(const std::string& text, std::string* problem);
// The origin of the absolute http or https URL `url` (empty: it has none).
std::string OriginOf(const std::string& url);

// The origins whose pages may use the host. Safe for concurrent reads once
// the host serves.
struct Admitted {
  int port = -1;                     // the host's own port
  std::vector<std::string> trusted;  // as ParseOrigin answers them
  // http:// with a loopback name of the host and its port.
  bool Own(const std::string& origin) const;
  bool Trusted(const std::string& origin) const;
  // The trusted origins, each after a space, as a policy lists them.
  std::string Listed() const;
};

}  // namespace webapihost
