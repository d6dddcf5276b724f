// webapi-host serve, end to end: real HTTP against a host the test starts on
// a free port with a temporary state folder.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <thread>

#include "client.h"
#include "request.h"
#include "support/module_test.h"
#include "support/process.h"
#include "text.h"
#include "verifier.h"

namespace pellixtest {
namespace {

using webapihost::CallWebApi;
using webapihost::PostForm;
using webapihost::Compact;
using webapihost::Reply;
using webapihost::Send;
using webapihost::ServeProcess;
using webapihost::TempDir;

const char kCenter[] = "TALV.Core.PellixCenter";
const char kAccount[] = "TALV.Core.PellixCenter.Account";
class ServeTest : public ::testing::Test {
 protected:
  // Every answer the hosts gave is one the description of the web API allows.
  void TearDown() override { Described(); }
  void Described() {
    if (host_) {
      EXPECT_EQ(host_->Log().find("does not match the description"), std::string::npos) << host_->Log();
    }
  }
  void Start(std::vector<std::string> more = {}) {
    Described();
    more.push_back("--check-answers");
    host_.reset(new ServeProcess(WEBAPI_HOST, PELLIXCENTER_SO, dir_.path() + "/state",
                                 dir_.path() + "/serve." + std::to_string(++started_) + ".log", more));
    ASSERT_GT(host_->port(), 0) << host_->Log();
    size_t at = host_->announcement().find("(device ");
    ASSERT_NE(at, std::string::npos);
    vars_["serial"] = host_->announcement().substr(at + 8, host_->announcement().find(',', at) - at - 8);
    vars_["state"] = dir_.path() + "/state";
  }
  void Register(const std::string& email, const std::string& password) {
    Json::Value fields = J(R"({"full_name":"Test User"})");
    fields["email"] = email;
    fields["password"] = password;
    ASSERT_EQ(PostForm(host_->port(), "/sim/register", fields).status, 200);
  }
  void Hammer(const std::function<bool(int)>& more, bool soak = false);
  void Reasons(const std::string& text) { std::ofstream(dir_.path() + "/state/device/logout-reasons.conf") << text; }
  void FailAccountInserts() {  // as a full disk would
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((dir_.path() + "/state/service/account.db").c_str(), &db), SQLITE_OK);
    const char* full = "CREATE TRIGGER full BEFORE INSERT ON accounts BEGIN SELECT RAISE(FAIL, 'disk is full'); END";
    ASSERT_EQ(sqlite3_exec(db, full, nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
  }

  struct Step {
    const char* what;
    const char* api;
    int version;
    const char* method;
    std::string params;             // JSON; $name is replaced by a captured value
    std::string expect;             // the envelope; "<any>" matches anything
    const char* capture = nullptr;  // keep data.auth_key under this name
  };
  void Run(const std::vector<Step>& steps) {
    for (const Step& s : steps) {
      SCOPED_TRACE(s.what);
      Reply r = CallWebApi(host_->port(), s.api, s.version, s.method, J(Substitute(s.params, vars_)));
      EXPECT_EQ(r.status, 200);
      EXPECT_TRUE(Matches(J(Substitute(s.expect, vars_)), r.body)) << r.body;
      if (s.capture) vars_[s.capture] = r.body["data"]["auth_key"].asString();
    }
  }

  TempDir dir_;
  int started_ = 0;
  std::unique_ptr<ServeProcess> host_;
  std::map<std::string, std::string> vars_;
};

const char kSignedOut[] = R"({"success":true,"data":{"is_logged_in":false}})";
const char kDone[] = R"({"success":true,"data":null})";
std::string Refused(int code, const char* details = "null") {
  return R"({"success":false,"error":{"code":)" + std::to_string(code) + R"(,"details":)" + details + "}}";
}

// What only the whole host shows: the service's answers as the module passes
// them on, the service's own pages, and the device's sign-out reasons file.
// (The rules are sim_test's, the handlers' the module tests', and the sign-in
// ways end to end Demo.Completes'.)
TEST_F(ServeTest, AccountLifeCycle) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Run({
      {"no history", "TALV.Core.PellixCenter.Purchase", 1, "list", "{}", Refused(3000, "{}")},
      {"no account to change", kAccount, 1, "set", R"({"enews":true})", Refused(3000)},
  });
  Register("Ada@Example.com", "secret1");
  Register("bob@example.com", "123456");
  Reply dup = PostForm(host_->port(), "/sim/register", J(R"({"email":"ADA@example.com","password":"xxxxxx",
                                                             "full_name":"Another Ada"})"));
  EXPECT_EQ(dup.status, 409);
  EXPECT_EQ(dup.body["account_error"], 16);

  Run({
      {"sign in", kCenter, 2, "login", R"({"account":"ada@EXAMPLE.com","password":"secret1"})",
       R"({"success":true,"data":{"account":"ada@EXAMPLE.com","auth_key":"<any>","activated":true}})", "key"},
      {"signed in", kCenter, 2, "query", "{}",
       R"({"success":true,"data":{"account":"Ada@Example.com","auth_key":"$key","activated":true,
           "critical_version_domain":"critical.pellix.example","is_logged_in":true}})"},
      {"change the profile", kAccount, 1, "set",
       R"({"full_name":"Ada King","enews":true,"country":"GB","critical_version_list":"5.2"})", kDone},
      {"the profile changed", kAccount, 1, "get", "{}",
       R"({"success":true,"data":{"full_name":"Ada King","email":"Ada@Example.com","country":"GB",
           "notify_language":"enu","enews":true,"critical_release":false,"enews_local_promotion":false,
           "critical_version_list":"5.2","critical_version_domain":"critical.pellix.example"}})"},
      {"another account's address", kAccount, 1, "set", R"({"email":"BOB@example.com"})", Refused(3005)},
      {"new password alone", kAccount, 1, "set", R"({"new_password":"secret2"})", Refused(3001)},
      {"wrong current password", kAccount, 1, "set", R"({"current_password":"nope!!","new_password":"secret2"})",
       Refused(3004)},
      {"history", "TALV.Core.PellixCenter.Purchase", 1, "list", R"({"date_from":"2000-01-01"})",
       R"({"success":true,"data":{"language":"enu","total":1,"purchases":[{"app":"cloud_backup_trial",
           "name":"Cloud backup, 30-day trial","serial":"","price":"0.00","currency":"USD","paypal":"",
           "date":"<any>"}]}})"},
      {"iframe", kCenter, 2, "get_iframe_info", "{}",
       R"({"success":true,"data":{"url":"<any>","is_logged_in":true,"account":"Ada@Example.com"}})"},
  });
  const std::string iframe = CallWebApi(host_->port(), kCenter, 2, "get_iframe_info").body["data"]["url"].asString();
  httplib::Result page = httplib::Client("127.0.0.1", host_->port()).Get(iframe.substr(iframe.find("/sim/")));
  ASSERT_TRUE(page);
  EXPECT_NE(page->body.find("<dd>Ada@Example.com</dd>"), std::string::npos) << page->body;

  Reasons("hard = A backup to the cloud is running\nsoft = The cloud drive is mounted\n");
  Run({{"hard refusal, forced or not", kCenter, 2, "logout", R"({"force":true})",
        R"({"success":false,"error":{"code":3014,"details":{"check_type":"hard",
            "reasons":["A backup to the cloud is running"]}}})"}});
  // A line the check cannot read refuses, forced or not, and says which.
  Reasons("hard = A backup to the cloud is running\nSoft = The cloud drive is mounted\n");
  Run({{"a reasons file the check cannot read", kCenter, 2, "logout", R"({"force":true})",
        R"({"success":false,"error":{"code":3014,"details":{"check_type":"hard","reasons":[
            "$state/device/logout-reasons.conf:2: \"Soft = The cloud drive is mounted\" is neither \"hard = <reason>\" nor \"soft = <reason>\""]}}})"}});
  EXPECT_NE(host_->Log().find("<3> " + vars_["state"] + "/device/logout-reasons.conf:2: \"Soft = "), std::string::npos)
      << host_->Log();
  Reasons("# only a soft reason\nsoft = The cloud drive is mounted\n");
  Run({
      {"soft refusal", kCenter, 2, "logout", "{}",
       R"({"success":false,"error":{"code":3014,"details":{"check_type":"soft",
           "reasons":["The cloud drive is mounted"]}}})"},
      {"forced sign-out", kCenter, 2, "logout", R"({"force":true})", kDone},
      {"signed out", kCenter, 2, "query", "{}", kSignedOut},
      {"nobody to sign out", kCenter, 2, "logout", R"({"force":true})", kDone},
      {"key of another device", kCenter, 2, "login_by_key", R"({"serial":"OTHER","auth_key":"$key"})", Refused(3004)},
  });
}

