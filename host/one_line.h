// A text for one line of a log. A request's path, a field or a message
// passed on from elsewhere may hold a line break; written as it is, it
// would start a line that looks like another entry.
#pragma once

#include <cstdio>
#include <string>

namespace webapihost {

// `text` with each control character written as \n, \r, \t or \xNN.
inline std::string OneLine(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u != 0x7f) {
      out += c;
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else {
      char hex[8];
      (void)std::snprintf(hex, sizeof(hex), "\\x%02x", u);
      out += hex;
    }
  }
  return out;
}

}  // namespace webapihost
