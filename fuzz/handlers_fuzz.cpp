// Every handler through the host harness, with the request's parameters and
// everything the platform answers taken from the fuzzer's bytes: parameters
// of any JSON type, account-library results and error numbers, the objects
// the library fills, PKCE exceptions, verifier answers and feasibility
// verdicts; and, for version 1's registration and HttpsRequestSend itself on
// the development device, forms of any bytes and the account service's
// answer, handed over by the libcurl interposer (support/curl_faults.h)
// without a transfer. The process must survive; each request must end in
// exactly one answer or an exception the host catches, and a registration
// answered by the service in a code of the module's own keyword table; no
// form may outgrow its 2048 bytes; no hash or list may be left alive or freed
// twice; the process ids must be back as they were; and, where the platform
// keeps its contracts, every answer must be one the description of the web
// API (docs/webapi.schema.json) allows.
#include <dlfcn.h>
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "answer_check.h"
#include "core/accounting.h"
#include "feasibility/checker.h"
#include "fuzz_check.h"
#include "harness.h"
#include "https_request.h"
#include "pellix/backend.h"
#include "pellixcenter.h"
#include "seam/seam.h"
#include "support/curl_faults.h"
#include "talv/pellix.h"
#include "webapi/runner.h"

namespace {

FuzzedDataProvider* gData = nullptr;  // the current input, for the scripted platform
// Whether the platform keeps the contracts of its seams for the current input
// (members of the types they name, printable texts, nothing written on a
// failure): the module's answers are then held to the description too.
bool gKept = false;
webapihost::AnswerCheck* gCheck = nullptr;

// Names the handlers read, so that the fuzzer finds them quickly.
// clang-format off
const char* const kNames[] = {"account",  "password",     "fullname",       "serial",        "auth_key",
                              "access_token", "apikey_error", "force",      "critical_release", "enews",
                              "enews_local_promotion", "country", "full_name", "email", "current_password",
                              "new_password", "notify_language", "timezone", "critical_version_list",
                              "date_from", "date_to", "apps", "serials", "prices", "paypals",
                              "code_challenge", "grant_code", "client_id", "token_endpoint", "redirect_uri",
                              "activated", "verifier", "success", "data"};
// clang-format on

Json::Value Value(FuzzedDataProvider& d, int depth) {
  switch (d.ConsumeIntegralInRange(0, depth > 2 ? 4 : 6)) {
    case 0: return Json::Value();
    case 1: return Json::Value(d.ConsumeBool());
    case 2: return Json::Value(d.ConsumeIntegral<int32_t>());
    case 3: return Json::Value(d.ConsumeFloatingPoint<double>());
    case 4: return Json::Value(d.ConsumeRandomLengthString(64));
    case 5: {
      Json::Value array(Json::arrayValue);
      for (int n = d.ConsumeIntegralInRange(0, 3); n > 0; --n) array.append(Value(d, depth + 1));
      return array;
    }
    default: {
      Json::Value object(Json::objectValue);
      for (int n = d.ConsumeIntegralInRange(0, 4); n > 0; --n)
        object[d.ConsumeBool() ? std::string(d.PickValueInArray(kNames)) : d.ConsumeRandomLengthString(8)] =
            Value(d, depth + 1);
      return object;
    }
  }
}

// A text the platform hands over: any bytes, or printable ones where it keeps
// its contracts.
std::string Text(FuzzedDataProvider& d) {
  std::string text = d.ConsumeRandomLengthString(32);
  if (gKept)
    for (char& c : text) c = static_cast<char>(' ' + static_cast<unsigned char>(c) % 95);
  return text;
}

// What the library fills in: mostly a plausible account, sometimes anything.
// Keeping its contracts, every member any operation names, of its type.
Json::Value Filled(FuzzedDataProvider& d) {
  if (!gKept && d.ConsumeBool()) return Value(d, 0);
  Json::Value info(Json::objectValue);
  for (const char* text :
       {"email", "auth_key", "url", "critical_version_domain", "full_name", "country", "notify_language",
        "critical_version_list", "language", "authorize_endpoint", "client_id", "redirect_uri", "token_endpoint"})
    info[text] = gKept || d.ConsumeBool() ? Json::Value(Text(d)) : Value(d, 1);
  for (const char* flag :
       {"activated", "is_logged_in", "signed_out", "enews", "critical_release", "enews_local_promotion"})
    info[flag] = gKept || d.ConsumeBool() ? Json::Value(d.ConsumeBool()) : Value(d, 1);
  info["total"] = d.ConsumeIntegral<int32_t>();
  return info;
}

// Keeping its contract, a plain operation sets an error number on a failure
// and 0 on a success.
talvpellix::Outcome Result(FuzzedDataProvider& d) {
  const int result = d.ConsumeIntegralInRange(-2, 2);
  if (gKept) return {result, result < 0 ? d.ConsumeIntegralInRange<uint32_t>(1, 27) : 0};
  return {result, d.ConsumeBool() ? d.ConsumeIntegralInRange<uint32_t>(0, 27) : d.ConsumeIntegral<uint32_t>()};
}

// The PKCE service's way of failing: nothing, its exception, another
// standard one, or one of no standard type.
void MaybeThrow(FuzzedDataProvider& d) {
  switch (d.ConsumeIntegralInRange(0, 5)) {
    case 0: throw talvpellix::PellixException(d.ConsumeIntegral<int>(), d.ConsumeRandomLengthString(16));
    case 1: throw std::runtime_error(d.ConsumeRandomLengthString(16));
    case 2: throw 42;
    default: return;
  }
}

// Plain operations never throw towards the module; they fill and report.
class FuzzedBackend : public talvpellix::Backend {
 public:
  talvpellix::Outcome QueryInfo(Json::Value& info, bool, bool) override { return Fill(info); }
  talvpellix::Outcome Login(const char*, const char*, Json::Value& info, bool) override { return Fill(info); }
  talvpellix::Outcome LoginByKey(const char*, const char*, Json::Value& info) override { return Fill(info); }
  talvpellix::Outcome OauthLogin(Json::Value& info, const char*) override { return Fill(info); }
  talvpellix::Outcome HandleApiKeyError(Json::Value& answer, const char*) override { return Fill(answer); }
  talvpellix::Outcome GetIframeInfo(Json::Value& answer) override { return Fill(answer); }
  talvpellix::Outcome Logout(bool) override { return Result(*gData); }
  talvpellix::Outcome Register(const char*, const char*, const char*, bool, bool, bool, const char*) override {
    return Result(*gData);
  }
  talvpellix::Outcome SetInfo(const char*, const char*, const char*, const char*, const char*, const char*, const char*,
                              BOOL, BOOL, BOOL, const char*) override {
    return Result(*gData);
  }
  talvpellix::Outcome PurchaseList(const char*, const char*, const char*, Json::Value& apps, Json::Value&, Json::Value&,
                                   Json::Value&, Json::Value& result) override {
    apps = gKept ? Json::Value(Json::arrayValue) : Value(*gData, 1);
    return Fill(result);
  }
  void PkceOpen() override { MaybeThrow(*gData); }
  Json::Value PkceRegisterConfig() override { return Pkce(); }
  Json::Value PkceLoginConfig() override { return Pkce(); }
  Json::Value PkceLogin(const talvpellix::ParamPkceLogin&) override { return Pkce(); }
  void PkceLogout() override { MaybeThrow(*gData); }

