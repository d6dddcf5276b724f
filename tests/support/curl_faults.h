// libcurl and allocation failing on the module's call, the way they fail by
// themselves, in the manner of curl's torture mode: through the platform
// seam's own fault plan and journal (seam/seam.h), service "curl".
//
// A program linked with this file defines and exports the libcurl calls the
// module makes and (but in the fuzz tree) realloc and strdup, so that the
// module's calls reach these first (docs/platform.md#interposers: the link
// order and valgrind's and the fuzzer's exceptions). While WatchCurl is on,
// each call made from pellixcenter.so enters the seam, and fails when its
// plan says so; every call is forwarded to the real function otherwise. A
// failing curl_easy_init, curl_easy_escape, curl_slist_append, realloc or
// strdup gives null, curl_easy_setopt and curl_easy_getinfo
// CURLE_BAD_FUNCTION_ARGUMENT, curl_easy_perform CURLE_OUT_OF_MEMORY.
#pragma once

#include <string>

namespace pellixtest {

// The seam's operation for a call of `function`; curl_easy_setopt and
// curl_easy_getinfo name their option, as in "curl_easy_setopt 47".
std::string CurlOp(const std::string& function, int option = -1);

// Whether the module's calls go through the seam (off: forwarded at once).
void WatchCurl(bool on);

// From now on the module's transfers do not leave the process:
// curl_easy_perform hands `body` to the module's write function, in pieces
// as libcurl does, and curl_easy_getinfo answers `status`. Off again with a
// negative status.
void ScriptTransfers(long status, const std::string& body);
// The form of the module's last scripted transfer.
std::string PostedForm();

}  // namespace pellixtest
