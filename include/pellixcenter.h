// pellixcenter.so: the web API module that links the device to a Pellix account.
//
// The host loads the module, calls GetAPITable and dispatches each request to
// the handler of the row whose API name, version and method match.
#pragma once

#include "talv/webapi.h"

#include <string>

// Maps the account service's answer keyword to a web API error code.
struct PellixErrorCodeEntry {
  const char* szKey;  // null in the terminating row
  int iCode;
};

extern "C" {
// 15 rows and an all-zero terminator.
extern TALV::APITableEntry grgTable[16];
// 8 keywords and a terminator whose key is null.
extern PellixErrorCodeEntry grgErrorCodeMap[9];
// The address of grgTable's first row.
TALV::APITableEntry* GetAPITable(void);
}

// Handlers, one per table row. Each gives exactly one answer.
void Register(TALV::APIRequest* request, TALV::APIResponse* response);
void Login(TALV::APIRequest* request, TALV::APIResponse* response);
void LoginByKey(TALV::APIRequest* request, TALV::APIResponse* response);
void Logout(TALV::APIRequest* request, TALV::APIResponse* response);
void Register_v2(TALV::APIRequest* request, TALV::APIResponse* response);
void Query(TALV::APIRequest* request, TALV::APIResponse* response);
void GetIframeInfo(TALV::APIRequest* request, TALV::APIResponse* response);
void OauthLogin(TALV::APIRequest* request, TALV::APIResponse* response);
void HandleApiKeyError(TALV::APIRequest* request, TALV::APIResponse* response);
void PkceLogin(TALV::APIRequest* request, TALV::APIResponse* response);
void PkceConfigGet(TALV::APIRequest* request, TALV::APIResponse* response);
void PkceLogout(TALV::APIRequest* request, TALV::APIResponse* response);
void ListPurchase(TALV::APIRequest* request, TALV::APIResponse* response);
void GetAccountInfo(TALV::APIRequest* request, TALV::APIResponse* response);
void SetAccountInfo(TALV::APIRequest* request, TALV::APIResponse* response);

// The PKCE code verifier that belongs to `challenge`, from the device's
// credential-verifier web API. Throws std::runtime_error when there is none.
std::string getCodeVerifier(std::string challenge);
