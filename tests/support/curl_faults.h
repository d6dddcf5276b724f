// libcurl and allocation failing on the module's call, the way they fail by
// themselves: a fault simulator in the manner of curl's torture mode.
//
// A test program linked with this file defines curl_easy_init,
// curl_easy_setopt, curl_easy_escape, curl_slist_append, curl_easy_perform,
// curl_easy_getinfo and (but in the fuzz tree) realloc and strdup itself and
// exports them, so the
// module's calls reach these first; each forwards to the real function
// unless a failure is planned for it. Only calls made from pellixcenter.so
// are counted or failed. (Under memcheck the program's own realloc stands
// only with --soname-synonyms=somalloc=nouserintercepts.)
#pragma once

#include <string>
#include <vector>

namespace pellixtest {

// One of the module's calls of the functions above; `option` is the
// option of curl_easy_setopt or the information of curl_easy_getinfo, -1
// for the others.
struct CurlCall {
  std::string function;
  int option;
};

// From now on the module's calls are counted, and the (after+1)-th of
// `function` ("*": of any of them; "": none, only counting) fails, and with
// `persistent` every one of them after it too; of curl_easy_setopt, only
// calls for `option` count unless it is -1. A failing curl_easy_init,
// curl_easy_escape, curl_slist_append, realloc or strdup gives null,
// curl_easy_setopt and curl_easy_getinfo CURLE_BAD_FUNCTION_ARGUMENT,
// curl_easy_perform CURLE_OUT_OF_MEMORY.
void InjectCurlFault(const std::string& function, int after, bool persistent = false, int option = -1);
// The module's next call of `function` (for `option`) fails.
void FailCurlOnce(const char* function, int option = -1);
// True while the planned failure has not happened yet.
bool CurlFaultPending();
// The module's calls since the last InjectCurlFault(), in order, and those of
// them that failed.
std::vector<CurlCall> CurlCalls();
std::vector<CurlCall> FailedCurlCalls();
// No plan and no counting any more.
void ClearCurlFaults();

// From now on the module's transfers do not leave the process:
// curl_easy_perform hands `body` to the module's write function, in pieces
// as libcurl does, and curl_easy_getinfo answers `status`. Off again with a
// negative status.
void ScriptTransfers(long status, const std::string& body);
// The form of the module's last scripted transfer.
std::string PostedForm();

}  // namespace pellixtest
