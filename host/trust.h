// Makes this process trust the simulated account service the way the device
// trusts the real one: through the system's trust store.
#pragma once

#include <string>

namespace webapihost {

// The system's bundle of trusted authorities, as libcurl reads it.
extern const char kSystemBundle[];

// Writes `bundle`: the system's authorities and `caPem`, then enters a private
// mount namespace (with a user namespace of its own when not root) and binds
// `bundle` over kSystemBundle there, so that the change is seen by this
// process only. Must run while the process has a single thread. False with
// *why when the system refuses; the files this process sees are then
// unchanged.
bool TrustAuthority(const std::string& caPem, const std::string& bundle, std::string* why);

}  // namespace webapihost
