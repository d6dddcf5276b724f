#include "verifier.h"

#include <openssl/rand.h>

#include "request.h"
#include "service.h"
#include "text.h"

namespace webapihost {

const char VerifierApi::kApi[] = "TALV.Remote.Credential.Verifier";

namespace {
constexpr auto kVerifierLifetime = std::chrono::minutes(10);
}  // namespace

Answer VerifierApi::Create() {
  // 48 random bytes make a 64-character verifier of RFC 7636's alphabet.
  unsigned char bytes[48];
  if (RAND_bytes(bytes, sizeof(bytes)) != 1) return HostError(kErrUnknown, "no random bytes");
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
  std::string verifier;
  for (size_t i = 0; i < sizeof(bytes); i += 3) {
    uint32_t n = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
    for (int shift = 18; shift >= 0; shift -= 6) verifier += alphabet[(n >> shift) & 63];
  }
  const std::string challenge = pellixsim::S256Challenge(verifier);
  const auto now = std::chrono::steady_clock::now();
  {
    std::lock_guard<std::mutex> lock(mu_);
    while (!oldestFirst_.empty()) {
      auto oldest = byChallenge_.find(oldestFirst_.front());
      if (oldest != byChallenge_.end() && oldest->second.second > now && byChallenge_.size() < capacity_) break;
      if (oldest != byChallenge_.end()) byChallenge_.erase(oldest);
      oldestFirst_.pop_front();
    }
    byChallenge_[challenge] = {verifier, now + kVerifierLifetime};
    oldestFirst_.push_back(challenge);
  }
  Json::Value data;
  data["challenge"] = challenge;
  data["code_challenge_method"] = "S256";
  return Success(data);
}

Answer VerifierApi::Get(const Json::Value& params, const std::string& user) {
  if (user != "root")
    return HostError(kErrForbidden,
                     "only root may read a verifier, and HTTP requests run as " + std::string(kHttpUser));
  const Json::Value& challenge = params["challenge"];
  if (!params.isMember("challenge"))
    return HostError(kErrBadRequest, "\"challenge\" is missing: give the challenge that create answered");
  if (!challenge.isString())
    return HostError(kErrBadRequest, "\"challenge\" must be a string, not " + Shown(challenge));
  std::lock_guard<std::mutex> lock(mu_);
  auto it = byChallenge_.find(challenge.asString());
  if (it == byChallenge_.end() || it->second.second <= std::chrono::steady_clock::now()) {
    Answer a = HostError(kErrNoVerifier,
                         "no verifier for this \"challenge\": create did not make it, or it is over ten minutes old");
    a.found = true;  // the API answered
    a.answers = 1;
    return a;
  }
  Json::Value data;
  data["verifier"] = it->second.first;
  return Success(data);
}

}  // namespace webapihost
