// A long-running host: a million requests through the harness must not grow
// the process. Built in the release tree only (the sanitizers' own
// bookkeeping would be measured instead).
#include <unistd.h>

#include "seam/seam.h"
#include "support/module_test.h"
#include "support/process.h"

namespace pellixtest {
namespace {

using ::testing::Return;
using talvpellix::Outcome;

TEST_F(ModuleTest, MillionRequestsDoNotGrowTheProcess) {
  // Requests that neither log nor fail, across the handlers' kinds: the
  // stand-ins' journal and the log capture are bounded, so a warm-up fills
  // them before the first measure.
  ON_CALL(backend_, QueryInfo).WillByDefault(Return(Outcome{-1, 3}));
  ON_CALL(backend_, Logout).WillByDefault(Return(Outcome{0, 0}));
  ON_CALL(backend_, SetInfo).WillByDefault(Return(Outcome{0, 0}));
  ON_CALL(backend_, PurchaseList).WillByDefault(Return(Outcome{0, 0}));
  const struct {
    const char* api;
    int version;
    const char* method;
    Json::Value params;
  } requests[] = {
      {"TALV.Core.PellixCenter", 2, "query", J("{}")},
      {"TALV.Core.PellixCenter.Account", 1, "get", J("{}")},
      {"TALV.Core.PellixCenter", 2, "logout", J(R"({"force": true})")},
      {"TALV.Core.PellixCenter.Account", 1, "set", J(R"({"full_name": "Ada L", "enews": true})")},
      {"TALV.Core.PellixCenter.Purchase", 1, "list", J(R"({"date_from": "2026-01-01", "apps": [1, 2]})")},
  };
  constexpr int kTotal = 1000000;
  constexpr int kWarmUp = 50000;
  long before = 0;
  for (int i = 0; i < kTotal; ++i) {
    if (i == kWarmUp) before = StatusKiB("VmRSS:");
    const auto& r = requests[i % 5];
    webapihost::Answer a = module().Call(r.api, r.version, r.method, r.params);
    if (a.answers != 1 || !a.success) FAIL() << r.method << " failed at request " << i;
  }
  const long after = StatusKiB("VmRSS:");
  RecordProperty("rss_growth_kib", static_cast<int>(after - before));
  EXPECT_LT(after - before, 1024) << "KiB grown over " << kTotal - kWarmUp << " requests";
  EXPECT_EQ(Logged(), std::vector<syslogcapture::Line>{});
}

}  // namespace
}  // namespace pellixtest
