// The simulated account service's rules, on a database of its own.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <json/reader.h>
#include <json/writer.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <future>
#include <thread>

#include "account_php.h"
#include "service.h"
#include "snapshot.h"
#include "talv/cloud.h"

namespace pellixsim {
namespace {

const char kSerial[] = "Q21CA00042";

class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/pellix-sim-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    dir_ = dir;
    std::string error;
    store_ = Store::Open(dir_ + "/account.db", &error);
    ASSERT_NE(store_, nullptr) << error;
    Options options;
    options.passwordIterations = 1000;  // the rules, not the cost, are under test here
    options.baseUrl = "http://127.0.0.1:1";
    options.now = [this] { return now_; };
    service_.reset(new Service(store_.get(), options));
  }
  void TearDown() override {
    service_.reset();
    store_.reset();
    std::system(("rm -rf '" + dir_ + "'").c_str());
  }

  NewAccount Account(const std::string& email, const std::string& password = "secret1",
                     const std::string& fullName = "Ada Lovelace") {
    NewAccount a;
    a.email = email;
    a.password = password;
    a.fullName = fullName;
    return a;
  }
  std::string Grant(const std::string& verifier, const std::string& email = "ada@example.com") {
    std::string code;
    EXPECT_EQ(service_->IssueGrant(email, "secret1", kClientId, "app:/done", S256Challenge(verifier), "S256", &code),
              kOk);
    return code;
  }

  std::string dir_;
  int64_t now_ = 1767225600;  // 2026-01-01
  std::unique_ptr<Store> store_;
  std::unique_ptr<Service> service_;
};

TEST(Password, HashIsSaltedAndVerifiesOnlyTheSamePassword) {
  PasswordHash a = HashPassword("correct horse", 2000);
  PasswordHash b = HashPassword("correct horse", 2000);
  EXPECT_NE(a.salt, b.salt);
  EXPECT_NE(a.hash, b.hash);
  EXPECT_TRUE(VerifyPassword("correct horse", a));
  EXPECT_TRUE(VerifyPassword("correct horse", b));
  EXPECT_FALSE(VerifyPassword("correct hors", a));
  EXPECT_FALSE(VerifyPassword("", a));
  // The iteration count is part of the hash: a record with another count fails.
  PasswordHash other = a;
  other.iterations = 2001;
  EXPECT_FALSE(VerifyPassword("correct horse", other));
  other.iterations = 0;
  EXPECT_FALSE(VerifyPassword("correct horse", other));
  // PBKDF2-HMAC-SHA256 of "password" over "salt", one round: the published vector.
  EXPECT_TRUE(
      VerifyPassword("password", {"salt", "120fb6cffcf8b32c43e7225256c4f837a86548c92ccc35480805987cb70be17b", 1}));
}

TEST(Pkce, S256OfTheRfc7636Example) {
  EXPECT_EQ(S256Challenge("dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"),
            "E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM");
}

TEST_F(ServiceTest, RegistrationRules) {
  ASSERT_EQ(service_->Register(kSerial, Account("Ada@Example.com")), kOk);
  struct Case {
    const char* what;
    NewAccount account;
    uint32_t error;
  } cases[] = {
      {"same address", Account("Ada@Example.com"), kInUse},
      {"same address, other case", Account("ada@EXAMPLE.COM"), kInUse},
      {"no domain", Account("ada@"), kBadParam},
      {"blank in address", Account("ada lovelace@example.com"), kBadParam},
      {"short password", Account("bob@example.com", "12345"), kBadParam},
      {"long password", Account("bob@example.com", std::string(129, 'p')), kBadParam},
      {"one-letter name", Account("bob@example.com", "123456", "B"), kBadParam},
      {"another address", Account("bob@example.com", "123456"), kOk},
  };
  for (const Case& c : cases) EXPECT_EQ(service_->Register(kSerial, c.account), c.error) << c.what;
  // Registering does not sign the device in.
  Json::Value info;
  EXPECT_EQ(service_->Query(kSerial, &info), kNotSignedIn);
}

Json::Value Parsed(const std::string& text) {
  Json::Value v;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &v, nullptr)) << text;
  return v;
}

