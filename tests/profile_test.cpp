// SetAccountInfo and ListPurchase: one library call each, with every field
// the request leaves out passed as not given.
#include "seam/seam.h"
#include "support/module_test.h"

namespace pellixtest {
namespace {

// A library text argument as the test sees it: JSON null for a null pointer.
Json::Value TextArg(const char* text) { return text ? Json::Value(text) : Json::Value(); }

// What TALVPELLIXAccountSetInfo receives, as the JSON array
// [full_name, email, current_password, new_password, country,
//  notify_language, timezone, enews, critical_release, enews_local_promotion,
//  critical_version_list].
TEST_F(ModuleTest, SetAccountInfoPassesOnlyWhatTheRequestCarries) {
  struct Case {
    const char* params;
    const char* received;
  } cases[] = {
      {"{}", "[null, null, null, null, null, null, null, -1, -1, -1, null]"},
      {R"({"enews": false})", "[null, null, null, null, null, null, null, 0, -1, -1, null]"},
      {R"({"enews": true, "critical_release": false})", "[null, null, null, null, null, null, null, 1, 0, -1, null]"},
      // Empty is a value, not a field left out.
      {R"({"full_name": ""})", R"(["", null, null, null, null, null, null, -1, -1, -1, null])"},
      {R"({"current_password": "old"})", R"([null, null, "old", null, null, null, null, -1, -1, -1, null])"},
      {R"({"full_name": "Ada L", "email": "ada@example.com", "current_password": "old-pass",
           "new_password": "new-pass", "country": "NL", "notify_language": "enu", "timezone": "Amsterdam",
           "enews": true, "critical_release": true, "enews_local_promotion": false, "critical_version_list": "7.1,7.2"})",
       R"(["Ada L", "ada@example.com", "old-pass", "new-pass", "NL", "enu", "Amsterdam", 1, 1, 0, "7.1,7.2"])"},
      // A flag given as JSON null is given, and false.
      {R"({"enews_local_promotion": null})", "[null, null, null, null, null, null, null, -1, -1, 0, null]"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.params);
    Json::Value received;
    EXPECT_CALL(backend_, SetInfo)
        .WillOnce(Invoke([&](const char* a, const char* b, const char* cp, const char* np, const char* co,
                             const char* nl, const char* tz, BOOL en, BOOL cr, BOOL lp, const char* cv) {
          // Read every text while the call lasts: a dangling one shows here
          // (under AddressSanitizer) or as garbage.
          for (const char* text : {a, b, cp, np, co, nl, tz}) received.append(TextArg(text));
          for (BOOL flag : {en, cr, lp}) received.append(flag);
          received.append(TextArg(cv));
          return Outcome{0, 14};  // a result of 0 or more decides alone
        }));
    webapihost::Answer a = Call("TALV.Core.PellixCenter.Account", 1, "set", J(c.params));
    EXPECT_TRUE(a.success);
    EXPECT_TRUE(a.data.isNull());
    EXPECT_EQ(received, J(c.received)) << received;
    EXPECT_EQ(Logged(), std::vector<Line>{});
  }
}

// What TALVPELLIXAccountPurchaseList receives, as the JSON array
// [language, date_from, date_to, apps, serials, prices, paypals].
TEST_F(ModuleTest, ListPurchasePassesItsValuesThrough) {
  struct Case {
    const char* params;
    const char* language;  // the request's user-interface language
    const char* received;
  } cases[] = {
      {"{}", "enu", "[\"enu\", null, null, null, null, null, null]"},
      // An empty language is still text; an empty or null date is an open bound.
      {R"({"date_from": "", "date_to": null})", "", "[\"\", null, null, null, null, null, null]"},
      {R"({"date_to": "2026-01-31"})", "ger", R"(["ger", null, "2026-01-31", null, null, null, null])"},
      {R"({"date_from": "2026-01-01", "date_to": "2026-01-31"})", "enu",
       R"(["enu", "2026-01-01", "2026-01-31", null, null, null, null])"},
      {R"({"apps": ["PhotoStation", "Notes"], "serials": {"a": 1}, "prices": 12.5, "paypals": "x"})", "enu",
       R"(["enu", null, null, ["PhotoStation", "Notes"], {"a": 1}, 12.5, "x"])"},
      // A date that is no text goes through the library's string conversion.
      {R"({"date_from": 20260101, "date_to": true})", "enu", R"(["enu", "20260101", "true", null, null, null, null])"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.params);
    Json::Value received;
    EXPECT_CALL(backend_, PurchaseList)
        .WillOnce(Invoke([&](const char* language, const char* from, const char* to, Json::Value& apps,
                             Json::Value& serials, Json::Value& prices, Json::Value& paypals, Json::Value& result) {
          EXPECT_NE(language, nullptr);
          for (const char* text : {language, from, to}) received.append(TextArg(text));
          for (Json::Value* v : {&apps, &serials, &prices, &paypals}) received.append(*v);
          EXPECT_EQ(result, Json::Value(Json::objectValue)) << "the result starts empty";
          apps = "changed by the library";  // stays with the handler
          result["total"] = 2;
          return Outcome{0, 40};
        }));
    webapihost::Answer a = module().Call("TALV.Core.PellixCenter.Purchase", 1, "list", J(c.params), c.language);
    EXPECT_TRUE(a.success);
    EXPECT_EQ(a.data, J(R"({"total": 2})"));
    EXPECT_EQ(received, J(c.received)) << received;
    EXPECT_EQ(Logged(), std::vector<Line>{});
  }
}

