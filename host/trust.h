// Makes a process trust an authority the way the device trusts the real
// account service: through the system's trust store, which libcurl reads.
//
// Its fopen() and fopen64() take the place of the C library's in a program
// that links this library (an interposer: docs/platform.md#interposers). They
// answer only for the system's bundle and forward every other file to the C
// library; without TrustAuthorities() they change nothing.
#pragma once

#include <string>

namespace webapihost {

// The CA bundle libcurl reads when a transfer names none (CURLINFO_CAINFO);
// "" when it names none.
std::string SystemBundle();

// From now on, whoever in this process opens SystemBundle() for reading
// reads `pems` (PEM certificates) after the system's authorities, or with
// `alone` instead of them. Nothing outside the process changes: the bundle
// is served from memory, and other processes, children too, read the
// machine's file. May be called at any time, from any thread; transfers
// that open the bundle after it returns see the new one. Each call's bundle
// is kept until the process ends, for the streams already reading it.
// False with *why, and nothing changed, when libcurl names no bundle or the
// system's cannot be read.
bool TrustAuthorities(const std::string& pems, std::string* why, bool alone = false);

}  // namespace webapihost