// A state written by hand comes back as the service keeps it: the password
// hashed, what was left out filled in, the binding and the limit in force.
TEST_F(ServiceTest, StateRoundTripsThroughExportAndImport) {
  const Json::Value service = Parsed(R"({"limits":{"accounts_per_device":1},"accounts":[
      {"email":"Ada@example.com","password":"secret1","full_name":"Ada","purchases":[{"app":"x","date":"2026-01-02"}]},
      {"email":"bob@example.com","full_name":"Bob","keys":[{"auth_key":"k1","serial":"OTHER"}],
       "password_hash":{"salt":"s","hash":"0000000000000000000000000000000000000000000000000000000000000000",
                        "iterations":1}}]})");
  const Json::Value bound = Parsed(R"({"email":"ada@EXAMPLE.com"})");
  ASSERT_EQ(CheckService(service, bound), "");
  ASSERT_EQ(ImportService(*store_, service_->options(), service, bound, kSerial, "g1"), kOk);
  Json::Value info, exported, signedIn;
  std::string generation, error;
  EXPECT_TRUE(Store::ReadGeneration(dir_ + "/account.db", &generation, &error) && generation == "g1") << error;
  ASSERT_EQ(service_->Query(kSerial, &info), kOk);
  EXPECT_EQ(info["email"], "Ada@example.com");
  EXPECT_EQ(service_->Register(kSerial, Account("carol@example.com")), kSerialLimit);
  ASSERT_EQ(ExportService(*store_, service_->options(), kSerial, &exported, &signedIn), kOk);
  EXPECT_EQ(signedIn["auth_key"], info["auth_key"]);
  const Json::Value& ada = exported["accounts"][0];
  EXPECT_FALSE(ada.isMember("password"));
  EXPECT_TRUE(VerifyPassword(
      "secret1", PasswordHash{ada["password_hash"]["salt"].asString(), ada["password_hash"]["hash"].asString(), 1000}));
  EXPECT_EQ(ada["purchases"][0]["serial"], kSerial);
  EXPECT_EQ(exported["accounts"][1]["keys"][0]["serial"], "OTHER");
  // Exported, imported and exported again: the same document.
  ASSERT_EQ(ImportService(*store_, service_->options(), exported, signedIn, kSerial, "g2"), kOk);
  Json::Value again, boundAgain;
  ASSERT_EQ(ExportService(*store_, service_->options(), kSerial, &again, &boundAgain), kOk);
  EXPECT_EQ(again, exported);
  EXPECT_EQ(boundAgain, signedIn);
}

TEST(StateDocument, RefusalNamesTheMemberAtFault) {
  const char* kPw = R"("password":"secret1")";
  struct Case {
    std::string service, account, at;
  } cases[] = {
      {R"({"accounts":{}})", "null", "/service/accounts: must be an array"},
      {R"({"accounts":[{"email":"a@b.c","full_name":"A",)" + std::string(kPw) + "},{}]}", "null",
       "/service/accounts/1/email: is missing"},
      {R"({"accounts":[{"email":"a@b.c","full_name":"A"}]})", "null", "/service/accounts/0: give either"},
      {R"({"accounts":[{"email":"a@b.c","full_name":"A",)" + std::string(kPw) + "},{\"email\":\"A@B.c\"," + kPw +
           ",\"full_name\":\"B\"}]}",
       "null", "/service/accounts/1/email: \"A@B.c\" is already the address of /service/accounts/0"},
      {R"({"accounts":[{"email":"a@b.c","full_name":"A",)" + std::string(kPw) +
           R"(,"purchases":[{"app":"x","date":"May"}]}]})",
       "null", "/service/accounts/0/purchases/0/date: must be a day"},
      {R"({"limits":{"accounts_per_device":-1}})", "null", "/service/limits/accounts_per_device: must be"},
      {R"({"acounts":[]})", "null", "/service/acounts: is not a member"},
      {"{}", R"({"email":"nobody@b.c"})", "/device/account/email: \"nobody@b.c\" is the address of no account"},
  };
  for (const Case& c : cases) {
    const std::string problem = CheckService(Parsed(c.service), Parsed(c.account));
    EXPECT_EQ(problem.rfind(c.at, 0), 0u) << c.service << "\n" << problem;
  }
}

