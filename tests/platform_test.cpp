// What the tests themselves stand on: the core library's error state per
// thread, the seam's fault plan and the registry that proves a caller's
// frees. (What the module reads of the stand-ins, its own tests decide.)
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "core/accounting.h"
#include "seam/seam.h"
#include "talv/tlibc.h"

namespace {

class PlatformTest : public ::testing::Test {
 protected:
  void SetUp() override { talvseam::Reset(); }
  void TearDown() override { talvseam::Reset(); }
};

TEST_F(PlatformTest, ErrorStateBelongsToTheThread) {
  TLIBCErrSetEx(0x0D00, "here.cpp", 12);
  std::thread([] {
    EXPECT_EQ(TLIBCErrGet(), 0);
    TLIBCErrSetEx(0x8100, "there.cpp", 34);
  }).join();
  EXPECT_EQ(TLIBCErrGet(), 0x0D00);
  EXPECT_STREQ(TLIBCErrorGetFile(), "here.cpp");
  EXPECT_EQ(TLIBCErrorGetLine(), 12);
}

// The fault plan's three knobs: which operation, after how many calls, once
// or from then on.
TEST_F(PlatformTest, FaultPlan) {
  struct Case {
    const char* op;
    int after;
    bool persistent;
    const char* pattern;  // five TLIBCSzListAlloc calls: o ok, x failed
  } cases[] = {
      {"TLIBCSzListAlloc", 0, false, "xoooo"},
      {"TLIBCSzListAlloc", 2, false, "ooxoo"},
      {"TLIBCSzListAlloc", 2, true, "ooxxx"},
      {"TLIBCSzHashAlloc", 0, true, "ooooo"},
      {"*", 3, false, "oooxo"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.op) + " after " + std::to_string(c.after));
    talvseam::ClearFaults();
    talvseam::InjectFault(c.op, c.after, c.persistent, 1);
    std::string pattern;
    for (int i = 0; i < 5; ++i) {
      TLIBC_SZLIST* list = TLIBCSzListAlloc(4);
      pattern += list ? 'o' : 'x';
      if (!list) {
        EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_OUT_OF_MEMORY);
      }
      TLIBCSzListFree(list);
    }
    EXPECT_EQ(pattern, c.pattern);
  }
  EXPECT_EQ(talvseam::CallCount(), 5);
}

// The registry proves a caller's frees: every live object is counted, and a
// free of a pointer the library does not hold is refused and reported.
TEST_F(PlatformTest, CoreAccountsForWhatItHandsOut) {
  talvcore::ClearBadFrees();
  TLIBC_SZHASH* hash = TLIBCSzHashAlloc(1024);
  TLIBC_SZLIST* list = TLIBCSzListAlloc(1);
  EXPECT_EQ(talvcore::LiveHashes(), 1);
  EXPECT_EQ(talvcore::LiveLists(), 1);
  TLIBC_SZLIST* old = list;
  for (const char* text : {"a", "b", "c", "d", "e"}) ASSERT_EQ(TLIBCSzListPush(&list, text), 0);
  ASSERT_NE(list, old) << "a list that grows moves";
  EXPECT_EQ(talvcore::LiveLists(), 1);
  TLIBCSzListFree(old);
  TLIBCSzListFree(list);
  TLIBCSzListFree(list);
  TLIBCSzHashFree(hash);
  TLIBCSzHashFree(hash);
  int local = 0;
  TLIBCSzHashFree(reinterpret_cast<TLIBC_SZHASH*>(&local));
  EXPECT_EQ(talvcore::LiveHashes(), 0);
  EXPECT_EQ(talvcore::LiveLists(), 0);
  std::vector<std::string> bad = talvcore::BadFrees();
  ASSERT_EQ(bad.size(), 4u);
  EXPECT_EQ(bad[0].rfind("TLIBCSzListFree 0x", 0), 0u) << bad[0];
  EXPECT_EQ(bad[3].rfind("TLIBCSzHashFree 0x", 0), 0u) << bad[3];
  EXPECT_EQ(talvseam::JournalOf("TLIBCSzListFree").size(), 3u) << "frees are journaled";
  EXPECT_EQ(talvseam::CallCount(), 2) << "but cannot fail, so they are not counted";
  talvcore::ClearBadFrees();
}

}  // namespace
