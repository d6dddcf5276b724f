// Makes a process trust an authority the way the device trusts the real
// account service: through the system's trust store, which libcurl reads.
#pragma once

#include <string>

namespace webapihost {

// The CA bundle libcurl reads when a transfer names none (CURLINFO_CAINFO);
// "" when it names none.
std::string SystemBundle();

// Makes this process, and it alone, trust `pems` (PEM certificates) besides
// the system's authorities, or with `alone` instead of them: writes them into
// the file `bundle`, enters a private mount namespace (or, where that is
// refused, a user namespace of its own with one) and binds `bundle` over
// SystemBundle() there. Must run while the process has a single thread.
// False with *why when the system refuses; the files this process sees are
// then unchanged.
bool TrustAuthorities(const std::string& pems, const std::string& bundle, std::string* why, bool alone = false);

}  // namespace webapihost
