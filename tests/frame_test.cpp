// The module as the host sees it: its table and its lookup. Platform
// failures: fault_test.cpp.
#include <dlfcn.h>

#include <cstring>

#include "seam/seam.h"
#include "support/module_test.h"
#include "support/rows.h"

namespace pellixtest {
namespace {

class FrameTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    handle_ = dlopen(PELLIXCENTER_SO, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(handle_, nullptr) << dlerror();
  }
  void TearDown() override {
    if (handle_) dlclose(handle_);
    ModuleTest::TearDown();
  }
  void* handle_ = nullptr;
};

TEST_F(FrameTest, TableHoldsFifteenRowsInOrderAndAZeroRow) {
  const TALV::APITableEntry* table = module().Table();
  ASSERT_EQ(table, dlsym(handle_, "grgTable"));
  using GetTable = TALV::APITableEntry* (*)();
  EXPECT_EQ(reinterpret_cast<GetTable>(dlsym(handle_, "GetAPITable"))(), table) << "same address on every call";

  for (size_t i = 0; i < 15; ++i) {
    SCOPED_TRACE(kRows[i].method);
    EXPECT_STREQ(table[i].szAPI, kRows[i].api);
    EXPECT_EQ(table[i].iVersion, kRows[i].version);
    EXPECT_EQ(table[i].iReserved, 0) << "upper half of the version slot";
    EXPECT_STREQ(table[i].szMethod, kRows[i].method);
    EXPECT_EQ(reinterpret_cast<void*>(table[i].pfnHandler), dlsym(handle_, kRows[i].handler));
  }
  static const unsigned char zero[32] = {};
  EXPECT_EQ(std::memcmp(&table[15], zero, sizeof(zero)), 0);
}

TEST_F(FrameTest, LookupMatchesNameVersionAndMethodExactly) {
  struct Probe {
    const char* api;
    int version;
    const char* method;
    int row;  // -1: none
  } probes[] = {
      {"TALV.Core.PellixCenter", 1, "login", -1},  // version 1 serves only register
      {"TALV.Core.PellixCenter", 1, "register", 0},
      {"TALV.Core.PellixCenter", 2, "register", 4},
      {"TALV.Core.PellixCenter", 3, "query", -1},
      {"TALV.Core.PellixCenter.Login", 1, "login", -1},  // "login" is only the tail of "pkce_login"
      {"TALV.Core.PellixCenter.Login", 2, "pkce_login", -1},
      {"TALV.Core.PellixCenter.Account", 1, "get", 13},
      {"TALV.Core.PellixCenter.Account", 1, "GET", -1},
      {"TALV.Core.PellixCenter.Accoun", 1, "get", -1},
      {"", 0, "", -1},
  };
  for (const Probe& p : probes) {
    SCOPED_TRACE(std::string(p.api) + " " + std::to_string(p.version) + " " + p.method);
    const TALV::APITableEntry* row = module().Find(p.api, p.version, p.method);
    EXPECT_EQ(row, p.row < 0 ? nullptr : module().Table() + p.row);
  }
  webapihost::Answer a = Call("TALV.Core.PellixCenter", 1, "login");
  EXPECT_FALSE(a.found);
  EXPECT_EQ(a.code, webapihost::kErrNoSuchMethod);
  EXPECT_TRUE(talvseam::Journal().empty()) << "no handler ran";
}

}  // namespace
}  // namespace pellixtest