// The service's sign-in page, as a browser submits it, goes on to the redirect
// target, which shows a grant code that the module's PKCE sign-in takes.
TEST_F(ServeTest, PkceSignInByTheServicesPage) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Register("ada@example.com", "secret1");
  const Json::Value login =
      CallWebApi(host_->port(), "TALV.Core.PellixCenter.Login", 1, "pkce_config_get").body["data"]["login"];
  EXPECT_EQ(login["code_challenge_method"], "S256");
  Reply created = CallWebApi(host_->port(), "TALV.Remote.Credential.Verifier", 1, "create");
  vars_["challenge"] = created.body["data"]["challenge"].asString();
  EXPECT_EQ(PostForm(host_->port(), "/sim/authorize", J(R"({"email":"ada@example.com","password":"x",
                                                             "code_challenge":"abc"})"))
                .status,
            400);
  httplib::Client browser("127.0.0.1", host_->port());
  const httplib::Params form{
      {"email", "ada@example.com"}, {"password", "secret1"}, {"code_challenge", vars_["challenge"]}};
  httplib::Result signIn = browser.Post("/sim/authorize", {{"Sec-Fetch-Mode", "navigate"}}, form);
  ASSERT_TRUE(signIn);
  ASSERT_EQ(signIn->status, 303) << signIn->body;
  const std::string location = signIn->get_header_value("Location");
  EXPECT_EQ(location.rfind("/sim/login/done?code=", 0), 0u) << location;
  vars_["code"] = location.substr(location.find('=') + 1);
  httplib::Result done = browser.Get(location);
  ASSERT_TRUE(done);
  EXPECT_NE(done->body.find("<code>" + vars_["code"] + "</code>. Pass it to <code>pkce_login</code>"),
            std::string::npos)
      << done->body;
  vars_["client"] = login["client_id"].asString();
  vars_["redirect"] = login["redirect_uri"].asString();
  Run({
      {"a grant from the sign-in page", "TALV.Core.PellixCenter.Login", 1, "pkce_login",
       R"({"code_challenge":"$challenge","grant_code":"$code","client_id":"$client","token_endpoint":"-",
           "redirect_uri":"$redirect"})",
       R"({"success":true,"data":{"account":"ada@example.com","auth_key":"<any>","activated":true}})"},
      {"PKCE sign-out", "TALV.Core.PellixCenter.Logout", 1, "pkce_logout", "{}", kDone},
      {"nobody to sign out", "TALV.Core.PellixCenter.Logout", 1, "pkce_logout", "{}", Refused(3000)},
      {"a challenge the device never made", "TALV.Core.PellixCenter.Login", 1, "pkce_login",
       R"({"code_challenge":"x","grant_code":"$code","client_id":"$client","token_endpoint":"-",
           "redirect_uri":"$redirect"})",
       Refused(3003)},
  });
}

// What serve prints at start works as shown, pasted into a shell in order.
TEST_F(ServeTest, AnnouncedCurlLinesWork) {
  ASSERT_NO_FATAL_FAILURE(Start());
  const std::string& text = host_->announcement();
  EXPECT_NE(text.find("trusted through"), std::string::npos) << text;
  const char* expected[] = {
      R"({"success":true,"data":{"is_logged_in":false}})",
      R"({"success":true,"data":{}})",
      R"({"success":true,"data":{"full_name":"Ada Lovelace","email":"ada@example.com","country":"",
          "notify_language":"enu","enews":false,"critical_release":true,"enews_local_promotion":false,
          "critical_version_list":"","critical_version_domain":"critical.pellix.example"}})",
      kDone,
      R"({"success":true,"data":{"account":"ada@example.com","auth_key":"<any>","activated":true}})",
  };
  size_t n = 0;
  for (size_t at = 0; (at = text.find("\n  curl ", at)) != std::string::npos; ++n) {
    const std::string line = text.substr(at + 3, text.find('\n', at + 1) - at - 3);
    at += 1;
    ASSERT_LT(n, std::size(expected)) << line;
    std::string out;
    EXPECT_EQ(RunCommand(line, &out), 0) << line;
    EXPECT_TRUE(Matches(J(expected[n]), J(out))) << line << "\n" << out;
  }
  EXPECT_EQ(n, std::size(expected));
}