 private:
  talvpellix::Outcome Fill(Json::Value& object) {
    const talvpellix::Outcome outcome = Result(*gData);
    if (gKept ? outcome.result >= 0 : gData->ConsumeBool()) object = Filled(*gData);
    return outcome;
  }
  Json::Value Pkce() {
    MaybeThrow(*gData);
    return Filled(*gData);
  }
};

talvwebapi::ScriptedRunner gVerifier([](const Json::Value&) {
  Json::Value result = gData->ConsumeBool() ? Value(*gData, 0) : Json::Value(Json::objectValue);
  if (gData->ConsumeBool()) result["success"] = Value(*gData, 2);
  if (gData->ConsumeBool()) result["data"]["verifier"] = Text(*gData);
  return result;
});

class FuzzedChecker : public talvfeasibility::Checker {
 public:
  talvfeasibility::Verdict Check(int, int) override {
    talvfeasibility::Verdict v;
    v.result = gData->ConsumeIntegralInRange(-2, 2);
    for (int n = gData->ConsumeIntegralInRange(0, 3); n > 0; --n) v.reasons.push_back(Text(*gData));
    v.replaceList = gData->ConsumeBool();
    v.error = gData->ConsumeIntegral<uint16_t>();
    return v;
  }
};

webapihost::Module* gModule = nullptr;
int (*gSend)(const HttpsRequest*, HttpsResponse*) = nullptr;
void (*gFree)(HttpsResponse*) = nullptr;
std::set<int> gKeywordCodes;  // of grgErrorCodeMap, the terminator's too
std::vector<std::string> gKeywords;
bool gRoot = false;
FuzzedBackend gBackend;
FuzzedChecker gChecker;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::string error;
  gModule = webapihost::Module::Load(PELLIXCENTER_SO, &error).release();
  if (!gModule) {
    std::fprintf(stderr, "cannot load %s: %s\n", PELLIXCENTER_SO, error.c_str());
    std::abort();
  }
  void* handle = dlopen(PELLIXCENTER_SO, RTLD_NOW | RTLD_NOLOAD);
  gSend = reinterpret_cast<decltype(gSend)>(dlsym(handle, "HttpsRequestSend"));
  gFree = reinterpret_cast<decltype(gFree)>(dlsym(handle, "HttpsResponseFree"));
  const auto* row = static_cast<const PellixErrorCodeEntry*>(dlsym(handle, "grgErrorCodeMap"));
  FUZZ_CHECK(gSend && gFree && row);
  for (; row->szKey; ++row) {
    gKeywords.push_back(row->szKey);
    gKeywordCodes.insert(row->iCode);
  }
  gKeywordCodes.insert(row->iCode);  // the terminator's: a keyword of no row
  gCheck = webapihost::AnswerCheck::Load(PELLIX_SCHEMA, &error).release();
  if (!gCheck) {
    std::fprintf(stderr, "cannot load %s: %s\n", PELLIX_SCHEMA, error.c_str());
    std::abort();
  }
  talvpellix::SetBackend(&gBackend);
  talvwebapi::SetRunner(&gVerifier);
  talvfeasibility::SetChecker(&gChecker);
  talvseam::SetSysroot(PELLIX_DEV_SYSROOT);
  talvseam::SetJournaling(false);
  gRoot = getuid() == 0 && geteuid() == 0;
  return 0;
}

