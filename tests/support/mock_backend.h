// A scriptable account-client backend. Unscripted calls behave like the
// offline backend: no account signed in, service unreachable.
#pragma once

#include <gmock/gmock.h>

#include "pellix/backend.h"

namespace pellixtest {

class MockBackend : public talvpellix::Backend {
 public:
  MockBackend();
  MOCK_METHOD(talvpellix::Outcome, QueryInfo, (Json::Value&, bool, bool), (override));
  MOCK_METHOD(talvpellix::Outcome, Login, (const char*, const char*, Json::Value&, bool), (override));
  MOCK_METHOD(talvpellix::Outcome, LoginByKey, (const char*, const char*, Json::Value&), (override));
  MOCK_METHOD(talvpellix::Outcome, OauthLogin, (Json::Value&, const char*), (override));
  MOCK_METHOD(talvpellix::Outcome, HandleApiKeyError, (Json::Value&, const char*), (override));
  MOCK_METHOD(talvpellix::Outcome, GetIframeInfo, (Json::Value&), (override));
  MOCK_METHOD(talvpellix::Outcome, Logout, (bool), (override));
  MOCK_METHOD(talvpellix::Outcome, Register, (const char*, const char*, const char*, bool, bool, bool, const char*),
              (override));
  MOCK_METHOD(talvpellix::Outcome, SetInfo,
              (const char*, const char*, const char*, const char*, const char*, const char*, const char*, BOOL, BOOL,
               BOOL, const char*),
              (override));
  MOCK_METHOD(talvpellix::Outcome, PurchaseList,
              (const char*, const char*, const char*, Json::Value&, Json::Value&, Json::Value&, Json::Value&,
               Json::Value&),
              (override));
  MOCK_METHOD(void, PkceOpen, (), (override));
  MOCK_METHOD(Json::Value, PkceRegisterConfig, (), (override));
  MOCK_METHOD(Json::Value, PkceLoginConfig, (), (override));
  MOCK_METHOD(Json::Value, PkceLogin, (const talvpellix::ParamPkceLogin&), (override));
  MOCK_METHOD(void, PkceLogout, (), (override));
};

}  // namespace pellixtest
