// What the module adds to an account-library call: each handler run through
// the table the way the host runs it (a request, a response, the handler)
// against a backend with fixed answers, beside the bare library calls that
// the handler makes, with the same arguments, against the same backend.
// scripts/bench.sh prints the ratios.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include <json/reader.h>

#include "feasibility/checker.h"
#include "harness.h"
#include "pellix/backend.h"
#include "seam/seam.h"
#include "talv/feasibility.h"
#include "talv/pellix.h"
#include "talv/tlibc.h"
#include "webapi/runner.h"

namespace {

// A signed-out device for the queries; sign-ins, sign-outs and the rest succeed.
class FixedBackend : public talvpellix::Backend {
 public:
  talvpellix::Outcome QueryInfo(Json::Value&, bool, bool) override { return {-1, 3}; }
  talvpellix::Outcome Login(const char*, const char*, Json::Value& info, bool) override { return Fill(info); }
  talvpellix::Outcome LoginByKey(const char*, const char*, Json::Value& info) override { return Fill(info); }
  talvpellix::Outcome OauthLogin(Json::Value& info, const char*) override { return Fill(info); }
  talvpellix::Outcome HandleApiKeyError(Json::Value&, const char*) override { return {0, 0}; }
  talvpellix::Outcome GetIframeInfo(Json::Value& answer) override {
    answer["url"] = "https://account.pellix.example/embed";
    return {0, 0};
  }
  talvpellix::Outcome Logout(bool) override { return {0, 0}; }
  talvpellix::Outcome Register(const char*, const char*, const char*, bool, bool, bool, const char*) override {
    return {0, 0};
  }
  talvpellix::Outcome SetInfo(const char*, const char*, const char*, const char*, const char*, const char*, const char*,
                              BOOL, BOOL, BOOL, const char*) override {
    return {0, 0};
  }
  talvpellix::Outcome PurchaseList(const char*, const char*, const char*, Json::Value&, Json::Value&, Json::Value&,
                                   Json::Value&, Json::Value& result) override {
    result["total"] = 0;
    return {0, 0};
  }
  void PkceOpen() override {}
  Json::Value PkceRegisterConfig() override { return Json::Value("r"); }
  Json::Value PkceLoginConfig() override { return Json::Value("l"); }
  Json::Value PkceLogin(const talvpellix::ParamPkceLogin&) override { return Account(); }
  void PkceLogout() override {}

 private:
  static Json::Value Account() {
    Json::Value info(Json::objectValue);
    info["email"] = "ada@example.com";
    info["auth_key"] = "k-1";
    info["activated"] = true;
    return info;
  }
  static talvpellix::Outcome Fill(Json::Value& info) {
    info = Account();
    return {0, 0};
  }
};

webapihost::Module& TheModule() {
  static webapihost::Module* module = [] {
    std::string error;
    webapihost::Module* m = webapihost::Module::Load(PELLIXCENTER_SO, &error).release();
    if (!m) {
      std::fprintf(stderr, "%s\n", error.c_str());
      std::abort();
    }
    static FixedBackend backend;
    Json::Value answer;
    answer["success"] = true;
    answer["data"]["verifier"] = "v";
    static talvwebapi::ScriptedRunner verifier(answer);
    talvpellix::SetBackend(&backend);
    talvwebapi::SetRunner(&verifier);
    talvseam::SetJournaling(false);  // the module is measured, not the stand-ins' journal
    return m;
  }();
  return *module;
}

Json::Value Parse(const std::string& text) {
  Json::Value value;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) std::abort();
  return value;
}

// The handler of (api, version, method) as the host runs it.
void Handler(benchmark::State& state, const char* api, int version, const char* method, const char* params) {
  const TALV::APITableEntry* row = TheModule().Find(api, version, method);
  const Json::Value request = Parse(params);
  for (auto _ : state) {
    TALV::APIRequest req(request, "enu");
    TALV::APIResponse response;
    row->pfnHandler(&req, &response);
    benchmark::DoNotOptimize(response.GetData());
  }
}

// The account-library calls a handler makes, bare.
void Library(benchmark::State& state, void (*calls)()) {
  TheModule();
  for (auto _ : state) calls();
}

void QueryCalls() {
  Json::Value info(Json::objectValue);
  TALVPELLIXAccountQueryInfo(info, true, true);
  benchmark::DoNotOptimize(TALVPELLIXErrGet());
}

void LoginCalls() {
  Json::Value info(Json::objectValue);
  TALVPELLIXAccountQueryInfo(info, true, true);
  TALVPELLIXAccountLogin("ada@example.com", "secret-1", info, false);
  benchmark::DoNotOptimize(TALVPELLIXErrGet());
}

void LogoutCalls() {
  for (int type : {FEASIBILITY_CHECK_HARD, FEASIBILITY_CHECK_SOFT}) {
    TLIBC_SZLIST* list = TLIBCSzListAlloc(1024);
    TALVFeasibilityCheck(FEASIBILITY_ITEM_ACCOUNT_LOGOUT, type, &list, nullptr);
    TLIBCSzListFree(list);
  }
  TALVPELLIXAccountLogout(true);
  benchmark::DoNotOptimize(TALVPELLIXErrGet());
}

void AccountSetCalls() {
  TALVPELLIXAccountSetInfo("Ada L", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 1, -1, -1, nullptr);
  benchmark::DoNotOptimize(TALVPELLIXErrGet());
}

void PurchaseListCalls() {
  Json::Value apps, serials, prices, paypals, result(Json::objectValue);
  TALVPELLIXAccountPurchaseList("enu", "2026-01-01", nullptr, apps, serials, prices, paypals, result);
  benchmark::DoNotOptimize(TALVPELLIXErrGet());
}

void PkceConfigCalls() {
  talvpellix::AccountPkceService service;
  Json::Value answer(Json::objectValue);
  answer["register"] = service.GetRegisterPkceConfig();
  answer["login"] = service.GetLoginPkceConfig();
  benchmark::DoNotOptimize(answer);
}

BENCHMARK_CAPTURE(Handler, query, "TALV.Core.PellixCenter", 2, "query", "{}");
BENCHMARK_CAPTURE(Library, query, QueryCalls);
BENCHMARK_CAPTURE(Handler, login, "TALV.Core.PellixCenter", 2, "login",
                  R"({"account": "ada@example.com", "password": "secret-1"})");
BENCHMARK_CAPTURE(Library, login, LoginCalls);
BENCHMARK_CAPTURE(Handler, logout, "TALV.Core.PellixCenter", 2, "logout", "{}");
BENCHMARK_CAPTURE(Library, logout, LogoutCalls);
BENCHMARK_CAPTURE(Handler, account_set, "TALV.Core.PellixCenter.Account", 1, "set",
                  R"({"full_name": "Ada L", "enews": true})");
BENCHMARK_CAPTURE(Library, account_set, AccountSetCalls);
BENCHMARK_CAPTURE(Handler, purchase_list, "TALV.Core.PellixCenter.Purchase", 1, "list",
                  R"({"date_from": "2026-01-01"})");
BENCHMARK_CAPTURE(Library, purchase_list, PurchaseListCalls);
BENCHMARK_CAPTURE(Handler, pkce_config_get, "TALV.Core.PellixCenter.Login", 1, "pkce_config_get", "{}");
BENCHMARK_CAPTURE(Library, pkce_config_get, PkceConfigCalls);

}  // namespace

BENCHMARK_MAIN();