namespace {

// HttpsRequestSend itself, with keys, values and credentials of any bytes.
void PostForm(FuzzedDataProvider& d) {
  TLIBC_SZHASH* fields = TLIBCSzHashAlloc(1024);
  FUZZ_CHECK(fields);
  for (int n = d.ConsumeIntegralInRange(0, 6); n > 0; --n) {
    const std::string key = d.ConsumeRandomLengthString(16);
    TLIBCSzHashSetValue(&fields, key.c_str(), d.ConsumeRandomLengthString(700).c_str());
  }
  const std::string username = d.ConsumeRandomLengthString(64);
  const std::string passwd = d.ConsumeRandomLengthString(64);
  const HttpsRequest request{"localhost",
                             "account.php",
                             fields,
                             d.ConsumeIntegralInRange(0, 1),
                             d.ConsumeBool() ? username.c_str() : nullptr,
                             d.ConsumeBool() ? passwd.c_str() : nullptr};
  HttpsResponse response{7, nullptr};
  const int result = gSend(&request, &response);
  FUZZ_CHECK(result == 0 || (result == -1 && response.httpStatus == 7 && !response.body));
  gFree(&response);
  TLIBCSzHashFree(fields);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  FuzzedDataProvider data(bytes, size);
  gData = &data;
  gKept = data.ConsumeBool();
  // The account service's answer to a form: often a keyword of the table
  // and whatever may follow it.
  std::string answer =
      data.ConsumeBool() ? gKeywords[data.ConsumeIntegralInRange<size_t>(0, gKeywords.size() - 1)] : "";
  answer += data.ConsumeRandomLengthString(32);
  pellixtest::ScriptTransfers(data.PickValueInArray({200L, 200L, 201L, 404L, 500L}), answer);
  const size_t which = data.ConsumeIntegralInRange(0, 15);
  if (which == 15) {
    PostForm(data);
  } else {
    const TALV::APITableEntry& row = gModule->Table()[which];
    Json::Value params(Json::objectValue);
    for (int n = data.ConsumeIntegralInRange(0, 8); n > 0; --n) params[data.PickValueInArray(kNames)] = Value(data, 1);
    const bool registerV1 = which == 0;
    if (registerV1 && data.ConsumeBool()) {  // one that gets as far as the form
      params["account"] = data.ConsumeRandomLengthString(64) + "@example.com";
      params["password"] = data.ConsumeRandomLengthString(140);
      params["fullname"] = data.ConsumeRandomLengthString(270);
    }
    // As root, each request runs with the effective ids dropped (the saved
    // ones kept), so that the privilege guard has something to raise and to
    // put back. Root again between requests: the leak checker needs it.
    if (gRoot) FUZZ_CHECK(setresgid(-1, 65534, -1) == 0 && setresuid(-1, 65534, -1) == 0);
    const uid_t uid = geteuid();
    const gid_t gid = getegid();

    webapihost::Answer a =
        gModule->Call(row.szAPI, row.iVersion, row.szMethod, params, data.ConsumeRandomLengthString(8));
    FUZZ_CHECK(geteuid() == uid && getegid() == gid);
    if (gRoot) {
      FUZZ_CHECK(setresuid(-1, 0, -1) == 0 && setresgid(-1, 0, -1) == 0);
      prctl(PR_SET_DUMPABLE, 1);
    }
    FUZZ_CHECK(a.found);
    FUZZ_CHECK(a.answers == (a.threw ? 0 : 1));
    if (registerV1 && !a.threw) FUZZ_CHECK(a.success || gKeywordCodes.count(a.code));
    if (gKept && !a.threw) {
      const std::string method = std::string(row.szAPI) + " " + std::to_string(row.iVersion) + " " + row.szMethod;
      const std::string mismatch = gCheck->Mismatch(method, a);
      if (!mismatch.empty())
        std::fprintf(stderr, "%s: %s %s\n", method.c_str(), mismatch.c_str(), webapihost::Envelope(a).c_str());
      FUZZ_CHECK(mismatch.empty());
    }
  }
  FUZZ_CHECK(pellixtest::PostedForm().size() < 2048);
  FUZZ_CHECK(talvcore::LiveHashes() == 0 && talvcore::LiveLists() == 0 && talvcore::BadFrees().empty());
  gData = nullptr;
  return 0;
}