// A negative result is logged with the untranslated number, also when it
// translates to success. The profile update answers null either way; the
// purchase list answers the library's result object either way.
TEST_F(ModuleTest, OneCallBridgesLogEveryNegativeResult) {
  struct Case {
    uint32_t error;
    int code;  // 0: success
  } cases[] = {{0, 0}, {3, 3000}, {4, 3002}, {14, 3004}, {16, 3005}, {30, 3000}, {40, 3000}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.error);
    EXPECT_CALL(backend_, SetInfo).WillOnce(::testing::Return(Outcome{-1, c.error}));
    EXPECT_CALL(backend_, PurchaseList(_, _, _, _, _, _, _, _))
        .WillOnce(Invoke([&](const char*, const char*, const char*, Json::Value&, Json::Value&, Json::Value&,
                             Json::Value&, Json::Value& result) {
          result["partial"] = true;
          return Outcome{-1, c.error};
        }));
    const struct {
      webapihost::Answer answer;
      const char* data;
      Line logged;
    } runs[] = {
        {Call("TALV.Core.PellixCenter.Account", 1, "set", J(R"({"email": "a@b.cd"})")), "null",
         LogLine("SetAccountInfo", "Pellix update failed, code=%u", c.error)},
        {Call("TALV.Core.PellixCenter.Purchase", 1, "list"), R"({"partial": true})",
         LogLine("ListPurchase", "Pellix query purchase history failed, code=%u", c.error)},
    };
    std::vector<Line> logged = Logged();
    ASSERT_EQ(logged.size(), 2u);
    for (size_t i = 0; i < 2; ++i) {
      ExpectAnswer(runs[i].answer, std::to_string(c.code) + " " + runs[i].data);
      EXPECT_EQ(logged[i], runs[i].logged);
    }
  }
}

// A parameter of a JSON type the library's conversion refuses throws out of
// the handler: the host catches it, answers with its own error, and the
// account library is never called.
TEST_F(ModuleTest, ParameterOfTheWrongTypeIsTheHostsError) {
  struct Case {
    const char* api;
    int version;
    const char* method;
    const char* params;
  } cases[] = {
      {"TALV.Core.PellixCenter.Account", 1, "set", R"({"email": 5})"},
      {"TALV.Core.PellixCenter.Account", 1, "set", R"({"enews": "yes"})"},
      {"TALV.Core.PellixCenter.Account", 1, "set", R"({"critical_version_list": ["7.1", "7.2"]})"},
      {"TALV.Core.PellixCenter.Account", 1, "set", R"({"timezone": null})"},
      {"TALV.Core.PellixCenter.Purchase", 1, "list", R"({"date_from": {"year": 2026}})"},
      {"TALV.Core.PellixCenter", 2, "login", R"({"account": {"a": 1}, "password": "p"})"},
      {"TALV.Core.PellixCenter", 2, "logout", R"({"force": "yes"})"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.params);
    talvseam::ClearJournal();
    webapihost::Answer a = Call(c.api, c.version, c.method, J(c.params));
    EXPECT_TRUE(a.threw);
    EXPECT_EQ(a.answers, 0);
    EXPECT_EQ(a.code, webapihost::kErrUnknown);
    EXPECT_EQ(webapihost::Envelope(a).rfind(R"({"success":false,"error":{"code":100,"details":{"exception":)", 0), 0u);
    for (const talvseam::Call& call : talvseam::Journal()) EXPECT_NE(call.service, "pellix") << call.op;
  }
  EXPECT_EQ(Logged(), std::vector<Line>{});
}

}  // namespace
}  // namespace pellixtest
