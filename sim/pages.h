// The account service's pages that its links lead to, as the development
// host serves them under /sim/: the sign-in page at pkce_config_get's
// authorize_endpoint, the account's page at get_iframe_info's url, and the
// PKCE redirect targets. Each says what it stands for in the simulation.
// Every text that comes from a request or from the service is escaped.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>

namespace pellixsim {

// The sign-in page. `fields`: the request's (code_challenge, client_id,
// redirect_uri, email...); `login`: pkce_config_get's settings of the login
// flow, for what the fields leave out; `error`: why the last sign-in failed
// (empty: none).
std::string SignInPage(const Json::Value& fields, const Json::Value& login, const std::string& error);
// The account's page; `info` as pellixsim::Service::Query fills it, null
// when no account is signed in on the device.
std::string AccountPage(const Json::Value& info);
// The redirect target of `flow` ("login" or "register"), with `config` its
// settings, and `fields` what the browser brought (code, error).
std::string DonePage(const std::string& flow, const Json::Value& config, const Json::Value& fields,
                     int64_t grantLifetime);

}  // namespace pellixsim
