// Text from a request or from the platform reaches the system log only as an
// argument, never as a format: conversions and line breaks in it are written
// as they are. (That no password is logged is checked over the whole suite
// by the fixture's scan.)
#include "support/module_test.h"

namespace pellixtest {
namespace {

constexpr char kHostile[] = "%n%s%x\n<1>forged %d";

TEST_F(ModuleTest, LoggedTextIsWrittenLiterally) {
  const std::string hostile = kHostile;
  Json::Value bound(Json::objectValue);
  bound["email"] = hostile;
  bound["auth_key"] = "k";
  ON_CALL(backend_, Login).WillByDefault(Return(Outcome{-1, 4}));
  ON_CALL(backend_, OauthLogin).WillByDefault(Return(Outcome{-1, 4}));
  ON_CALL(backend_, PkceOpen).WillByDefault(Return());
  ON_CALL(backend_, PkceLogout).WillByDefault(Throw(talvpellix::PellixException(4, hostile)));

  Json::Value login(Json::objectValue);
  login["account"] = hostile;
  login["password"] = hostile + "-password";
  Call("TALV.Core.PellixCenter", 2, "login", login);
  EXPECT_EQ(Logged(), (std::vector<Line>{LogLine("Login", "TALVPELLIXAccountLogin failed, email=%s", kHostile),
                                         LogLine("Login", "Pellix login failed, email=%s, code=%u", kHostile, 4u)}));

  Json::Value byKey(Json::objectValue);
  byKey["serial"] = hostile;
  Call("TALV.Core.PellixCenter", 2, "login_by_key", byKey);
  EXPECT_EQ(Logged(), std::vector<Line>{LogLine("LoginByKey", "Invalid parameter %s %s", kHostile, "")});

  Json::Value oauth(Json::objectValue);
  oauth["access_token"] = hostile;
  Call("TALV.Core.PellixCenter", 2, "oauth_login", oauth);
  EXPECT_EQ(Logged(),
            (std::vector<Line>{LogLine("OauthLogin", "TALVPELLIXAccountOauthLogin failed, random_token=%s", kHostile),
                               LogLine("OauthLogin", "Pellix login failed, random_token=%s, code=%u", kHostile, 4u)}));

  // What the library says of the bound account is no safer than a request.
  EXPECT_CALL(backend_, QueryInfo).WillOnce(DoAll(SetArgReferee<0>(bound), Return(Outcome{0, 0})));
  Call("TALV.Core.PellixCenter", 2, "oauth_login", J(R"({"access_token": "t"})"));
  EXPECT_EQ(Logged(), std::vector<Line>{LogLine("RefuseWhileSignedIn",
                                                "Already logged in a Pellix account: %s. Login aborted.", kHostile)});

  Call("TALV.Core.PellixCenter.Logout", 1, "pkce_logout");
  EXPECT_EQ(Logged(), std::vector<Line>{LogLine("PkceLogout", "Failed to pkce logout: %s", kHostile)});
}

}  // namespace
}  // namespace pellixtest
