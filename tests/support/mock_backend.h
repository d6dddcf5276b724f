// A scriptable account-client backend over the offline one: a call a test
// does not script is BackendWrapper's, which forwards it to the offline
// backend (no account signed in, service unreachable).
#pragma once

#include <gmock/gmock.h>

#include <utility>

#include "pellix/backend.h"

namespace pellixtest {

class MockBackend : public talvpellix::BackendWrapper {
 public:
  MockBackend() : BackendWrapper(talvpellix::OfflineBackend()) {
#define PELLIX_FORWARD(name)                                            \
  ON_CALL(*this, name).WillByDefault([this](auto&&... args) {           \
    return BackendWrapper::name(std::forward<decltype(args)>(args)...); \
  })
    PELLIX_FORWARD(QueryInfo);
    PELLIX_FORWARD(Login);
    PELLIX_FORWARD(LoginByKey);
    PELLIX_FORWARD(OauthLogin);
    PELLIX_FORWARD(HandleApiKeyError);
    PELLIX_FORWARD(GetIframeInfo);
    PELLIX_FORWARD(Logout);
    PELLIX_FORWARD(Register);
    PELLIX_FORWARD(SetInfo);
    PELLIX_FORWARD(PurchaseList);
    PELLIX_FORWARD(PkceOpen);
    PELLIX_FORWARD(PkceRegisterConfig);
    PELLIX_FORWARD(PkceLoginConfig);
    PELLIX_FORWARD(PkceLogin);
    PELLIX_FORWARD(PkceLogout);
#undef PELLIX_FORWARD
  }
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