// The whole state goes out and comes back as it was; a bad document changes
// nothing; a reset and a fixture are a known state; the journal tells what
// came and went, its secrets masked, and other tools take it in.
TEST_F(ServeTest, KnownStatesAndTheJournal) {
  ASSERT_NO_FATAL_FAILURE(Start({"--seed", "signed-in", "--journal", dir_.path() + "/journal.jsonl"}));
  const int port = host_->port();
  const auto state = [port] { return Send(port, "GET", "/sim/state").body; };
  const Json::Value seeded = state();
  EXPECT_EQ(seeded["device"]["account"]["email"], "ada@example.com");
  EXPECT_EQ(seeded["device"]["serial"], vars_["serial"]);
  EXPECT_EQ(seeded["service"]["accounts"][0]["purchases"].size(), 4u);
  EXPECT_EQ(CallWebApi(port, "TALV.Core.PellixCenter.Purchase", 1, "list").body["data"]["total"], 4);
  EXPECT_EQ(Send(port, "POST", "/sim/conditions", R"({"account_error":25,"times":1})").status, 201);
  EXPECT_EQ(CallWebApi(port, kAccount, 1, "set", J(R"({"current_password":"secret1","new_password":"secret2"})"))
                .body["error"]["code"],
            3013);

  struct Refusal {
    std::string document, reason;
  } refusals[] = {
      {"[1", "the state document is not JSON"},
      {R"({"version":2})", "/version: the document is of version 2"},
      {R"({"version":1,"device":{"account":{"email":"bob@example.com"}}})", "/device/account/email"},
      {R"({"version":1,"service":{"accounts":[{"email":"x@y.z"}]}})", "/service/accounts/0/full_name: is missing"},
      {R"({"version":1,"device":{"serial":"Q2\n"}})", "/device/serial"},
  };
  for (const Refusal& r : refusals) {
    Reply reply = Send(port, "PUT", "/sim/state", r.document);
    EXPECT_EQ(reply.status, 400) << r.document;
    EXPECT_EQ(reply.body["error"]["code"], 101);
    EXPECT_NE(reply.body["error"]["details"]["reason"].asString().find(r.reason), std::string::npos) << reply.text;
  }
  Json::Value now = state();
  EXPECT_EQ(now["service"]["conditions"].size(), 0u);  // used up
  EXPECT_EQ(now["device"], seeded["device"]);

  // While it serves, the folder is the host's.
  std::string out, err;
  EXPECT_EQ(RunCommand("'" WEBAPI_HOST "' state import fresh --state " + vars_["state"], &out, &err), 1);
  EXPECT_NE(err.find("is in use by process"), std::string::npos) << err;

  EXPECT_EQ(Send(port, "POST", "/sim/reset").status, 200);
  EXPECT_EQ(CallWebApi(port, kCenter, 2, "query").text, kSignedOut);
  EXPECT_EQ(state()["device"]["serial"], vars_["serial"]);
  EXPECT_EQ(Send(port, "PUT", "/sim/state", Compact(seeded)).status, 200);
  EXPECT_EQ(state(), seeded);
  EXPECT_EQ(CallWebApi(port, kCenter, 2, "query").body["data"]["auth_key"], seeded["device"]["account"]["auth_key"]);
  Reply fresh = Send(port, "POST", "/sim/reset", R"({"serial":"new"})");
  EXPECT_NE(fresh.body["serial"], vars_["serial"]);
  EXPECT_EQ(Send(port, "GET", "/device.json").body["serial"], fresh.body["serial"]);
  std::ifstream limit(PELLIX_SOURCE_DIR "/../dev/fixtures/registration-limit.json");
  EXPECT_EQ(Send(port, "PUT", "/sim/state", std::string(std::istreambuf_iterator<char>(limit), {})).status, 200);
  EXPECT_EQ(
      CallWebApi(port, kCenter, 2, "register",
                 J(R"({"account":"eve@example.com","password":"secret1","fullname":"Eve","critical_release":true})"))
          .body["error"]["code"],
      3006);

  Json::Value journal = Send(port, "GET", "/sim/journal").body;
  const std::string text = Compact(journal);
  for (const char* secret : {"secret1", "secret2", seeded["device"]["account"]["auth_key"].asCString()})
    EXPECT_EQ(text.find(secret), std::string::npos) << secret;
  const Json::Value& set = journal["entries"][3];
  EXPECT_EQ(set["call"]["params"]["new_password"], "***");
  EXPECT_EQ(set["answer"]["code"], 3013);
  EXPECT_NE(set["conditions"][0].asString().find("account error 25"), std::string::npos) << set;
  EXPECT_EQ(journal["entries"][4]["status"], 400);
  EXPECT_EQ(journal["entries"][4]["reason"].asString().rfind("the state document is not JSON", 0), 0u);
  const Json::Value last = journal["entries"][journal["entries"].size() - 1];
  EXPECT_EQ(Send(port, "GET", "/sim/journal?since=" + last["id"].asString()).body["entries"].size(), 0u);
  std::ofstream(dir_.path() + "/journal.har") << Send(port, "GET", "/sim/journal.har").text;
  EXPECT_EQ(RunCommand("NODE_PATH=/usr/share/nodejs node " PELLIX_SOURCE_DIR "/../tests/har_check.js " + dir_.path() +
                           "/journal.har",
                       &out, &err),
            0)
      << err;
  EXPECT_EQ(Send(port, "DELETE", "/sim/journal").status, 200);
  EXPECT_EQ(Send(port, "GET", "/sim/journal").body["entries"].size(), 0u);
  std::ifstream lines(dir_.path() + "/journal.jsonl");
  EXPECT_EQ(std::count(std::istreambuf_iterator<char>(lines), {}, '\n'), last["id"].asInt());
}

TEST(Demo, Completes) {
  std::string out, err;
  EXPECT_EQ(RunCommand("'" WEBAPI_HOST "' demo", &out, &err), 0) << out << err;
  EXPECT_NE(out.find("Every step answered as expected."), std::string::npos) << out;
  EXPECT_EQ(out.find("NOT AS EXPECTED"), std::string::npos) << out;
}

TEST_F(ServeTest, StateSurvivesRestartAndKill) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Register("ada@example.com", "secret1");
  Reply in = CallWebApi(host_->port(), kCenter, 2, "login", J(R"({"account":"ada@example.com","password":"secret1"})"));
  ASSERT_TRUE(in.body["success"].asBool()) << in.body;
  const std::string serial = vars_["serial"];
  EXPECT_EQ(host_->Stop(SIGTERM), 0);

  ASSERT_NO_FATAL_FAILURE(Start());
  EXPECT_EQ(vars_["serial"], serial) << "the device keeps its serial";
  Reply q = CallWebApi(host_->port(), kCenter, 2, "query");
  EXPECT_EQ(q.body["data"]["auth_key"], in.body["data"]["auth_key"]) << q.body;

  // Killed while profile changes are under way: every change that was
  // answered is there after a restart, and the database opens.
  std::atomic<int> answered{0};
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    for (int n = 0; !stop; ++n) {
      Reply r =
          CallWebApi(host_->port(), kAccount, 1, "set", J("{\"critical_version_list\":\"" + std::to_string(n) + "\"}"));
      if (r.status != 200) break;
      answered = n;
    }
  });
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (answered < 20 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  EXPECT_EQ(host_->Stop(SIGKILL), -SIGKILL);
  stop = true;
  writer.join();
  const int last = answered;

  ASSERT_NO_FATAL_FAILURE(Start());
  Reply get = CallWebApi(host_->port(), kAccount, 1, "get");
  ASSERT_TRUE(get.body["success"].asBool()) << get.body;
  const int kept = std::stoi(get.body["data"]["critical_version_list"].asString());
  EXPECT_GE(kept, last);
  EXPECT_LE(kept, last + 1);  // the one under way when killed may have committed
}

// Killed amid PUT /sim/state or POST /sim/reset, the host starts again on the
// old state or the new, whole (the device's serial with the service's binding
// to it), and no staged file is left, nor by an offline import that fails.
TEST_F(ServeTest, StateReplacementKilledLeavesOneWholeState) {
  ASSERT_NO_FATAL_FAILURE(Start({"--seed", "signed-in"}));
  const auto state = [this] { return Send(host_->port(), "GET", "/sim/state").body; };
  std::string out, err;
  const auto clean = [&] {
    return RunCommand("find '" + vars_["state"] + "' -name '*.new' -o -name '*.pending' | grep .", &out) != 0;
  };
  Json::Value a = state();
  a["device"]["language"] = "ger";  // unlike a fresh device's
  Json::Value b = a;
  b["device"]["serial"] = "Q26CA0000002";
  b["device"]["account"]["email"] = b["service"]["accounts"][0]["email"] = "bob@example.com";
  const std::pair<std::string, std::string> steps[] = {
      {"/sim/state", Compact(b)}, {"/sim/reset", ""}, {"/sim/state", Compact(a)}, {"/sim/reset", ""}};
  std::vector<Json::Value> whole{state()};  // the states a round may leave: each step's, whole
  const auto start = std::chrono::steady_clock::now();
  for (const auto& step : steps) {
    ASSERT_EQ(Send(host_->port(), step.second.empty() ? "POST" : "PUT", step.first, step.second).status, 200);
    whole.push_back(state());
  }
  const auto took = (std::chrono::steady_clock::now() - start) / 4;
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 40; ++round) {
    std::thread request([&, port = host_->port(), step = steps[round % 4]] {
      Send(port, step.second.empty() ? "POST" : "PUT", step.first, step.second);
    });
    std::this_thread::sleep_for(took * (random() % 100) / 100);
    EXPECT_EQ(host_->Stop(SIGKILL), -SIGKILL);
    request.join();
    ASSERT_NO_FATAL_FAILURE(Start());
    const Json::Value now = state();
    EXPECT_TRUE(std::find(whole.begin(), whole.end(), now) != whole.end() && clean()) << Compact(now) << out;
  }
  EXPECT_EQ(host_->Stop(SIGTERM), 0);
  ASSERT_NO_FATAL_FAILURE(FailAccountInserts());
  EXPECT_EQ(RunCommand("'" WEBAPI_HOST "' state import signed-in --state " + vars_["state"], &out, &err), 1);
  EXPECT_TRUE(err.find("disk is full") != std::string::npos && clean()) << err << out;
}

