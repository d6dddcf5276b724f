// Ten thousand HTTPS posts to a local service: each opens a handle and a
// connection of its own, and a long-running host must get every descriptor
// back. Built in the release tree only, like soak_test.
#include "seam/seam.h"
#include "support/local_service.h"
#include "support/process.h"
#include "support/tls_server.h"

namespace pellixtest {
namespace {

TEST_F(TrustedServiceTest, TenThousandPostsLeaveNoDescriptorBehind) {
  // The stand-ins' journal would grow to its bound and be measured instead
  // (the fixture's tear-down turns it back on).
  talvseam::SetJournaling(false);
  TlsServer service(TestIdentities().trusted);
  const std::string host = service.Address();
  FieldHash fields(Fields{{"action", "register"}});
  const HttpsRequest request{host.c_str(), "account.php", fields.get(), 0, nullptr, nullptr};
  auto post = [&] {
    HttpsResponse response{0, nullptr};
    const bool good = HttpsRequestSend(&request, &response) == 0 && response.httpStatus == 200 && response.body &&
                      std::strcmp(response.body, "good") == 0;
    HttpsResponseFree(&response);
    return good;
  };
  constexpr int kWarmUp = 100;
  constexpr int kPosts = 10000;
  for (int i = 0; i < kWarmUp; ++i) ASSERT_TRUE(post()) << "warm-up post " << i;
  service.Take();  // the server has closed its side of each
  const int before = OpenDescriptors();
  const long residentBefore = StatusKiB("VmRSS:");
  for (int i = 0; i < kPosts; ++i) {
    if (!post()) FAIL() << "post " << i << " failed";
    if (i % 1000 == 999) service.Take();
  }
  service.Take();
  const int after = OpenDescriptors();
  RecordProperty("descriptors_before", before);
  RecordProperty("descriptors_after", after);
  RecordProperty("rss_growth_kib", static_cast<int>(StatusKiB("VmRSS:") - residentBefore));
  EXPECT_EQ(after, before) << "descriptors open after " << kPosts << " posts";
  EXPECT_EQ(Logged(), std::vector<syslogcapture::Line>{});
}

}  // namespace
}  // namespace pellixtest
