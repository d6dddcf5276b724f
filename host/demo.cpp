// webapi-host demo: a whole account life cycle, request by request, against a
// host of its own on a temporary state folder, and then what the methods
// answer when the account service fails.
#include <json/writer.h>

#include <signal.h>

#include <fstream>

#include "client.h"
#include "harness.h"
#include "serve.h"

namespace webapihost {
namespace {

const char kCenter[] = "TALV.Core.PellixCenter";
const char kAccount[] = "TALV.Core.PellixCenter.Account";

class Tour {
 public:
  Tour(FILE* out, int port) : out_(out), port_(port) {}

  // One web API request; `code` 0 expects a success, else that error code.
  Json::Value Call(const char* title, const char* api, int version, const char* method, const Json::Value& params,
                   int code = 0) {
    Head(title);
    (void)std::fprintf(out_, "    > %s %d %s %s\n", api, version, method, Compact(params).c_str());
    Reply r = CallWebApi(port_, api, version, method, params);
    const bool expected = r.status == 200 && (code == 0 ? r.body["success"].asBool() : r.body["error"]["code"] == code);
    Tail(r, expected);
    return r.body;
  }

  // What the user does in the service's web pages.
  Json::Value Browser(const char* title, const char* path, const Json::Value& fields) {
    Head(title);
    (void)std::fprintf(out_, "    > POST %s %s\n", path, Compact(fields).c_str());
    Reply r = PostForm(port_, path, fields);
    Tail(r, r.status == 200);
    return r.body;
  }

  // A request to the simulated service's conditions, expected to answer `status`.
  Json::Value Sim(const char* title, const char* method, const char* path, const std::string& json, int status) {
    Head(title);
    (void)std::fprintf(out_, "    > %s %s%s%s\n", method, path, json.empty() ? "" : " ", json.c_str());
    Reply r = Send(port_, method, path, json);
    Tail(r, r.status == status);
    return r.body;
  }

  void Note(const std::string& text) { (void)std::fprintf(out_, "\n    (%s)\n", text.c_str()); }
  int failed() const { return failed_; }

 private:
  void Head(const char* title) { (void)std::fprintf(out_, "\n%2d. %s\n", ++step_, title); }
  void Tail(const Reply& r, bool expected) {
    (void)std::fprintf(out_, "    < %d %s%s\n", r.status, r.text.c_str(), expected ? "" : "   <-- NOT AS EXPECTED");
    if (!expected) ++failed_;
  }