// The descriptors of process `pid` once a closed client's socket has had time
// to be closed on the host's side too.
int SettledDescriptors(pid_t pid) {
  int now = OpenDescriptors(pid);
  for (int i = 0; i < 50; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const int later = OpenDescriptors(pid);
    if (later == now) break;
    now = later;
  }
  return now;
}

// 8 clients at once, each with a connection per request, sending a mix of a
// read, a write of the service, the host's own API and a refusal, until
// `more(n)` is false for its n-th request. Every answer and every key the
// service issued is checked, and that the log and the database lost none; a
// `soak` also judges the host's resident size after a warm-up.
void ServeTest::Hammer(const std::function<bool(int)>& more, bool soak) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Register("ada@example.com", "secret1");
  ASSERT_TRUE(CallWebApi(host_->port(), kCenter, 2, "login", J(R"({"account":"ada@example.com","password":"secret1"})"))
                  .body["success"]
                  .asBool());
  constexpr int kClients = 8;
  std::vector<std::set<std::string>> keys(kClients), challenges(kClients);
  std::vector<int> wrong(kClients, 0), sent(kClients, 0);
  std::vector<std::thread> clients;
  std::atomic<int> finished{0};
  const long residentBefore = StatusKiB("VmRSS:", host_->pid());
  const int descriptorsBefore = SettledDescriptors(host_->pid());
  const auto start = std::chrono::steady_clock::now();
  for (int c = 0; c < kClients; ++c) {
    clients.emplace_back([&, c] {
      for (int n = 0; more(n); ++n, ++sent[c]) {
        Reply r;
        switch (n % 4) {
          case 0:  // a read
            r = CallWebApi(host_->port(), kCenter, 2, "query");
            if (r.body["data"]["account"] != "ada@example.com") ++wrong[c];
            break;
          case 1:  // a write of the service: a new key for the binding
            r = CallWebApi(host_->port(), kCenter, 2, "handle_apikey_error", J(R"({"apikey_error":"expired"})"));
            keys[c].insert(r.body["data"]["auth_key"].asString());
            break;
          case 2:  // the host's own API
            r = CallWebApi(host_->port(), "TALV.Remote.Credential.Verifier", 1, "create");
            challenges[c].insert(r.body["data"]["challenge"].asString());
            break;
          default:  // a refusal
            r = CallWebApi(host_->port(), kCenter, 2, "login", J(R"({"account":"x@example.com","password":"123456"})"));
            if (r.body["error"]["code"] != 3010) ++wrong[c];
        }
        if (r.status != 200 || (n % 4 != 3 && !r.body["success"].asBool())) ++wrong[c];
      }
      ++finished;
    });
  }
  std::vector<long> resident;  // the host's, every 5 s while the clients run
  for (auto next = start + std::chrono::seconds(5); finished < kClients;
       std::this_thread::sleep_for(std::chrono::milliseconds(50)))
    if (std::chrono::steady_clock::now() >= next) {
      resident.push_back(StatusKiB("VmRSS:", host_->pid()));
      next += std::chrono::seconds(5);
    }
  for (std::thread& t : clients) t.join();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  size_t total = 0, writes = 0, creates = 0;
  std::set<std::string> allKeys, allChallenges;
  for (int c = 0; c < kClients; ++c) {
    EXPECT_EQ(wrong[c], 0) << "client " << c;
    total += sent[c];
    writes += (sent[c] + 2) / 4;  // the n with n % 4 == 1
    creates += (sent[c] + 1) / 4;
    allKeys.insert(keys[c].begin(), keys[c].end());
    allChallenges.insert(challenges[c].begin(), challenges[c].end());
  }
  EXPECT_EQ(allKeys.size(), writes);
  EXPECT_EQ(allChallenges.size(), creates);
  const long grown = StatusKiB("VmRSS:", host_->pid()) - residentBefore;
  EXPECT_EQ(SettledDescriptors(host_->pid()), descriptorsBefore);
  std::printf(
      "[ measure  ] %zu requests from %d clients in %.2f s: %.0f requests/s; host resident size grew by %ld KiB", total,
      kClients, seconds, total / seconds, grown);
  if (soak) {
    // Pools and the bounded stores fill in the first seconds, but SQLite's
    // page cache (2 MB) fills as the database grows, a quarter of the
    // requests writing a key: on a loaded machine that takes some 30 s.
    // After that a request may leave nothing behind.
    const long later = resident.back() - resident[5];
    std::printf(", %ld KiB of it after the first 30 s", later);
    EXPECT_LT(later, 1024) << "KiB grown between 30 s and the end";
  }
  std::printf("\n");
  RecordProperty("requests", static_cast<int>(total));
  RecordProperty("rss_growth_kib", static_cast<int>(grown));
  EXPECT_EQ(host_->Stop(SIGTERM), 0);

  // One log line per request (and one for the sign-in before them); every
  // key the service handed out is in its database, one per sign-in and one
  // per renewal.
  const std::string log = host_->Log();
  size_t lines = 0;
  for (size_t at = 0; (at = log.find(" TALV.", at)) != std::string::npos; ++at) ++lines;
  EXPECT_EQ(lines, 1 + total);
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open_v2((dir_.path() + "/state/service/account.db").c_str(), &db, SQLITE_OPEN_READONLY, nullptr),
            SQLITE_OK);
  sqlite3_stmt* count = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db, "SELECT COUNT(*) FROM auth_keys", -1, &count, nullptr), SQLITE_OK);
  ASSERT_EQ(sqlite3_step(count), SQLITE_ROW);
  EXPECT_EQ(static_cast<size_t>(sqlite3_column_int(count, 0)), 1 + writes);
  sqlite3_finalize(count);
  sqlite3_close(db);
}

TEST_F(ServeTest, ConcurrentClientsAllAnsweredNothingLost) {
  Hammer([](int n) { return n < 200; });
}

#ifdef PELLIX_SOAK
// A long-running host: a minute of the same, where a leak of a descriptor or
// of a few hundred bytes per request shows.
TEST_F(ServeTest, EightClientsForAMinuteNothingLost) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  Hammer([end](int) { return std::chrono::steady_clock::now() < end; }, true);
}
#endif

TEST(VerifierApiTest, WhenFullTheOldestGoes) {
  webapihost::VerifierApi api(3);
  std::vector<std::string> challenges;
  for (int i = 0; i < 5; ++i) challenges.push_back(api.Create().data["challenge"].asString());
  for (int i = 0; i < 5; ++i) {
    Json::Value params;
    params["challenge"] = challenges[i];
    EXPECT_EQ(api.Get(params, "root").success, i >= 2) << "verifier " << i;
  }
  EXPECT_NE(api.Get(Json::Value(Json::objectValue), "root").data["reason"].asString().find("\"challenge\""),
            std::string::npos);
}

