#include "simulation.h"

#include <httplib.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "one_line.h"
#include "origin.h"
#include "pages.h"
#include "route.h"
#include "snapshot.h"
#include "text.h"

namespace pellixsim {

using webapihost::Compact;
using webapihost::Cut;
using webapihost::Fields;
using webapihost::kErrBadRequest;
using webapihost::kErrUnknown;
using webapihost::OneLine;
using webapihost::ParseJson;
using webapihost::Since;

std::unique_ptr<Simulation> Simulation::Open(const std::string& folder, DeviceFacts device, FILE* log,
                                             std::string* error) {
  if (!MakeCertificates(folder, error)) return nullptr;
  std::unique_ptr<Store> store = Store::Open(folder + "/account.db", error);
  if (!store) {
    *error = "the account service's database cannot be used: " + *error +
             "\n  Move it away to start with no accounts, or pick another folder with --state.";
    return nullptr;
  }
  // A storage failure answers 3003; its cause is only here.
  store->OnFailure([log](const std::string& failure) {
    if (log) (void)std::fprintf(log, "account service: storage failed: %s\n", OneLine(failure).c_str());
  });
  return std::unique_ptr<Simulation>(new Simulation(folder, std::move(store), std::move(device), log));
}

Simulation::Simulation(std::string folder, std::unique_ptr<Store> store, DeviceFacts device, FILE* log)
    : folder_(std::move(folder)),
      store_(std::move(store)),
      service_(store_.get(), Options()),
      conditions_(log),
      backend_(&service_, std::move(device)),
      accountPhp_(&service_),
      log_(log) {
  accountPhp_.SetConductor([this] { return conditions_.NextConduct(); });
  conditions_.OnReachable([this](bool reachable) {
    std::string why;
    if (!accountPhp_.SetReachable(reachable, &why) && log_)
      (void)std::fprintf(log_, "account.php: %s\n", OneLine(why).c_str());
  });
}

Simulation::~Simulation() { accountPhp_.Stop(); }

int Simulation::StartAccountPhp(std::string* error) { return accountPhp_.Start(folder_, error); }

uint32_t Simulation::Export(std::string* service, Json::Value* signedIn) {
  Json::Value conditions(Json::arrayValue);
  const Json::Value inForce = conditions_.List();
  for (Json::Value c : inForce["conditions"]) {
    if (c.isMember("left")) c["times"] = c["left"];
    c.removeMember("left");
    c.removeMember("id");
    conditions.append(c);
  }
  return WriteService(*store_, service_.options(), backend_.Device().serial, &conditions, service, signedIn);
}

std::string Simulation::Check(const Json::Value& service, const Json::Value& signedIn) {
  std::string problem = CheckService(service, signedIn);
  if (!problem.empty() || !service.isMember("conditions")) return problem;
  const Json::Value& conditions = service["conditions"];
  if (!conditions.isArray()) return "/service/conditions: must be an array of conditions";
  for (Json::ArrayIndex i = 0; i < conditions.size(); ++i) {
    const std::string wrong = Conditions::Check(conditions[i], false);
    if (!wrong.empty()) return "/service/conditions/" + std::to_string(i) + ": " + wrong;
  }
  return "";
}

uint32_t Simulation::Import(const Json::Value& service, const Json::Value& signedIn, DeviceFacts device,
                            const std::string& generation) {
  const uint32_t written = ImportService(*store_, service_.options(), service, signedIn, device.serial, generation);
  if (written != kOk) return written;
  backend_.SetDevice(std::move(device));
  conditions_.ClearAll();
  std::string problem;
  if (service.isMember("conditions") && !service["conditions"].empty())
    conditions_.Set(service["conditions"], true, &problem);
  return kOk;
}

void Simulation::Authorize(const webapihost::Exchange& x) {
  if (x.req.method == "POST") return Browser(x);
  Page(x);
}

std::string Simulation::RedirectRefused(const webapihost::Exchange& x, const std::string& redirect) {
  const std::string origin = webapihost::OriginOf(redirect);
  if ((x.admitted.Own(origin) || x.admitted.Trusted(origin)) && redirect.find('#') == std::string::npos) return "";
  return "This sign-in cannot send you back to " + redirect +
         ": a redirect URI must be an address of this host or of an origin that serve --trust-origin names, "
         "without a fragment. Start the host with --trust-origin for your page's origin, or leave redirect_uri out.";
}

// The browser's side of the account service: what a user does in a web page
// of the service, which the device never sees.
void Simulation::Browser(const webapihost::Exchange& x) {
  const httplib::Request& req = x.req;
  httplib::Response& res = x.res;
  const auto start = std::chrono::steady_clock::now();
  Json::Value fields;
  std::string problem;
  uint32_t error = kBadParam;
  Json::Value answer(Json::objectValue);
  if (!Fields(req, x.body, false, &fields, &problem)) {
    answer["error"] = problem;
    x.Json(400, Compact(answer));
    x.Log(req.method + " " + req.path + ": 400 (" + problem + ")");
    return;
  }
  auto text = [&](const char* name, const std::string& fallback = "") {
    return fields[name].isString() ? fields[name].asString() : fallback;
  };
  const Json::Value login = service_.PkceConfig("login");
  // A sign-in from the service's sign-in page (Page) goes on as a page: to
  // the redirect target with the grant code, or back to the form.
  const bool signInPage = req.path == "/sim/authorize" && req.get_header_value("Sec-Fetch-Mode") == "navigate";
  std::string code;
  const std::string redirect = text("redirect_uri", login["redirect_uri"].asString());
  // The sign-in page sends the browser, with a grant, only to the host or a
  // trusted origin: anywhere else would be an open redirect.
  const std::string wrongTarget = RedirectRefused(x, redirect);
  if (signInPage && !wrongTarget.empty()) {
    x.Page(400, SignInPage(fields, login, wrongTarget));
    x.Log(req.method + " " + req.path + ": 400 (" + wrongTarget + ")");
    return;
  }
  if (req.path == "/sim/authorize") {
    error = service_.IssueGrant(text("email"), text("password"), text("client_id", kClientId), redirect,
                                text("code_challenge"), text("code_challenge_method", "S256"), &code);
    answer["grant_code"] = code;
    answer["redirect_uri"] = redirect;
    answer["expires_in"] = static_cast<Json::Int64>(service_.options().grantLifetime);
  } else if (req.path == "/sim/register") {
    NewAccount account;
    account.email = text("email");
    account.password = text("password");
    account.fullName = text("full_name");
    account.country = text("country");
    error = service_.Register("", account);
    answer["email"] = account.email;
    answer["registered"] = true;
  } else {
    std::string token;
    error = service_.IssueAccessToken(text("email"), text("password"), &token);
    answer["access_token"] = token;
    answer["token_type"] = "Bearer";
    answer["expires_in"] = static_cast<Json::Int64>(service_.options().tokenLifetime);
  }
  int status = 200;
  std::string wrong;
  if (error != kOk) {
    answer = Json::Value(Json::objectValue);
    answer["account_error"] = error;
    wrong = error == kBadAuth    ? "wrong e-mail address or password"
            : error == kBadParam ? "missing or malformed field"
            : error == kInUse    ? "the e-mail address is taken"
                                 : "the service failed";
    answer["error"] = wrong;
    status = error == kBadAuth ? 401 : error == kBadParam ? 400 : error == kInUse ? 409 : 500;
  }
  // On the host the redirect goes by path, so the browser stays on the name
  // it used for the host; to a trusted origin, as it is. The state the
  // request brought goes back with the code (RFC 6749, 4.1.2).
  if (signInPage && error != kOk) {
    x.Page(status, SignInPage(fields, login, "The sign-in failed: " + wrong + "."));
  } else if (signInPage) {
    status = 303;
    res.status = status;
    std::string target = redirect;
    if (x.admitted.Own(webapihost::OriginOf(redirect))) {
      const size_t path = redirect.find_first_of("/?", redirect.find("://") + 3);
      target = "/" + (path == std::string::npos ? "" : redirect.substr(redirect[path] == '/' ? path + 1 : path));
    }
    const std::string state = text("state");
    res.set_header("Location", target + (target.find('?') == std::string::npos ? "?code=" : "&code=") + code +
                                   (state.empty() ? "" : "&state=" + httplib::detail::encode_query_param(state)));
  } else {
    x.Json(status, Compact(answer));
  }
  x.Log(req.method + " " + req.path + ": " + std::to_string(status) + ", " + Since(start) +
        (wrong.empty() ? "" : " (" + wrong + ")"));
}

// The account service's pages that its links lead to (pages.h).
void Simulation::Page(const webapihost::Exchange& x) {
  const httplib::Request& req = x.req;
  Json::Value fields;
  std::string problem;
  if (!Fields(req, x.body, false, &fields, &problem)) return x.Refuse(400, kErrBadRequest, problem);
  if (req.path == "/sim/authorize") {
    const Json::Value login = service_.PkceConfig("login");
    const Json::Value& asked = fields["redirect_uri"];
    const std::string wrong =
        RedirectRefused(x, asked.isString() ? asked.asString() : login["redirect_uri"].asString());
    x.Page(wrong.empty() ? 200 : 400, SignInPage(fields, login, wrong));
    if (!wrong.empty()) return x.Log(req.method + " " + req.path + ": 400 (" + wrong + ")");
  } else if (req.path == "/sim/account") {
    Json::Value info;
    const uint32_t error = service_.Query(backend_.Device().serial, &info);
    if (error != kOk && error != kNotSignedIn)
      return x.Refuse(500, kErrUnknown, "the account service cannot read the device's account");
    x.Page(200, AccountPage(error == kOk ? info : Json::Value()));
  } else {
    const std::string flow = req.path == "/sim/register/done" ? "register" : "login";
    x.Page(200, DonePage(flow, service_.PkceConfig(flow), fields, service_.options().grantLifetime));
  }
  x.Log(req.method + " " + req.path + ": 200");
}

// The account service's conditions (conditions.h): GET lists them, POST sets
// one and answers 201 with its id, DELETE clears one or all.
void Simulation::InForce(const webapihost::Exchange& x) {
  const httplib::Request& req = x.req;
  const webapihost::RequestBody& body = x.body;
  Json::Value answer(Json::objectValue);
  int status = 200;
  if (req.method == "POST") {
    const std::string type = req.get_header_value("Content-Type");
    if (type.rfind("application/json", 0) != 0)
      return x.Refuse(
          415, kErrBadRequest,
          (type.empty() ? std::string("the body has no Content-Type") : "Content-Type \"" + Cut(type) + "\"") +
              ": send the condition as a JSON object, with Content-Type application/json");
    Json::Value condition;
    std::string problem;
    if (body.text.empty()) return x.Refuse(400, kErrBadRequest, "the body is empty: send one condition, a JSON object");
    if (!ParseJson(body.text, &condition, &problem))
      return x.Refuse(400, kErrBadRequest, "the body is not JSON: " + problem);
    const std::vector<int> ids = conditions_.Set(condition, false, &problem);
    if (ids.empty()) return x.Refuse(400, kErrBadRequest, problem);
    status = 201;
    answer["id"] = ids[0];
    x.res.set_header("Location", "/sim/conditions/" + std::to_string(ids[0]));
  } else if (req.method == "DELETE") {
    std::vector<int> ids;
    if (req.path == "/sim/conditions") {
      ids = conditions_.ClearAll();
    } else {
      const std::string id = req.path.substr(std::strlen("/sim/conditions/"));
      char* end = nullptr;
      const long n = std::strtol(id.c_str(), &end, 10);
      if (id.empty() || *end || n <= 0 || n > INT_MAX || !conditions_.Clear(static_cast<int>(n)))
        return x.Refuse(404, kErrBadRequest,
                        "no condition \"" + Cut(id) + "\" is in force: GET /sim/conditions lists those that are");
      ids.push_back(static_cast<int>(n));
    }
    answer["cleared"] = Json::Value(Json::arrayValue);
    for (int id : ids) answer["cleared"].append(id);
  } else {
    answer = conditions_.List();
  }
  x.res.set_header("Cache-Control", "no-store");
  x.Json(status, Compact(answer));
  x.Log(req.method + " " + req.path + ": " + std::to_string(status));
}

}  // namespace pellixsim
