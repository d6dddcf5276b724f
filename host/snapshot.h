// The host's whole state as one JSON document (docs/devhost.md, "The whole
// state"): the device's part (state.h) and the simulated account service's
// (sim/snapshot.h), joined here:
//
//   {"version": 1,
//    "device":  {"serial", "model", "build", "language", "timezone",
//                "account": {"email", "auth_key"} or null, "logout_reasons": [...]},
//    "service": {"limits": {...}, "accounts": [...], "conditions": [...]}}
#pragma once

#include <json/value.h>

#include <string>

#include "state.h"

namespace pellixsim {
class Simulation;
}

namespace webapihost {

// The version of the document this host writes and reads; a document of
// another version is refused by name.
constexpr int kStateVersion = 1;

// The document of the state in `state` and `sim`, written onto *document as
// Compact would write it; false with *error when the service's storage fails.
bool ExportState(const StateFolder& state, pellixsim::Simulation& sim, std::string* document, std::string* error);

// What ImportState did.
enum class Imported { kDone, kRefused, kFailed };
// Replaces the whole state with `document`: checked first (kRefused, with
// *error naming the member at fault by its JSON pointer, nothing changed),
// then the device's files staged, the service replaced in one transaction and
// the files renamed into place; the service's commit decides for both, and a
// process killed midway leaves the folder to open as the old state or the
// new (state.h StageDevice). kFailed with *error when a file or the storage
// fails (the old state when the service's transaction failed).
Imported ImportState(StateFolder* state, pellixsim::Simulation& sim, const Json::Value& document, std::string* error);

// A fresh device with no account: the factory's facts, `serial`, nothing
// refused, no condition.
Json::Value FreshDocument(const std::string& serial);

// The source tree's dev/fixtures, for a program run from its build tree; an
// installed one finds them beside it. Call before ReadDocument.
void SetSourceFixtures(std::string folder);
// Reads a state document from `path`, or from a fixture of the project by
// NAME (dev/fixtures/NAME.json); false with *error.
bool ReadDocument(const std::string& pathOrName, Json::Value* document, std::string* error);

// `webapi-host state export|import [FILE]` on the folder `root`, which no
// host may be using: the exit status (0 done, 1 refused or failed), the
// document on `out`, sentences on `err`.
int StateCommand(const std::string& action, const std::string& file, const std::string& root, FILE* out, FILE* err);

}  // namespace webapihost