// Each refusal of the host names the field or header at fault, in the
// answer and in its one log line.
TEST_F(ServeTest, MalformedRequestsAreRefused) {
  ASSERT_NO_FATAL_FAILURE(Start());
  httplib::Client client("127.0.0.1", host_->port());
  const std::string center = "/webapi/entry?api=TALV.Core.PellixCenter";
  struct Case {
    const char* what;
    int status;
    int code;
    std::string target;
    const char* reason;          // the field, header or method the answer names
    const char* body = nullptr;  // a GET without one, else a POST
    const char* contentType = "application/json";
    const char* method = nullptr;  // another method
  } cases[] = {
      {"no api", 400, 101, "/webapi/entry?version=2&method=query", R"("api" is missing)"},
      {"version not a number", 400, 101, center + "&version=two&method=query", R"("version")"},
      {"unknown API", 404, 102, "/webapi/entry?api=TALV.Nothing&version=1&method=query", R"("api")"},
      {"no such method", 404, 103, center + "&version=2&method=nothing", R"("method")"},
      {"API without that version", 404, 104, center + ".Account&version=2&method=get", R"("version")"},
      {"field that is broken JSON", 400, 101, center + "&version=2&method=login&account=%7Bx&password=1",
       R"("account")"},
      {"field given twice", 400, 101, center + "&version=2&method=query&a=1&a=2", R"("a")"},
      {"body not JSON", 400, 101, "/webapi/entry", "the body", "{\"api\":"},
      {"body an array", 400, 101, "/webapi/entry", "array", "[1]"},
      {"JSON body repeats a field", 400, 101, center, R"("api")",
       R"({"api":"TALV.Core.PellixCenter","version":2,"method":"query"})"},
      {"body of another kind", 400, 101, "/webapi/entry", "Content-Type", "api=1", "text/plain"},
      {"other path", 404, 101, "/webapi/other", "/webapi/other"},
      {"verifier for a user not root", 403, 105,
       "/webapi/entry?api=TALV.Remote.Credential.Verifier&version=1&method=get&challenge=x", "root"},
      {"entry by another method", 405, 101, "/webapi/entry", "PUT", "", "", "PUT"},
      {"GET of a POST-only path", 405, 101, "/sim/token", "GET"},
      {"POST of a page file", 405, 101, "/app.js", "POST", "x", "text/plain"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    httplib::Request request;
    request.method = c.method ? c.method : c.body ? "POST" : "GET";
    request.path = c.target;
    if (c.body) request.body = c.body;
    if (c.body && *c.contentType) request.set_header("Content-Type", c.contentType);
    httplib::Result r = client.send(request);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, c.status) << r->body;
    EXPECT_EQ(r->has_header("Allow"), c.status == 405);
    Json::Value body = J(r->body);
    EXPECT_EQ(body["success"], false);
    EXPECT_EQ(body["error"]["code"], c.code) << r->body;
    const std::string reason = body["error"]["details"]["reason"].asString();
    EXPECT_NE(reason.find(c.reason), std::string::npos) << reason;
    // Logged whole, on a line of its own that begins with the method.
    const std::string log = host_->Log();
    const size_t at = log.find(" (" + reason + ")\n");
    ASSERT_NE(at, std::string::npos) << log;
    const size_t begin = log.rfind('\n', at) == std::string::npos ? 0 : log.rfind('\n', at) + 1;
    const std::string line = log.substr(begin, at - begin);
    EXPECT_EQ(line.rfind(request.method + " ", 0), 0u) << line;
    EXPECT_NE(line.find(": " + std::to_string(c.status) + " code " + std::to_string(c.code)), std::string::npos)
        << line;
  }
  // Requests the HTTP library cannot parse, or whose path is not one line.
  struct Raw {
    std::string request;
    int status;
    const char* logged;
  } raws[] = {
      {"HELLO\r\n", 400, "- -: 400 code 101 (the request line"},
      {"BREW /pot HTTP/1.1\r\n", 400, "- -: 400 code 101 (\"BREW\""},
      {"GET / HTTP/2.0\r\n", 400, "GET -: 400 code 101 (the HTTP version \"HTTP/2.0\""},
      {"GET /" + std::string(9000, 'a') + " HTTP/1.1\r\n\r\n", 414, "- -: 414 code 101 (the request line"},
      {"TRACE /webapi/entry HTTP/1.1\r\n\r\n", 405,
       "TRACE /webapi/entry: 405 code 101 (/webapi/entry takes GET or POST, not TRACE)\n"},
      {"GET /a%0Ab HTTP/1.1\r\n\r\n", 404, R"(GET /a\nb: 404 code 101 (no such path "/a\nb")"},
  };
  for (const Raw& raw : raws) {
    SCOPED_TRACE(raw.logged);
    const std::string answer = webapihost::Exchange(host_->port(), raw.request);
    EXPECT_EQ(answer.rfind("HTTP/1.1 " + std::to_string(raw.status) + " ", 0), 0u) << answer;
    EXPECT_NE(host_->Log().find(raw.logged), std::string::npos) << host_->Log();
  }
  // The host is still serving.
  EXPECT_EQ(CallWebApi(host_->port(), kCenter, 2, "query").body, J(kSignedOut));
}

// The administration page comes from its folder with the types a browser
// insists on (its scripts and device.json run in admin_page_test), and no
// name can reach outside that folder. The account service's pages under
// /sim/ show what they were sent, escaped.
TEST_F(ServeTest, AdministrationPageIsServedFromItsFolderOnly) {
  ASSERT_NO_FATAL_FAILURE(Start());
  EXPECT_NE(host_->announcement().find("administration page http://127.0.0.1:"), std::string::npos)
      << host_->announcement();
  httplib::Client client("127.0.0.1", host_->port());
  struct Case {
    const char* path;
    int status;
    const char* type;     // prefix of Content-Type
    const char* content;  // found in the body
  } cases[] = {
      {"/", 200, "text/html", "<title>"},
      {"/admin/", 200, "text/html", "<title>"},
      {"/style.css", 200, "text/css", "focus-visible"},
      {"/nothing.js", 404, "text/plain", "No such page"},
      {"/../CMakeLists.txt", 404, "application/json", "\"code\":101"},
      {"/%2e%2e/CMakeLists.txt", 404, "application/json", "\"code\":101"},
      {"/.hidden.js", 404, "application/json", "\"code\":101"},
      {"/sub/app.js", 404, "application/json", "\"code\":101"},
      {"/sim/authorize?code_challenge=%22abc", 200, "text/html",
       "name=\"code_challenge\" required size=\"50\" value=\"&quot;abc\""},
      {"/sim/login/done?code=%3Cb%3E", 200, "text/html", "received the grant code <code>&lt;b&gt;</code>"},
      {"/sim/register/done", 200, "text/html", "It received no grant code"},
      {"/sim/account", 200, "text/html", "No account is signed in on the device."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    auto res = client.Get(c.path);
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, c.status);
    EXPECT_EQ(res->get_header_value("Content-Type").rfind(c.type, 0), 0u) << res->get_header_value("Content-Type");
    EXPECT_NE(res->body.find(c.content), std::string::npos) << res->body;
  }
  EXPECT_NE(host_->Log().find("GET /nothing.js: 404 (no file "), std::string::npos) << host_->Log();
  // The page and the web API side by side on one origin.
  EXPECT_EQ(CallWebApi(host_->port(), kCenter, 2, "query").body, J(kSignedOut));
}

TEST_F(ServeTest, FieldsKeepTheirTypes) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Register("ada@example.com", "000123");
  httplib::Client client("127.0.0.1", host_->port());
  auto form = [&](const std::string& fields) {
    httplib::Result r = client.Post("/webapi/entry", fields, "application/x-www-form-urlencoded");
    return r ? J(r->body) : Json::Value();
  };
  // A password of digits stays text; so does a name of digits.
  EXPECT_EQ(
      form("api=TALV.Core.PellixCenter&version=2&method=login&account=ada%40example.com&password=000123")["success"],
      true);
  EXPECT_EQ(form("api=TALV.Core.PellixCenter.Account&version=1&method=set&full_name=12345&enews=true"), J(kDone));
  EXPECT_EQ(form("api=TALV.Core.PellixCenter.Account&version=1&method=set&country=%22%7B%7D%22&critical_release=false"),
            J(kDone));
  Json::Value got = form("api=TALV.Core.PellixCenter.Account&version=1&method=get");
  EXPECT_EQ(got["data"]["full_name"], "12345");
  EXPECT_EQ(got["data"]["enews"], true);
  EXPECT_EQ(got["data"]["critical_release"], false);
  EXPECT_EQ(got["data"]["country"], "{}") << "a quoted string is that string";
}