TEST_F(ServiceTest, SignInBindsTheDeviceWithANewKey) {
  Json::Value info;
  ASSERT_EQ(service_->RegisterAndSignIn(kSerial, Account("ada@example.com"), &info), kOk);
  EXPECT_EQ(info["email"], "ada@example.com");
  const std::string firstKey = info["auth_key"].asString();
  EXPECT_EQ(firstKey.size(), 32u);

  Json::Value again;
  ASSERT_EQ(service_->SignIn(kSerial, "ADA@example.com", "secret1", &again), kOk);
  EXPECT_NE(again["auth_key"].asString(), firstKey);
  Json::Value queried;
  ASSERT_EQ(service_->Query(kSerial, &queried), kOk);
  EXPECT_EQ(queried["auth_key"], again["auth_key"]);
  // Another device is not signed in by this.
  Json::Value none;
  EXPECT_EQ(service_->Query("OTHER", &none), kNotSignedIn);
}

TEST_F(ServiceTest, SignInRefusals) {
  Json::Value info;
  ASSERT_EQ(service_->RegisterAndSignIn(kSerial, Account("ada@example.com"), &info), kOk);
  const std::string key = info["auth_key"].asString();
  ASSERT_EQ(service_->SignOut(kSerial), kOk);

  EXPECT_EQ(service_->SignIn(kSerial, "ada@example.com", "secret2", &info), kBadAuth);
  EXPECT_EQ(service_->SignIn(kSerial, "nobody@example.com", "secret1", &info), kBadAuth);
  EXPECT_EQ(service_->SignInByKey(kSerial, kSerial, "0123", &info), kBadAuth);
  // A key is good only with the serial it was issued to.
  EXPECT_EQ(service_->SignInByKey(kSerial, "OTHER", key, &info), kBadAuth);
  EXPECT_EQ(service_->SignInByToken(kSerial, "no-such-token", &info), kBadAuth);
  Json::Value none;
  EXPECT_EQ(service_->Query(kSerial, &none), kNotSignedIn);

  // The key of an earlier sign-in signs in again after a sign-out.
  Json::Value byKey;
  EXPECT_EQ(service_->SignInByKey(kSerial, kSerial, key, &byKey), kOk);
  EXPECT_EQ(byKey["email"], "ada@example.com");
  EXPECT_EQ(byKey["auth_key"], key) << "the binding keeps the key it was made with";
}

TEST_F(ServiceTest, AccessTokensExpire) {
  ASSERT_EQ(service_->Register(kSerial, Account("ada@example.com")), kOk);
  std::string token;
  EXPECT_EQ(service_->IssueAccessToken("ada@example.com", "wrong!", &token), kBadAuth);
  ASSERT_EQ(service_->IssueAccessToken("ada@example.com", "secret1", &token), kOk);
  Json::Value info;
  EXPECT_EQ(service_->SignInByToken(kSerial, token, &info), kOk);
  EXPECT_EQ(info["email"], "ada@example.com");
  // A token may sign in again while it lasts, not after.
  now_ += 3599;
  EXPECT_EQ(service_->SignInByToken(kSerial, token, &info), kOk);
  now_ += 1;
  EXPECT_EQ(service_->SignInByToken(kSerial, token, &info), kBadAuth);
}

TEST_F(ServiceTest, GrantIsSingleUseAndChecked) {
  ASSERT_EQ(service_->Register(kSerial, Account("ada@example.com")), kOk);
  const std::string verifier = "dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk";
  Json::Value info;

  const std::string code = Grant(verifier);
  ASSERT_EQ(code.size(), 32u);
  EXPECT_EQ(service_->SignInByGrant(kSerial, kClientId, code, verifier, "app:/done", &info), kOk);
  EXPECT_EQ(info["email"], "ada@example.com");
  EXPECT_EQ(service_->SignInByGrant(kSerial, kClientId, code, verifier, "app:/done", &info), kBadAuth)
      << "a code signs in once";

  // Each mismatch refuses the exchange and spends the code.
  struct Case {
    const char* what;
    std::string client, verifier, redirect;
  } cases[] = {
      {"wrong verifier", kClientId, verifier + "x", "app:/done"},
      {"other client", "someone-else", verifier, "app:/done"},
      {"other redirect", kClientId, verifier, "app:/elsewhere"},
      {"challenge given as verifier", kClientId, S256Challenge(verifier), "app:/done"},
  };
  for (const Case& c : cases) {
    const std::string spent = Grant(verifier);
    EXPECT_EQ(service_->SignInByGrant(kSerial, c.client, spent, c.verifier, c.redirect, &info), kBadAuth) << c.what;
    EXPECT_EQ(service_->SignInByGrant(kSerial, kClientId, spent, verifier, "app:/done", &info), kBadAuth) << c.what;
  }
  EXPECT_EQ(service_->SignInByGrant(kSerial, kClientId, "no-such-code", verifier, "app:/done", &info), kBadAuth);

  // A code lasts five minutes.
  const std::string late = Grant(verifier);
  now_ += 300;
  EXPECT_EQ(service_->SignInByGrant(kSerial, kClientId, late, verifier, "app:/done", &info), kBadAuth);
  now_ -= 1;
  const std::string inTime = Grant(verifier);
  now_ += 299;
  EXPECT_EQ(service_->SignInByGrant(kSerial, kClientId, inTime, verifier, "app:/done", &info), kOk);
}

