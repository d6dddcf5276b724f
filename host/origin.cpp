#include "origin.h"

#include <algorithm>
#include <cctype>

namespace webapihost {
namespace {

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

bool NameChars(const std::string& name) {
  return !name.empty() && std::all_of(name.begin(), name.end(), [](unsigned char c) {
    return std::isalnum(c) || c == '-' || c == '.' || c == '_';
  });
}

}  // namespace

std::string ParseOrigin(const std::string& text, std::string* problem) {
  std::string why;
  const size_t colon = text.find("://");
  const std::string scheme = Lower(text.substr(0, colon == std::string::npos ? 0 : colon));
  const std::string rest = colon == std::string::npos ? "" : text.substr(colon + 3);
  std::string host = rest, port;
  if (scheme != "http" && scheme != "https") {
    why = "it does not begin with http:// or https://";
  } else if (rest.find_first_of("/?#") != std::string::npos) {
    why = "it has a path, query or fragment, which an origin has not";
  } else if (rest.find('@') != std::string::npos) {
    why = "it has user information, which an origin has not";
  } else {
    const size_t bracket = rest.rfind(']');
    const size_t last = rest.rfind(':');
    if (last != std::string::npos && (bracket == std::string::npos || last > bracket)) {
      host = rest.substr(0, last);
      port = rest.substr(last + 1);
    }
    const bool v6 = host.size() > 2 && host.front() == '[' && host.back() == ']' &&
                    host.find_first_not_of("0123456789abcdefABCDEF:.", 1) == host.size() - 1;
    const bool number = !port.empty() && port.size() <= 5 &&
                        std::all_of(port.begin(), port.end(), [](unsigned char c) { return std::isdigit(c); });
    if (!v6 && !NameChars(host))
      why = host.empty() ? "it names no host" : "\"" + host + "\" is not a host name";
    else if (last != std::string::npos && (bracket == std::string::npos || last > bracket) &&
             (!number || std::stoi(port) == 0 || std::stoi(port) > 65535))
      why = "\"" + port + "\" is not a port";
  }
  if (!why.empty()) {
    if (problem) *problem = why;
    return "";
  }
  // Browsers leave a scheme's default port out.
  if ((scheme == "http" && port == "80") || (scheme == "https" && port == "443")) port.clear();
  if (!port.empty()) port = ":" + std::to_string(std::stoi(port));
  return scheme + "://" + Lower(host) + port;
}

std::string OriginOf(const std::string& url) {
  const size_t colon = url.find("://");
  if (colon == std::string::npos) return "";
  return ParseOrigin(url.substr(0, url.find_first_of("/?#", colon + 3)), nullptr);
}

bool Admitted::Own(const std::string& origin) const {
  const std::string p = ":" + std::to_string(port);
  return origin == "http://127.0.0.1" + p || origin == "http://localhost" + p || origin == "http://[::1]" + p ||
         (port == 80 && (origin == "http://127.0.0.1" || origin == "http://localhost" || origin == "http://[::1]"));
}

bool Admitted::Trusted(const std::string& origin) const {
  return !origin.empty() && std::find(trusted.begin(), trusted.end(), origin) != trusted.end();
}

std::string Admitted::Listed() const {
  std::string all;
  for (const std::string& o : trusted) all += " " + o;
  return all;
}

}  // namespace webapihost
