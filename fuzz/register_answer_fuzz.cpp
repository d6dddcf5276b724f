// Version 1's `register` over whatever the account service may answer: the
// local service answers each input (its first byte picks the HTTP status,
// the rest is the body, NULs and all), and the handler must give exactly the
// answer and the "register error" line that the service's first keyword
// implies, by grgErrorCodeMap as the table stands in this file, with every
// hash and list given back.
#include <cstring>
#include <vector>

#include "core/accounting.h"
#include "fuzz_check.h"
#include "support/service_process.h"
#include "talv/tlibc.h"

namespace {

const pellixtest::ServiceProcess* gProcess = nullptr;

// grgErrorCodeMap, written out again: a keyword matches the first key that
// begins with it, and nothing matches an empty one.
int KeywordCode(const std::string& keyword) {
  static const struct {
    const char* key;
    int code;
  } kRows[] = {{"good", 3007},
               {"badparam", 3001},
               {"badauth", 3004},
               {"badsys", 3003},
               {"badnetwork", 3002},
               {"account_inused", 3005},
               {"serial_exceed_max_account_register", 3006},
               {"account_userid", 3007}};
  if (keyword.empty()) return 3000;
  for (const auto& row : kRows)
    if (std::strncmp(row.key, keyword.c_str(), keyword.size()) == 0) return row.code;
  return 3000;
}

int Status(uint8_t selector) {
  switch (selector) {
    case '1': return 201;
    case '3': return 302;
    case '4': return 404;
    case '5': return 500;
    default: return 200;
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gProcess = &pellixtest::StartServiceProcess();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  const int status = size > 0 ? Status(bytes[0]) : 200;
  const std::string body = size > 1 ? std::string(reinterpret_cast<const char*>(bytes) + 1, size - 1) : "";
  gProcess->service->SetScript({pellixtest::Conduct::kAnswer, status, body});
  syslogcapture::Take();

  Json::Value params(Json::objectValue);
  params["account"] = "ada@example.com";
  params["password"] = "secret 1";
  params["fullname"] = "Ada Lovelace";
  const webapihost::Answer a = gProcess->module->Call("TALV.Core.PellixCenter", 1, "register", params);
  gProcess->service->Take();

  // What the client hands on: a keyword of its own for a status other than
  // 200, else the text up to its first NUL, trimmed by the platform.
  std::string text;
  if (status != 200) {
    text = "badsys";
  } else if (!body.empty()) {
    std::vector<char> copy(body.c_str(), body.c_str() + std::strlen(body.c_str()) + 1);
    text = TLIBCStrTrimSpace(copy.data(), 0);
  }
  const size_t start = text.find_first_not_of(':') == std::string::npos ? text.size() : text.find_first_not_of(':');
  const size_t end = text.find(':', start) == std::string::npos ? text.size() : text.find(':', start);
  const int code = KeywordCode(text.substr(start, end - start));

  FUZZ_CHECK(a.found && !a.threw && a.answers == 1);
  FUZZ_CHECK(a.data.isNull());
  const std::vector<syslogcapture::Line> lines = syslogcapture::Take();
  if (code == 3007) {
    FUZZ_CHECK(a.success);
    FUZZ_CHECK(lines.empty());
  } else {
    FUZZ_CHECK(!a.success && a.code == code);
    const std::string logged = end > start ? text.substr(0, end) : "";
    FUZZ_CHECK(lines.size() == 1);
    FUZZ_CHECK(
        pellixtest::Written(lines[0], "pellixcenter.cpp",
                            "pellix register error, http-status: " + std::to_string(status) + " response: " + logged));
  }
  FUZZ_CHECK(talvcore::LiveHashes() == 0);
  FUZZ_CHECK(talvcore::LiveLists() == 0);
  FUZZ_CHECK(talvcore::BadFrees().empty());
  return 0;
}