TEST_F(ServiceTest, GrantRequest) {
  ASSERT_EQ(service_->Register(kSerial, Account("ada@example.com")), kOk);
  const std::string challenge = S256Challenge("v");
  std::string code;
  EXPECT_EQ(service_->IssueGrant("ada@example.com", "secret1", kClientId, "r", challenge, "plain", &code), kBadParam);
  EXPECT_EQ(service_->IssueGrant("ada@example.com", "secret1", kClientId, "r", "short", "S256", &code), kBadParam);
  EXPECT_EQ(service_->IssueGrant("ada@example.com", "secret1", "", "r", challenge, "S256", &code), kBadParam);
  EXPECT_EQ(service_->IssueGrant("ada@example.com", "nope!!", kClientId, "r", challenge, "S256", &code), kBadAuth);
  EXPECT_EQ(service_->IssueGrant("ada@example.com", "secret1", kClientId, "r", challenge, "S256", &code), kOk);
}

// The address and the password change together; the old ones no longer sign
// in. (The other refusals and field changes are served end to end in
// serve_test's AccountLifeCycle.)
TEST_F(ServiceTest, AddressAndPasswordChange) {
  Json::Value info;
  ASSERT_EQ(service_->RegisterAndSignIn(kSerial, Account("ada@example.com"), &info), kOk);
  ProfileChange malformed;
  malformed.email = "ada";
  EXPECT_EQ(service_->Update(kSerial, malformed), kBadParam);
  ProfileChange change;
  change.currentPassword = "secret1";
  change.newPassword = "another1";
  change.email = "ada.king@example.com";
  ASSERT_EQ(service_->Update(kSerial, change), kOk);
  EXPECT_EQ(service_->SignIn(kSerial, "ada@example.com", "another1", &info), kBadAuth);
  EXPECT_EQ(service_->SignIn(kSerial, "ada.king@example.com", "secret1", &info), kBadAuth);
  EXPECT_EQ(service_->SignIn(kSerial, "ada.king@example.com", "another1", &info), kOk);
}

TEST_F(ServiceTest, PurchaseHistoryFilters) {
  Json::Value info;
  ASSERT_EQ(service_->RegisterAndSignIn(kSerial, Account("ada@example.com"), &info), kOk);
  auto count = [&](const char* from, const char* to, Json::Value apps, uint32_t expected) {
    PurchaseQuery q;
    q.language = "ger";
    q.dateFrom = from;
    q.dateTo = to;
    q.apps = apps;
    Json::Value result(Json::objectValue);
    EXPECT_EQ(service_->Purchases(kSerial, q, &result), expected);
    return result["total"].asInt();
  };
  Json::Value trial(Json::arrayValue), other(Json::arrayValue);
  trial.append("cloud_backup_trial");
  other.append("something_else");
  EXPECT_EQ(count(nullptr, nullptr, Json::Value(), kOk), 1);
  EXPECT_EQ(count("2026-01-01", "2026-01-01", trial, kOk), 1);
  EXPECT_EQ(count("2026-01-02", nullptr, Json::Value(), kOk), 0);
  EXPECT_EQ(count(nullptr, "2025-12-31", Json::Value(), kOk), 0);
  EXPECT_EQ(count(nullptr, nullptr, other, kOk), 0);
  count("yesterday", nullptr, Json::Value(), kBadParam);
  count(nullptr, nullptr, Json::Value("cloud_backup_trial"), kBadParam);
}

