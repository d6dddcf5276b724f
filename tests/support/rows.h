// The module's API table as the host must find it, row by row.
#pragma once

namespace pellixtest {

struct Row {
  const char* api;
  int version;
  const char* method;
  const char* handler;  // symbol name
};

inline const Row kRows[15] = {
    {"TALV.Core.PellixCenter", 1, "register", "_Z8RegisterPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter", 2, "login", "_Z5LoginPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter", 2, "login_by_key", "_Z10LoginByKeyPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter", 2, "logout", "_Z6LogoutPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter", 2, "register", "_Z11Register_v2PN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter", 2, "query", "_Z5QueryPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter", 2, "get_iframe_info", "_Z13GetIframeInfoPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter", 2, "oauth_login", "_Z10OauthLoginPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter", 2, "handle_apikey_error", "_Z17HandleApiKeyErrorPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter.Login", 1, "pkce_login", "_Z9PkceLoginPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter.Login", 1, "pkce_config_get", "_Z13PkceConfigGetPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter.Logout", 1, "pkce_logout", "_Z10PkceLogoutPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter.Purchase", 1, "list", "_Z12ListPurchasePN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter.Account", 1, "get", "_Z14GetAccountInfoPN4TALV10APIRequestEPNS_11APIResponseE"},
    {"TALV.Core.PellixCenter.Account", 1, "set", "_Z14SetAccountInfoPN4TALV10APIRequestEPNS_11APIResponseE"},
};

}  // namespace pellixtest