// What keeps a host from starting ends it at once with a sentence naming
// what is wrong, and writes nothing on stdout.
TEST_F(ServeTest, StartUpErrorsEndAtOnceWithAMessage) {
  ASSERT_NO_FATAL_FAILURE(Start());  // holds dir_/state
  const std::string d = dir_.path();
  ASSERT_EQ(std::system(("mkdir -p '" + d + "/junk/service' '" + d + "/other/service' '" + d +
                         "/relay/device/usr/talv/etc/talvrelayd/talvrelayd.conf'")
                            .c_str()),
            0);
  std::ofstream(d + "/junk/service/account.db") << "this is not a database, and it is long enough to say so clearly";
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open((d + "/other/service/account.db").c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "CREATE TABLE accounts(id INTEGER PRIMARY KEY, name TEXT)", nullptr, nullptr, nullptr),
            SQLITE_OK);
  sqlite3_close(other);
  std::ofstream(d + "/file") << "x";
  struct Case {
    std::string state;
    std::string says;
  } cases[] = {
      {d + "/junk", "account.db: not a usable database"},
      {d + "/other",
       "account.db: not the account service's database: its table \"accounts\" has the columns (id "
       "INTEGER PRIMARY KEY, name TEXT), the service's (id INTEGER PRIMARY KEY, email TEXT NOT NULL"},
      {d + "/file", "cannot use"},
      {d + "/relay", "talvrelayd.conf: Is a directory"},
      {d + "/state", "the state folder " + d + "/state is in use by process " + std::to_string(host_->pid())},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.state);
    std::string out, err;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(RunCommand("timeout -s KILL 5 '" WEBAPI_HOST "' serve --port 0 --state '" + c.state + "'", &out, &err),
              1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_NE(err.find(c.says), std::string::npos) << err;
    EXPECT_EQ(out, "");
  }
  // The host that holds its folder serves on, its device untouched.
  EXPECT_EQ(CallWebApi(host_->port(), kCenter, 2, "query").body, J(kSignedOut));
}

