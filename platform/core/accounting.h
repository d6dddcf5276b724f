// What the core library has handed out and not yet taken back.
//
// Every hash and list that TLIBCSzHashAlloc or TLIBCSzListAlloc returns is
// registered until it is freed; a list that moves as it grows is registered
// under its new address. A free of a pointer the library does not hold (never
// handed out, freed already, or the old address of a moved list) is refused,
// not performed, and recorded here, so that a test can prove that a caller
// neither leaks nor frees twice. Safe for concurrent use.
#pragma once

#include <string>
#include <vector>

namespace talvcore {

int LiveHashes();
int LiveLists();
// One line per refused free: "TLIBCSzListFree 0x..." or "TLIBCSzHashFree 0x...".
std::vector<std::string> BadFrees();
void ClearBadFrees();

}  // namespace talvcore
