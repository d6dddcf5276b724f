// The stand-ins: the core library's real containers and files, the seam's
// fault plan and journal, and the identity, relay and feasibility services.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "core/accounting.h"
#include "feasibility/checker.h"
#include "seam/seam.h"
#include "talv/feasibility.h"
#include "talv/relay.h"
#include "talv/sdk.h"
#include "talv/tlibc.h"
#include "talv/webapi.h"

namespace {

class PlatformTest : public ::testing::Test {
 protected:
  void SetUp() override { talvseam::Reset(); }
  void TearDown() override { talvseam::Reset(); }
};

TEST_F(PlatformTest, HashKeepsInsertionOrderAndReplacesValues) {
  TLIBC_SZHASH* hash = TLIBCSzHashAlloc(1024);
  ASSERT_NE(hash, nullptr);
  for (const char* kv : {"action=register", "email=a@b.cd", "passwd=x", "action=login"}) {
    std::string s(kv);
    size_t eq = s.find('=');
    ASSERT_EQ(TLIBCSzHashSetValue(&hash, s.substr(0, eq).c_str(), s.substr(eq + 1).c_str()), 0);
  }
  EXPECT_STREQ(TLIBCSzHashGetValue(hash, "action"), "login");
  EXPECT_EQ(TLIBCSzHashGetValue(hash, "missing"), nullptr);

  // Enumerating into a list too small for the keys moves the list.
  TLIBC_SZLIST* list = TLIBCSzListAlloc(2);
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(TLIBCSzListPush(&list, "first"), 0);
  ASSERT_EQ(TLIBCSzHashEnumKey(hash, &list), 3);
  EXPECT_EQ(list->nItem, 4);
  EXPECT_GE(list->nSize, 4);
  const char* expected[] = {"first", "action", "email", "passwd"};
  for (int i = 0; i < 4; ++i) EXPECT_STREQ(TLIBCSzListGet(list, i), expected[i]);
  EXPECT_EQ(TLIBCSzListGet(list, 4), nullptr);
  EXPECT_EQ(TLIBCSzListGet(list, -1), nullptr);
  TLIBCSzListFree(list);
  TLIBCSzHashFree(hash);
  TLIBCSzHashFree(nullptr);
  TLIBCSzListFree(nullptr);
}

// The development device's files (dev/sysroot), read as they are.
TEST_F(PlatformTest, KeyValueFilesAreReadUnderTheSysroot) {
  talvseam::SetSysroot(PELLIX_DEV_SYSROOT);
  struct Case {
    const char* path;
    const char* key;
    int size;
    int result;
    const char* value;
  } cases[] = {
      {"/etc.defaults/VERSION", "buildnumber", 16, 8, "20261101"},  // quoted
      {"/etc.defaults/VERSION", "majorversion", 16, 1, "5"},
      {"/etc/talvinfo.conf", "language", 32, 3, "enu"},
      {"/etc/talvinfo.conf", "missing", 32, 0, ""},
      {"/etc.defaults/talvinfo.conf", "upnpmodelname", 4, 3, "TS-"},  // cut at size-1
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    char value[64] = "untouched";
    EXPECT_EQ(TLIBCFileGetKeyValue(c.path, c.key, value, c.size, 0), c.result);
    EXPECT_STREQ(value, c.value);
  }
  char value[16];
  EXPECT_EQ(TLIBCFileGetKeyValue("/etc/nothing.conf", "language", value, 16, 0), -1);
  EXPECT_EQ(TLIBCErrGet(), TLIBC_ERR_FILE);
}

TEST_F(PlatformTest, TrimSpace) {
  struct Case {
    const char* in;
    int mode;
    const char* out;
  } cases[] = {
      {"  good \r\n", 0, "good"}, {"\tgood", 1, "good"}, {"good  ", 2, "good"}, {"  a b  ", 1, "a b  "},
      {"  a b  ", 2, "  a b"},    {" \t\n ", 0, ""},     {"", 0, ""},
  };
  for (const Case& c : cases) {
    std::string buffer(c.in);
    EXPECT_STREQ(TLIBCStrTrimSpace(&buffer[0], c.mode), c.out) << '"' << c.in << "\" mode " << c.mode;
  }
}

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

// The tokens themselves are pinned by the forms of account_register_test, the
// zone names by its time zone cases.
TEST_F(PlatformTest, DeviceSerialZoneAndHost) {
  char serial[36], zone[256];
  const char* relayd = "/usr/talv/etc/talvrelayd/talvrelayd.conf";
  EXPECT_LT(TLIBGetSerialNumber(serial, sizeof(serial)), 0) << "no serial configured";
  EXPECT_EQ(TALV::Relay::RelaydConf(relayd).GetPellixConf().GetHost(), "") << "no file";
  talvseam::SetSysroot(PELLIX_DEV_SYSROOT);
  ASSERT_EQ(TLIBGetSerialNumber(serial, sizeof(serial)), 0);
  EXPECT_STREQ(serial, "Q21CA00042");
  int needed = -1;
  ASSERT_EQ(TALVZoneGet(zone, sizeof(zone), &needed), 0);
  EXPECT_STREQ(zone, "Amsterdam");
  EXPECT_LT(TALVZoneGet(zone, 3, &needed), 0);
  EXPECT_EQ(needed, 10);
  EXPECT_EQ(TALV::Relay::RelaydConf(relayd).GetPellixConf().GetHost(), "localhost");
  talvseam::InjectFault("RelaydConf::RelaydConf", 0, false, 1);
  EXPECT_EQ(TALV::Relay::RelaydConf(relayd).GetPellixConf().GetHost(), "") << "unreadable";
}

TEST_F(PlatformTest, FeasibilityCheckAppendsReasonsAndMayReplaceTheList) {
  talvfeasibility::ScriptedChecker scripted;
  scripted.Set(FEASIBILITY_CHECK_HARD, {0, {"backup running", "sync running", "share linked"}})
      .Set(FEASIBILITY_CHECK_SOFT, {1, {"app open"}, true});
  talvfeasibility::SetChecker(&scripted);
  TLIBC_SZLIST* list = TLIBCSzListAlloc(1);
  EXPECT_EQ(TALVFeasibilityCheck(30, FEASIBILITY_CHECK_HARD, &list, nullptr), 0);
  ASSERT_EQ(list->nItem, 3);
  EXPECT_STREQ(TLIBCSzListGet(list, 2), "share linked");
  TLIBC_SZLIST* before = list;
  EXPECT_EQ(TALVFeasibilityCheck(30, FEASIBILITY_CHECK_SOFT, &list, nullptr), 1);
  EXPECT_NE(list, before) << "replaced through the address";
  ASSERT_EQ(list->nItem, 4);
  EXPECT_STREQ(TLIBCSzListGet(list, 0), "backup running");
  EXPECT_STREQ(TLIBCSzListGet(list, 3), "app open");
  EXPECT_EQ(talvcore::LiveLists(), 1) << "the old list was freed";
  talvseam::InjectFault("TALVFeasibilityCheck", 0, false, 1);
  EXPECT_LT(TALVFeasibilityCheck(30, FEASIBILITY_CHECK_SOFT, &list, nullptr), 0);
  EXPECT_EQ(list->nItem, 4) << "a failed check appends nothing";
  TLIBCSzListFree(list);
  talvfeasibility::SetChecker(nullptr);
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

TEST(HostClasses, EmailValidator) {
  for (const char* good : {"a@b.cd", "Ada.Lovelace+nas@mail.example.com", "x_y-z@sub.domain.org"})
    EXPECT_TRUE(TALV::APIValidator::IsEMail(good)) << good;
  for (const char* bad : {"", "plain", "@b.cd", "a@", "a@b", "a@@b.cd", "a b@c.de", "a@b..cd", "a@.b.cd", "a@b.cd.",
                          "a@b.c\"d", "a,b@c.de"})
    EXPECT_FALSE(TALV::APIValidator::IsEMail(bad)) << bad;
}

TEST(HostClasses, RequestParameters) {
  Json::Value params(Json::objectValue);
  params["s"] = "text";
  params["n"] = 5;
  params["nul"] = Json::Value();
  params["mail"] = "a@b.cd";
  TALV::APIRequest request(params, "ger");

  struct Case {
    const char* name;
    TALV::APIRequest::PARAM_NECESSITY necessity;
    bool validate;
    bool invalid;
    const char* value;
  } cases[] = {
      {"s", TALV::APIRequest::PARAM_REQUIRED, false, false, "text"},
      {"s", TALV::APIRequest::PARAM_REQUIRED, true, true, "text"},  // not an e-mail address; text kept
      {"mail", TALV::APIRequest::PARAM_REQUIRED, true, false, "a@b.cd"},
      {"absent", TALV::APIRequest::PARAM_REQUIRED, false, true, ""},
      {"absent", TALV::APIRequest::PARAM_OPTIONAL, false, false, ""},
      {"n", TALV::APIRequest::PARAM_REQUIRED, false, true, ""},
      {"nul", TALV::APIRequest::PARAM_OPTIONAL, false, true, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    TALV::APIParameter<std::string> p =
        request.GetAndCheckString(c.name, c.necessity, c.validate ? TALV::APIValidator::IsEMail : nullptr);
    EXPECT_EQ(p.IsInvalid(), c.invalid);
    EXPECT_EQ(p.Get(), c.value);
  }
}

}  // namespace
