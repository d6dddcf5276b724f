// libcurl failing on the module's call, the way libcurl itself fails.
//
// A test program linked with this file defines curl_easy_init,
// curl_easy_setopt, curl_easy_escape and curl_slist_append itself and
// exports them, so the module's calls reach these first; each forwards to
// libcurl unless a failure is planned for it. Only calls made from
// pellixcenter.so are ever failed.
#pragma once

namespace pellixtest {

// The module's next call of `function` fails: curl_easy_init,
// curl_easy_escape and curl_slist_append give null, curl_easy_setopt (of
// `option` only) gives CURLE_BAD_FUNCTION_ARGUMENT.
void FailCurlOnce(const char* function, int option = -1);
// True while the planned failure has not happened yet.
bool CurlFaultPending();
// No planned failure any more.
void ClearCurlFaults();

}  // namespace pellixtest
