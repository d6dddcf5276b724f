// The development host's own web API beside the module's:
// TALV.Remote.Credential.Verifier version 1, which pkce_login runs in-process.
#pragma once

#include <json/value.h>

#include <chrono>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "harness.h"

namespace webapihost {

// TALV.Remote.Credential.Verifier version 1: the device's PKCE code
// verifiers. `create` makes one and answers its S256 challenge; `get` gives
// the verifier of a challenge to root. A verifier lasts ten minutes.
class VerifierApi {
 public:
  static const char kApi[];
  // A verifier lives ten minutes, and at most `capacity` live at once: a
  // client that creates them in a loop pushes out the oldest, not the host's
  // memory.
  static constexpr size_t kCapacity = 4096;
  explicit VerifierApi(size_t capacity = kCapacity) : capacity_(capacity) {}
  Answer Create();
  Answer Get(const Json::Value& params, const std::string& user);

 private:
  const size_t capacity_;
  std::mutex mu_;
  std::map<std::string, std::pair<std::string, std::chrono::steady_clock::time_point>> byChallenge_;
  std::deque<std::string> oldestFirst_;  // the challenges; all live equally long
};

}  // namespace webapihost