  FILE* out_;
  int port_;
  int step_ = 0;
  int failed_ = 0;
};

Json::Value Object(std::initializer_list<std::pair<const char*, Json::Value>> members) {
  Json::Value v(Json::objectValue);
  for (const auto& m : members) v[m.first] = m.second;
  return v;
}

}  // namespace

int Demo(const std::string& self, const std::string& module, FILE* out) {
  TempDir dir;
  const std::string state = dir.path() + "/state";
  ServeProcess host(self, module, state, dir.path() + "/serve.log", {"--check-answers"});
  if (host.port() < 0) {
    (void)std::fprintf(out, "demo: the host did not start:\n%s", host.Log().c_str());
    return 1;
  }
  const std::string& text = host.announcement();
  const size_t at = text.find("(device ");
  const std::string serial = at == std::string::npos ? "" : text.substr(at + 8, text.find(',', at) - at - 8);
  (void)std::fprintf(out, "A host of its own on port %d, with a fresh device %s in %s.\n", host.port(), serial.c_str(),
                     state.c_str());

  Tour t(out, host.port());
  const Json::Value none(Json::objectValue);
  t.Call("Is an account signed in on the fresh device?", kCenter, 2, "query", none);
  t.Call("Register an account (version 2): the device signs in with it", kCenter, 2, "register",
         Object({{"account", "ada@example.com"},
                 {"password", "secret1"},
                 {"fullname", "Ada Lovelace"},
                 {"critical_release", true},
                 {"enews", true},
                 {"country", "NL"}}));
  t.Call("Query again", kCenter, 2, "query", none);
  t.Call("The account's profile", kAccount, 1, "get", none);
  t.Call("Change the name and a notification setting", kAccount, 1, "set",
         Object({{"full_name", "Ada King"}, {"enews_local_promotion", true}, {"critical_version_list", "5.2.0"}}));
  t.Call("The profile has changed", kAccount, 1, "get", none);
  t.Call("Purchase history (every new account has a trial)", "TALV.Core.PellixCenter.Purchase", 1, "list",
         Object({{"date_from", "2000-01-01"}}));
  t.Call("Sign out", kCenter, 2, "logout", none);
  Json::Value in = t.Call("Sign in with address and password", kCenter, 2, "login",
                          Object({{"account", "ada@example.com"}, {"password", "secret1"}}));
  t.Call("Sign out", kCenter, 2, "logout", none);
  t.Call("Sign in again with the key of that sign-in", kCenter, 2, "login_by_key",
         Object({{"serial", serial}, {"auth_key", in["data"]["auth_key"]}}));
  t.Call("Sign out", kCenter, 2, "logout", none);
  Json::Value token = t.Browser("In the service's web page: an OAuth access token for the account", "/sim/token",
                                Object({{"email", "ada@example.com"}, {"password", "secret1"}}));
  t.Call("Sign in with the OAuth access token", kCenter, 2, "oauth_login",
         Object({{"access_token", token["access_token"]}}));
  t.Call("Sign out", kCenter, 2, "logout", none);
  t.Call("Register another account (version 1: the module's own HTTPS form post to account.php)", kCenter, 1,
         "register", Object({{"account", "bob@example.com"}, {"password", "123456"}, {"fullname", "Bob Byte"}}));
  t.Call("Sign in with the account registered by version 1", kCenter, 2, "login",
         Object({{"account", "bob@example.com"}, {"password", "123456"}}));
  t.Call("Sign out", kCenter, 2, "logout", none);
  Json::Value config = t.Call("PKCE settings", "TALV.Core.PellixCenter.Login", 1, "pkce_config_get", none);
  const Json::Value login = config["data"]["login"];
  Json::Value created = t.Call("The device makes a code verifier and tells its challenge",
                               "TALV.Remote.Credential.Verifier", 1, "create", none);
  const Json::Value challenge = created["data"]["challenge"];
  Json::Value grant =
      t.Browser("In the service's web page: sign in and get an authorisation code for the challenge", "/sim/authorize",
                Object({{"email", "ada@example.com"},
                        {"password", "secret1"},
                        {"code_challenge", challenge},
                        {"client_id", login["client_id"]},
                        {"redirect_uri", login["redirect_uri"]}}));
  t.Call("PKCE sign-in: the module fetches the verifier and the service checks it against the challenge",
         "TALV.Core.PellixCenter.Login", 1, "pkce_login",
         Object({{"code_challenge", challenge},
                 {"grant_code", grant["grant_code"]},
                 {"client_id", login["client_id"]},
                 {"token_endpoint", login["token_endpoint"]},
                 {"redirect_uri", login["redirect_uri"]}}));
  const std::string reasons = state + "/device/logout-reasons.conf";
  std::ofstream(reasons, std::ios::app) << "soft = A backup to the cloud is running\n";
  t.Note("a soft reason is written to " + reasons);
  t.Call("PKCE sign-out, refused by the soft check", "TALV.Core.PellixCenter.Logout", 1, "pkce_logout", none, 3014);
  t.Call("PKCE sign-out, forced", "TALV.Core.PellixCenter.Logout", 1, "pkce_logout", Object({{"force", true}}));
  t.Call("Nobody is signed in", kCenter, 2, "query", none);

  t.Note("the account service's failures: conditions set with POST /sim/conditions and cleared with DELETE");
  const Json::Value ada = Object({{"account", "ada@example.com"}, {"password", "secret1"}});
  const std::string conditions = "/sim/conditions";
  const Json::Value set =
      t.Sim("The account service cannot be reached", "POST", "/sim/conditions", R"({"unreachable":true})", 201);
  t.Call("Query: the service cannot be reached", kCenter, 2, "query", none, 3002);
  t.Call("Sign in: the same", kCenter, 2, "login", ada, 3002);
  t.Sim("Clear the condition", "DELETE", (conditions + "/" + set["id"].asString()).c_str(), "", 200);
  t.Sim("The next sign-in fails with account error 14, a wrong password", "POST", "/sim/conditions",
        R"({"account_error":14,"operations":["TALVPELLIXAccountLogin"],"times":1})", 201);
  t.Call("Sign in with the right password: answered as a wrong one", kCenter, 2, "login", ada, 3004);
  t.Call("Sign in again: that condition was used up", kCenter, 2, "login", ada);
  t.Call("Sign out, forced past the soft reason", kCenter, 2, "logout", Object({{"force", true}}));
  t.Sim("account.php takes the connection and, after a second, closes it unanswered", "POST", "/sim/conditions",
        R"({"account_php":"stall","delay_ms":1000})", 201);
  t.Call("Register by version 1: the transfer fails, as with no network", kCenter, 1, "register",
         Object({{"account", "carol@example.com"}, {"password", "secret3"}, {"fullname", "Carol Cable"}}), 3002);
  t.Sim("Clear every condition", "DELETE", "/sim/conditions", "", 200);
  t.Sim("None is in force", "GET", "/sim/conditions", "", 200);

  host.Stop(SIGTERM);
  // An answer the description does not allow fails the run, though its step
  // got the code it expected.
  const bool described = host.Log().find("does not match the description") == std::string::npos;
  if (t.failed() || !described) {
    (void)std::fprintf(out, "\n%d steps did not answer as expected%s. The host's log:\n%s", t.failed(),
                       described ? "" : ", and an answer did not match the description of the web API",
                       host.Log().c_str());
    return 1;
  }
  (void)std::fprintf(out, "\nEvery step answered as expected.\n");
  return 0;
}

}  // namespace webapihost
