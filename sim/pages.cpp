#include "pages.h"

namespace pellixsim {
namespace {

std::string Html(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&#39;"; break;
      default: out += c;
    }
  }
  return out;
}

// A field of `fields` as text, else `fallback`.
std::string Text(const Json::Value& fields, const char* name, const std::string& fallback = "") {
  return fields[name].isString() ? fields[name].asString() : fallback;
}

std::string Page(const std::string& title, const std::string& body) {
  return "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\"><title>" +
         title +
         "</title>\n<style>body{font:16px/1.5 system-ui,sans-serif;max-width:42em;margin:2em auto;padding:0 1em}"
         "code{overflow-wrap:anywhere}label{display:block;margin:.6em 0}.error{color:#a40000}</style></head>\n"
         "<body><h1>" +
         title + "</h1>\n" + body + "</body></html>\n";
}

const char kSimulation[] = "<p>In the simulation that <code>webapi-host</code> serves, ";

}  // namespace

std::string SignInPage(const Json::Value& fields, const Json::Value& login, const std::string& error) {
  auto hidden = [&](const char* name, const std::string& fallback) {
    return "<input type=\"hidden\" name=\"" + std::string(name) + "\" value=\"" + Html(Text(fields, name, fallback)) +
           "\">";
  };
  return Page("Account service: sign in",
              kSimulation +
                  std::string("this page stands for the account service's sign-in page, the "
                              "<code>authorize_endpoint</code> of <code>pkce_config_get</code>. Signing in issues a "
                              "grant code for the challenge below and sends the browser with it to the "
                              "<code>redirect_uri</code>, as the service does.</p>\n") +
                  (error.empty() ? "" : "<p class=\"error\" role=\"alert\">" + Html(error) + "</p>\n") +
                  "<form method=\"post\" action=\"/sim/authorize\">\n"
                  "<label>E-mail address <input name=\"email\" type=\"email\" required autocomplete=\"username\" "
                  "value=\"" +
                  Html(Text(fields, "email")) +
                  "\"></label>\n"
                  "<label>Password <input name=\"password\" type=\"password\" required "
                  "autocomplete=\"current-password\"></label>\n"
                  "<label>Code challenge (S256), as <code>TALV.Remote.Credential.Verifier</code> "
                  "<code>create</code> answers it <input name=\"code_challenge\" required size=\"50\" value=\"" +
                  Html(Text(fields, "code_challenge")) + "\"></label>\n" +
                  hidden("client_id", Text(login, "client_id")) + hidden("redirect_uri", Text(login, "redirect_uri")) +
                  hidden("state", "") + hidden("code_challenge_method", "S256") +
                  "\n<button>Sign in</button>\n</form>\n");
}

std::string AccountPage(const Json::Value& info) {
  std::string body = kSimulation + std::string(
                                       "this page stands for the account service's own page of the account signed "
                                       "in on the device, the <code>url</code> that <code>get_iframe_info</code> "
                                       "answers.</p>\n");
  if (info.isNull())
    return Page("Account service: no account", body + "<p>No account is signed in on the device.</p>\n");
  const std::string country = Text(info, "country");
  return Page("Account service: your account",
              body + "<dl>\n<dt>E-mail address</dt><dd>" + Html(Text(info, "email")) + "</dd>\n<dt>Full name</dt><dd>" +
                  Html(Text(info, "full_name")) + "</dd>\n<dt>Country</dt><dd>" +
                  (country.empty() ? "none given" : Html(country)) +
                  "</dd>\n<dt>Notices of critical releases</dt><dd>" +
                  (info["critical_release"].asBool() ? "yes" : "no") + "</dd>\n</dl>\n");
}

std::string DonePage(const std::string& flow, const Json::Value& config, const Json::Value& fields,
                     int64_t grantLifetime) {
  const std::string code = Text(fields, "code");
  const std::string error = Text(fields, "error");
  std::string body = kSimulation + std::string("this page is the <code>redirect_uri</code> of the ") + Html(flow) +
                     " flow of <code>pkce_config_get</code>: the account service sends the browser here after a "
                     "sign-in at its <code>authorize_endpoint</code>, with the grant code in <code>code</code>.</p>\n";
  if (!code.empty())
    body += "<p>It received the grant code <code>" + Html(code) +
            "</code>. Pass it to <code>pkce_login</code> as <code>grant_code</code>, with the "
            "<code>code_challenge</code> it was issued for, <code>client_id</code> <code>" +
            Html(Text(config, "client_id")) + "</code> and <code>redirect_uri</code> <code>" +
            Html(Text(config, "redirect_uri")) + "</code>; it signs in once, within " +
            std::to_string(grantLifetime / 60) + " minutes of the sign-in.</p>\n";
  else if (!error.empty())
    body += "<p class=\"error\">It received no grant code but the error <code>" + Html(error) + "</code>.</p>\n";
  else
    body += "<p>It received no grant code: the address has no <code>code</code>.</p>\n";
  return Page(flow == "register" ? "Account service: back from registering" : "Account service: back from signing in",
              body);
}

}  // namespace pellixsim