// Ctrl-C and SIGTERM end the host at every stage: while it starts, while it
// serves, beside connections that say nothing, with a request under way
// (which is answered); one that does not end holds the host three seconds at
// most, or until a second signal.
TEST_F(ServeTest, SignalsEndItAtEveryStage) {
  const std::string state = dir_.path() + "/state";
  for (const char* delay : {"0", "0.02", "0.1"}) {
    SCOPED_TRACE(std::string("SIGTERM after ") + delay + " s of start-up");
    std::string out;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(RunCommand("'" WEBAPI_HOST "' serve --port 0 --state '" + state + "' >/dev/null 2>&1 & sleep " + delay +
                             "; kill -TERM $!; wait $!; echo $?",
                         &out),
              0);
    EXPECT_TRUE(out == "0\n" || out == "143\n") << out;  // stopped, or killed before it began
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  }
  // A request whose body stops short is under way until the server's read
  // gives up, after 5 s.
  const char kShort[] = "POST /webapi/entry HTTP/1.1\r\nContent-Type: application/json\r\nContent-Length: 99\r\n\r\n{";
  struct Case {
    const char* what;
    int signal;
    const char* silent;  // what a client sends before it falls silent (nullptr: no such client)
    bool signIn;         // a sign-in under way when the signal comes, which is answered
    int again;           // a second signal half a second later (0: none)
    const char* says;    // on the host's stderr
    int within;          // seconds
  } cases[] = {
      {"idle", SIGINT, nullptr, false, 0, "", 2},
      {"a sign-in under way", SIGTERM, nullptr, true, 0, "", 2},
      {"a connection that says nothing", SIGTERM, "", false, 0, "", 2},
      {"a body that stops short", SIGTERM, kShort, false, 0, "requests still under way after 3 s", 5},
      {"a body that stops short, stopped again", SIGTERM, kShort, false, SIGINT, "stopped again", 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_NO_FATAL_FAILURE(Start());
    if (c.signIn) Register("ada@example.com", "secret1");
    httplib::Client kept("127.0.0.1", host_->port());  // a browser's kept-alive connection
    ASSERT_TRUE(kept.Get("/"));
    const int silent = c.silent ? webapihost::Connect(host_->port()) : -1;
    if (c.silent) {
      ASSERT_GE(silent, 0);
      ASSERT_EQ(send(silent, c.silent, std::strlen(c.silent), 0), static_cast<ssize_t>(std::strlen(c.silent)));
    }
    Reply answer;
    std::thread signIn;
    if (c.signIn) {
      // Held in the account service, so that the signal surely finds it under way.
      ASSERT_EQ(webapihost::Send(host_->port(), "POST", "/sim/conditions",
                                 R"({"delay_ms":500,"operations":["TALVPELLIXAccountLogin"],"times":1})")
                    .status,
                201);
      signIn = std::thread([&] {
        answer =
            CallWebApi(host_->port(), kCenter, 2, "login", J(R"({"account":"ada@example.com","password":"secret1"})"));
      });
      for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
           host_->Log().find("bit TALV.Core.PellixCenter 2 login") == std::string::npos &&
           std::chrono::steady_clock::now() < end;)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const auto start = std::chrono::steady_clock::now();
    if (c.again) {
      kill(host_->pid(), c.signal);
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    EXPECT_EQ(host_->Stop(c.again ? c.again : c.signal), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(c.within));
    EXPECT_NE(host_->Log().find(c.says), std::string::npos) << host_->Log();
    if (signIn.joinable()) signIn.join();
    if (c.signIn) {
      EXPECT_EQ(answer.body["success"], true) << answer.text;
    }
    if (silent >= 0) close(silent);
  }
}

// A storage failure is answered 3003, as the module translates it; its cause
// is in the host's log.
TEST_F(ServeTest, StorageFailureIsLoggedWithItsCause) {
  ASSERT_NO_FATAL_FAILURE(Start());
  ASSERT_NO_FATAL_FAILURE(FailAccountInserts());
  Run({{"registration", kCenter, 2, "register",
        R"({"account":"ada@example.com","password":"secret1","fullname":"Ada Lovelace","critical_release":true})",
        Refused(3003, "{}")}});
  EXPECT_NE(host_->Log().find("account service: storage failed: "), std::string::npos) << host_->Log();
  EXPECT_NE(host_->Log().find("disk is full"), std::string::npos) << host_->Log();
}

// Two sign-ins of different accounts sent at once: one binds the device, the
// other is refused with the account that it found bound.
TEST_F(ServeTest, ConcurrentSignInsBindOneAccount) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Register("ada@example.com", "secret1");
  Register("bob@example.com", "secret2");
  const Json::Value ada = J(R"({"account":"ada@example.com","password":"secret1"})");
  const Json::Value bob = J(R"({"account":"bob@example.com","password":"secret2"})");
  struct Case {
    const char* method;  // of the second request; the first is a sign-in of ada
    Json::Value params;
  } cases[] = {{"login", bob},
               {"register", J(R"({"password":"secret3","fullname":"Carol C","critical_release":false})")}};
  for (const Case& c : cases) {
    for (int round = 0; round < 3; ++round) {
      SCOPED_TRACE(std::string(c.method) + " round " + std::to_string(round));
      Json::Value second = c.params;
      if (std::string(c.method) == "register") second["account"] = "carol" + std::to_string(round) + "@example.com";
      Reply first, other;
      std::thread a([&] { first = CallWebApi(host_->port(), kCenter, 2, "login", ada); });
      std::thread b([&] { other = CallWebApi(host_->port(), kCenter, 2, c.method, second); });
      a.join();
      b.join();
      const bool adaWon = first.body["success"].asBool();
      const Reply& won = adaWon ? first : other;
      const Reply& lost = adaWon ? other : first;
      ASSERT_TRUE(won.body["success"].asBool()) << won.text;
      EXPECT_EQ(lost.body["error"]["code"], 3010) << lost.text;
      EXPECT_EQ(lost.body["error"]["details"]["account"],
                CallWebApi(host_->port(), kCenter, 2, "query").body["data"]["account"]);
      ASSERT_TRUE(CallWebApi(host_->port(), kCenter, 2, "logout", J(R"({"force":true})")).body["success"].asBool());
    }
  }
}

// ---------------------------------------------------------------------------
// The HTTP front end under ordinary misuse.

TEST_F(ServeTest, ASecondHostOnItsPortIsRefused) {
  ASSERT_NO_FATAL_FAILURE(Start());
  std::string out, err;
  // A second host that shares the port serves until stopped: `timeout`.
  EXPECT_EQ(RunCommand("timeout 30 '" WEBAPI_HOST "' serve --state '" + dir_.path() + "/other' --port " +
                           std::to_string(host_->port()),
                       &out, &err),
            2)
      << err;
  EXPECT_NE(err.find("cannot listen on 127.0.0.1:" + std::to_string(host_->port()) + ": the port is in use"),
            std::string::npos)
      << err;
}

// A page of another site, or one opened under another name (DNS rebinding),
// reaches nothing, whatever the method and path; the host's own page and
// programs do. A refused body is read whole: anything left of it would be
// the next request on the kept-alive connection.
TEST_F(ServeTest, OnlyItsOwnPagesAndLocalProgramsReachIt) {
  ASSERT_NO_FATAL_FAILURE(Start());
  Register("ada@example.com", "secret1");
  ASSERT_TRUE(CallWebApi(host_->port(), kCenter, 2, "login", J(R"({"account":"ada@example.com","password":"secret1"})"))
                  .body["success"]
                  .asBool());
  const std::string port = std::to_string(host_->port()), own = "127.0.0.1:" + port;
  const std::string logout = "/webapi/entry?api=TALV.Core.PellixCenter&version=2&method=logout&force=true";
  const std::string smuggled = "GET " + logout + " HTTP/1.1\r\nHost: " + own + "\r\n\r\n";
  struct Sent {
    const char* method;
    std::string path, body;
    const char* type;
  } requests[] = {
      {"GET", logout, "", nullptr},
      {"HEAD", "/", "", nullptr},
      {"GET", "/nothing", "", nullptr},
      {"POST", "/webapi/entry", logout.substr(14), "application/x-www-form-urlencoded"},
      {"POST", "/sim/register", R"({"email":"eve@example.com","password":"secret1"})", "application/json"},
      {"POST", "/webapi/entry", smuggled, "text/plain"},
      {"PUT", "/nothing", smuggled, "text/plain"},
  };
  const httplib::Headers foreign[] = {
      {{"Sec-Fetch-Site", "cross-site"}},
      {{"Sec-Fetch-Site", "same-site"}, {"Origin", "http://" + own}},
      {{"Origin", "null"}},
      {{"Origin", "http://localhost:" + port}},
      {{"Host", "evil.example:" + port}, {"Origin", "http://evil.example:" + port}, {"Sec-Fetch-Site", "same-origin"}},
      {{"Host", "127.0.0.1"}},
  };
  const httplib::Headers ownPage[] = {
      {},
      {{"Sec-Fetch-Site", "same-origin"}, {"Origin", "http://" + own}},
      {{"Sec-Fetch-Site", "none"}},
      {{"Host", "LocalHost:" + port}, {"Origin", "http://localhost:" + port}},
      {{"Host", "[::1]:" + port}},
  };
  const std::string query = "/webapi/entry?api=TALV.Core.PellixCenter&version=2&method=query";
  auto signedIn = [&](httplib::Client& client, const httplib::Headers& headers) {
    httplib::Result r = client.Get(query, headers);
    return r && r->status == 200 && J(r->body)["data"]["is_logged_in"] == true;
  };
  for (const httplib::Headers& headers : foreign)
    for (const Sent& sent : requests) {
      SCOPED_TRACE(std::string(sent.method) + " " + sent.path + " from " + headers.begin()->first + ": " +
                   headers.begin()->second);
      httplib::Client client("127.0.0.1", host_->port());
      client.set_keep_alive(true);
      httplib::Request request;
      request.method = sent.method;
      request.path = sent.path;
      request.headers = headers;
      request.body = sent.body;
      if (sent.type) request.set_header("Content-Type", sent.type);
      httplib::Result r = client.send(request);
      ASSERT_TRUE(r);
      EXPECT_EQ(r->status, 403);
      if (sent.method != std::string("HEAD")) {
        EXPECT_EQ(J(r->body)["error"]["code"], 108) << r->body;
      }
      EXPECT_TRUE(signedIn(client, {})) << "the next request on the connection, the device as it was";
    }
  EXPECT_EQ(PostForm(host_->port(), "/sim/token", J(R"({"email":"eve@example.com","password":"secret1"})")).status,
            401);
  const std::string log = host_->Log();
  size_t logged = 0;
  for (size_t at = 0; (at = log.find(": 403 code 108 (", at)) != std::string::npos; ++at) ++logged;
  EXPECT_EQ(logged, std::size(foreign) * std::size(requests)) << "one line for each refusal";
  httplib::Client client("127.0.0.1", host_->port());
  for (const httplib::Headers& headers : ownPage) EXPECT_TRUE(signedIn(client, headers)) << headers.size();
}

// A trusted origin's pages get CORS answers on every route; any other page
// reads its refusal and nothing else, and changes nothing, preflight or not.
// (tests/browser shows both in Chromium.)
TEST_F(ServeTest, TrustedOriginsGetCorsAnswersOthersOnlyTheirRefusal) {
  const std::string trusted = "http://127.0.0.1:18500", other = "http://127.0.0.1:18600", site = "Sec-Fetch-Site";
  ASSERT_NO_FATAL_FAILURE(Start({"--trust-origin", trusted, "--trust-origin", "HTTP://LocalHost:5173"}));
  EXPECT_NE(host_->announcement().find("trusted origins: " + trusted + ", http://localhost:5173"), std::string::npos);
  const std::string logout = "/webapi/entry?api=TALV.Core.PellixCenter.Logout&version=1&method=pkce_logout";
  const std::string fix = "or let that page's origin in with serve --trust-origin ";
  struct Case {
    const char* method;
    std::string path;
    httplib::Headers headers;
    int status;
    std::string allowOrigin;  // also Vary: Origin when not empty
    std::string cors;         // Allow-Methods | Allow-Headers | Max-Age
    std::string reason;       // in a refusal's reason and log line
  } cases[] = {
      {"OPTIONS",
       "/webapi/entry",
       {{"Origin", trusted},
        {"Access-Control-Request-Method", "POST"},
        {"Access-Control-Request-Headers", "content-type, RANGE, x-other"}},
       204,
       trusted,
       "GET, HEAD, POST|Content-Type, Range|600",
       ""},
      {"OPTIONS",
       "/sim/conditions",
       {{"Origin", other}, {"Access-Control-Request-Method", "DELETE"}},
       204,
       other,
       "GET, HEAD, POST, DELETE|Content-Type|0",
       ""},
      {"OPTIONS", "/webapi/entry", {}, 405, "", "||", "takes GET or POST, not OPTIONS"},
      {"POST",
       logout,
       {{"Origin", "http://localhost:5173"}, {site, "same-site"}},
       200,
       "http://localhost:5173",
       "||",
       ""},
      {"GET", "/sim/account", {{"Referer", trusted + "/page"}, {site, "same-site"}}, 200, "", "||", ""},
      {"POST",
       logout,
       {{"Origin", other}, {site, "same-site"}},
       403,
       other,
       "||",
       "Sec-Fetch-Site is \"same-site\": the request comes from a page of another site; open http://127.0.0.1:" +
           std::to_string(host_->port()) + "/ itself, or call it from a program on this computer, " + fix + other},
      {"GET", logout, {{"Referer", other + "/"}, {site, "cross-site"}}, 403, "", "||", fix + other},
      {"GET", logout, {{"Referer", trusted + "/"}, {"Origin", "null"}}, 403, "", "||", "Origin \"null\""},
      {"POST", logout, {{"Origin", trusted}, {"Host", "evil.example"}}, 403, trusted, "||", "Host \"evil.example\""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.path + " " + std::to_string(c.status));
    httplib::Request request;
    request.method = c.method;
    request.path = c.path;
    request.headers = c.headers;
    httplib::Result r = httplib::Client("127.0.0.1", host_->port()).send(request);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, c.status) << r->body;
    EXPECT_EQ(r->get_header_value("Access-Control-Allow-Origin"), c.allowOrigin);
    EXPECT_EQ(r->get_header_value("Vary"), c.allowOrigin.empty() ? "" : "Origin");
    EXPECT_EQ(r->get_header_value("Access-Control-Allow-Methods") + "|" +
                  r->get_header_value("Access-Control-Allow-Headers") + "|" +
                  r->get_header_value("Access-Control-Max-Age"),
              c.cors);
    if (c.reason.empty()) continue;
    EXPECT_NE(J(r->body)["error"]["details"]["reason"].asString().find(c.reason), std::string::npos) << r->body;
    EXPECT_NE(host_->Log().find(c.reason), std::string::npos) << host_->Log();
    EXPECT_EQ(c.reason.find(fix) == std::string::npos, r->body.find("--trust-origin") == std::string::npos) << r->body;
  }
}