TEST_F(ServiceTest, ApiKeyErrors) {
  Json::Value info;
  ASSERT_EQ(service_->RegisterAndSignIn(kSerial, Account("ada@example.com"), &info), kOk);
  Json::Value answer;
  EXPECT_EQ(service_->ApiKeyError(kSerial, "whatever", &answer), kBadParam);
  ASSERT_EQ(service_->ApiKeyError(kSerial, "expired", &answer), kOk);
  EXPECT_NE(answer["auth_key"], info["auth_key"]);
  ASSERT_EQ(service_->Query(kSerial, &info), kOk);
  EXPECT_EQ(answer["auth_key"], info["auth_key"]);
  ASSERT_EQ(service_->ApiKeyError(kSerial, "revoked", &answer), kOk);
  EXPECT_EQ(service_->Query(kSerial, &info), kNotSignedIn);
  EXPECT_EQ(service_->ApiKeyError(kSerial, "expired", &answer), kNotSignedIn);
}

TEST_F(ServiceTest, AccountFormKeywords) {
  char token[33];
  ASSERT_EQ(TALVCloudServiceQbtokenGenerateToken(kSerial, token, sizeof(token)), 0);
  using Form = std::multimap<std::string, std::string>;
  auto form = [&](const std::string& email, const std::string& password = "secret1") {
    return Form{{"serial", kSerial},  {"token", token},       {"action", "register"}, {"email", email},
                {"passwd", password}, {"full_name", "Ada L"}, {"notify_lang", "ger"}, {"timezone", "Europe/Berlin"},
                {"serial", kSerial}};
  };
  Form wrongToken = form("eve@example.com");
  wrongToken.find("token")->second = "0123";
  Form noAction = form("eve@example.com");
  noAction.erase("action");
  struct Case {
    const char* what;
    Form form;
    const char* keyword;
  } cases[] = {
      {"new account", form("ada@example.com"), "good"},
      {"same address", form("ADA@example.com"), "account_inused"},
      {"token of another device", wrongToken, "badauth"},
      {"no action", noAction, "badparam"},
      {"short password", form("bob@example.com", "12345"), "badparam"},
  };
  for (const Case& c : cases) EXPECT_EQ(AnswerAccountForm(service_.get(), c.form), c.keyword) << c.what;
  for (const char* more : {"u2@example.com", "u3@example.com", "u4@example.com", "u5@example.com"})
    EXPECT_EQ(AnswerAccountForm(service_.get(), form(more)), "good") << more;
  EXPECT_EQ(AnswerAccountForm(service_.get(), form("u6@example.com")), "serial_exceed_max_account_register");
  EXPECT_EQ(service_->Register("OTHER", Account("u6@example.com")), kOk) << "the limit is the device's";
  // What the form carried is the account's.
  Json::Value info;
  ASSERT_EQ(service_->SignIn(kSerial, "ada@example.com", "secret1", &info), kOk);
  EXPECT_EQ(info["notify_language"], "ger");
  EXPECT_EQ(info["full_name"], "Ada L");
}