// --web serves the developer's interface at every other path and nothing
// outside its folder; the sign-in page sends the browser back to the host
// or a trusted origin with the code and the state, and nowhere else.
TEST_F(ServeTest, YourOwnInterfaceAndThePkceSignInBackToIt) {
  const std::string d = dir_.path(), trusted = "http://127.0.0.1:18500";
  ASSERT_EQ(
      std::system(("mkdir -p '" + d + "/web/sub' && cd '" + d + "' && echo index > web/index.html && echo x=1 > " +
                   "web/sub/a.js && echo secret > web/.env && echo out > out.html && ln -s ../out.html web/out.html")
                      .c_str()),
      0);
  std::string out, err;
  EXPECT_EQ(RunCommand("'" WEBAPI_HOST "' serve --port 0 --state '" + d + "/state' --pkce-redirect-uri " + trusted,
                       &out, &err),
            2);
  EXPECT_NE(err.find("--pkce-redirect-uri " + trusted + " is neither this host's"), std::string::npos) << err;
  ASSERT_NO_FATAL_FAILURE(Start({"--web", d + "/web", "--trust-origin", trusted}));
  EXPECT_NE(host_->announcement().find("/admin/ (from "), std::string::npos) << host_->announcement();
  httplib::Client browser("127.0.0.1", host_->port());
  const std::pair<const char*, const char*> files[] = {{"/", "200 index\n"},
                                                       {"/sub/a.js", "200 x=1\n"},
                                                       {"/deep/route", "200 index\n"},
                                                       {"/admin/", "200 <!doctype"},
                                                       {"/.env", "404 No such page"},
                                                       {"/sub/%2e%2e/.env", "404 No such page"},
                                                       {"/out.html", "404 No such page"}};
  for (const auto& [path, seen] : files) {
    httplib::Result r = browser.Get(path);
    ASSERT_TRUE(r);
    EXPECT_EQ(std::to_string(r->status) + " " + r->body.substr(0, std::strlen(seen) - 4), seen) << path;
  }
  Register("ada@example.com", "secret1");
  const std::string own = "http://localhost:" + std::to_string(host_->port());
  for (const std::string& redirect : {own + "/app?x=1", std::string("http://evil.example/cb"), trusted + "/cb#top"}) {
    const httplib::Params form{{"email", "ada@example.com"},
                               {"password", "secret1"},
                               {"code_challenge", std::string(43, 'c')},
                               {"state", "a b%41"},
                               {"redirect_uri", redirect}};
    httplib::Result r = browser.Post("/sim/authorize", {{"Sec-Fetch-Mode", "navigate"}}, form);
    ASSERT_TRUE(r);
    // The client decodes Location: "%41" is still there only if it was sent encoded.
    if (redirect == own + "/app?x=1")
      EXPECT_TRUE(r->status == 303 && std::regex_match(r->get_header_value("Location"),
                                                       std::regex("/app\\?x=1&code=[0-9a-f]+&state=a b%41")))
          << r->get_header_value("Location");
    else
      EXPECT_NE(r->body.find("cannot send you back to " + redirect), std::string::npos) << r->body;
  }
}

// Every kind of body is taken up to kMaxBody and refused above it, the answer
// naming the real limit.
TEST_F(ServeTest, EveryBodyKindHasTheOneLimit) {
  ASSERT_NO_FATAL_FAILURE(Start());
  auto part = [](const char* name) {
    return "--B\r\nContent-Disposition: form-data; name=\"" + std::string(name) + "\"\r\n\r\n";
  };
  const std::string json = R"({"api":"TALV.Core.PellixCenter","version":2,"method":"query","pad":")";
  struct Kind {
    const char* type;
    std::string head, tail;  // the body is head, padding, tail
    bool chunked;
  } kinds[] = {
      {"application/x-www-form-urlencoded", "api=TALV.Core.PellixCenter&version=2&method=query&pad=", "", false},
      {"application/json", json, "\"}", false},
      {"application/json", json, "\"}", true},
      {"multipart/form-data; boundary=B",
       part("api") + kCenter + "\r\n" + part("version") + "2\r\n" + part("method") + "query\r\n" + part("pad"),
       "\r\n--B--\r\n", false},
  };
  httplib::Client client("127.0.0.1", host_->port());
  client.set_keep_alive(true);  // and each answer on it is the right one
  for (const Kind& kind : kinds)
    for (size_t size : {webapihost::kMaxBody, webapihost::kMaxBody + 1}) {
      SCOPED_TRACE(std::string(kind.type) + (kind.chunked ? ", chunked, " : ", ") + std::to_string(size) + " bytes");
      const std::string body = kind.head + std::string(size - kind.head.size() - kind.tail.size(), 'a') + kind.tail;
      httplib::Result r = kind.chunked ? client.Post(
                                             "/webapi/entry",
                                             [&](size_t, httplib::DataSink& sink) {
                                               sink.write(body.data(), body.size());
                                               sink.done();
                                               return true;
                                             },
                                             kind.type)
                                       : client.Post("/webapi/entry", body, kind.type);
      ASSERT_TRUE(r);
      const bool over = size > webapihost::kMaxBody;
      EXPECT_EQ(r->status, over ? 413 : 200);
      const std::string reason =
          (kind.chunked ? "the body is larger than" : "Content-Length " + std::to_string(size) + " is over") +
          std::string(" 65536 bytes (64 KiB), the most the host takes");
      EXPECT_EQ(J(r->body), J(over ? Refused(106, ("{\"reason\":\"" + reason + "\"}").c_str()) : kSignedOut));
    }
}

// A connection keeps a thread of the host while idle; a few dozen of them, as
// browser tabs keep, must not keep a new request waiting.
TEST_F(ServeTest, QueryAnswersPromptlyBesideIdleConnections) {
  ASSERT_NO_FATAL_FAILURE(Start());
  webapihost::IdleConnections idle(host_->port(), 64);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(CallWebApi(host_->port(), kCenter, 2, "query").body, J(kSignedOut));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
}

}  // namespace
}  // namespace pellixtest