// account.php serves connections side by side, each as its conductor says;
// closed, it refuses them, and listens again on the same port; stopped, it
// cuts the connections that stall or wait.
TEST_F(ServiceTest, AccountPhpTreatsEachConnectionAsItsConductorSays) {
  using Clock = std::chrono::steady_clock;
  std::string error;
  ASSERT_TRUE(MakeCertificates(dir_, &error)) << error;
  std::mutex mu;
  Conduct conduct{Conduct::kStall};
  std::atomic<int> asked{0};
  auto treat = [&](Conduct c, int after) {
    for (const auto end = Clock::now() + std::chrono::seconds(5); asked < after && Clock::now() < end;)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::lock_guard<std::mutex> lock(mu);
    conduct = std::move(c);
  };
  AccountPhp php(service_.get());
  php.SetConductor([&] {
    std::lock_guard<std::mutex> lock(mu);
    ++asked;
    return conduct;
  });
  const int port = php.Start(dir_, &error);
  ASSERT_GT(port, 0) << error;
  const int stalled = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(port));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(connect(stalled, reinterpret_cast<sockaddr*>(&to), sizeof(to)), 0);
  treat({Conduct::kAnswer, 200, "", 300}, 1);
  // By name: the client library's check of an address reads memory it never wrote.
  httplib::SSLClient client("localhost", port);
  client.set_address_family(AF_INET);
  client.set_ca_cert_path((dir_ + "/ca.pem").c_str());
  client.enable_server_certificate_verification(true);
  auto post = [&] { return client.Post("/account.php", "action=register", "application/x-www-form-urlencoded"); };
  const auto start = Clock::now();
  httplib::Result answered = post();
  ASSERT_TRUE(answered) << httplib::to_string(answered.error());
  EXPECT_EQ(answered->body, "badparam\n");
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(300));

  ASSERT_TRUE(php.SetReachable(false, &error)) << error;
  EXPECT_EQ(post().error(), httplib::Error::Connection);
  ASSERT_TRUE(php.SetReachable(true, &error)) << error;
  EXPECT_EQ(php.port(), port);
  EXPECT_TRUE(post());

  treat({Conduct::kAnswer, 200, "", 60000}, 3);
  signal(SIGPIPE, SIG_IGN);  // the client's close on a cut connection
  std::thread waiting([&] { post(); });
  treat({}, 4);
  const auto stop = Clock::now();
  php.Stop();
  EXPECT_LT(Clock::now() - stop, std::chrono::seconds(2));
  waiting.join();
  close(stalled);
}

// A read runs while a write transaction is under way, and sees only what
// was committed: not the writer's change, then, once committed, only that.
TEST_F(ServiceTest, ReadsBesideTheWriterSeeOnlyCommittedState) {
  Json::Value info;
  ASSERT_EQ(service_->RegisterAndSignIn(kSerial, Account("ada@example.com"), &info), kOk);
  auto keyRead = [this] {
    Json::Value read;
    return service_->Query(kSerial, &read) == kOk ? read["auth_key"].asString() : "(not signed in)";
  };
  for (const uint32_t outcome : {1u, 0u}) {  // rolled back, committed
    std::future<std::string> read;
    bool beside = false;
    EXPECT_EQ(store_->Transaction(kSystem,
                                  [&](Connection& db) {
                                    Statement(db, "UPDATE bindings SET auth_key = 'new'").Run();
                                    read = std::async(std::launch::async, keyRead);
                                    beside = read.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
                                    return outcome;
                                  }),
              outcome);
    EXPECT_TRUE(beside) << "the read waited for the writer";
    EXPECT_EQ(read.get(), info["auth_key"].asString()) << outcome;
    EXPECT_EQ(keyRead(), outcome ? info["auth_key"].asString() : "new");
  }
}

// Kept statements, the readers' and the writer's, outlive a schema change by
// another program, and the database passes the store's checks when opened
// again.
TEST_F(ServiceTest, KeptStatementsOutliveASchemaChangeAndAReopen) {
  Json::Value info;
  ASSERT_EQ(service_->RegisterAndSignIn(kSerial, Account("ada@example.com"), &info), kOk);
  ASSERT_EQ(service_->Query(kSerial, &info), kOk);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open((dir_ + "/account.db").c_str(), &other), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(other, "CREATE INDEX by_name ON accounts(full_name)", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(other);
  ASSERT_EQ(service_->RegisterAndSignIn(kSerial, Account("bob@example.com"), &info), kOk);
  for (const bool reopen : {false, true}) {
    std::string error;
    if (reopen) {
      service_.reset();
      store_ = Store::Open(dir_ + "/account.db", &error);
      ASSERT_NE(store_, nullptr) << error;
      service_.reset(new Service(store_.get(), Options()));
    }
    Json::Value queried;
    ASSERT_EQ(service_->Query(kSerial, &queried), kOk) << reopen;
    EXPECT_EQ(queried["auth_key"], info["auth_key"]) << reopen;
  }
}

TEST(Store, ReportsAFolderThatIsNotThere) {
  const std::string path = "/nonexistent/pellix-store/account.db";
  std::string error;
  EXPECT_EQ(Store::Open(path, &error), nullptr);
  EXPECT_EQ(error.rfind(path + ": cannot open", 0), 0u) << error;
}

}  // namespace
}  // namespace pellixsim
