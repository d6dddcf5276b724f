// `webapi-host serve` and `webapi-host demo`.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace webapihost {

struct ServeOptions {
  std::string module;                // path of pellixcenter.so
  std::string state;                 // the state folder
  int port = 8080;                   // 0: any free port
  std::string language;              // the interface language of requests
  std::string pages;                 // the administration page's folder (empty: none)
  std::string schema;                // the web API's description (empty: none)
  bool checkAnswers = false;         // log every answer of /webapi/entry the description does not allow
  std::string conditions;            // a file of the account service's conditions set at start (empty: none)
  std::vector<std::string> trusted;  // origins whose pages may use the host, as ParseOrigin answers them
  std::string web;                   // the developer's interface, served at / (empty: none)
  std::string pkceRedirect;          // pkce_config_get's login redirect_uri (empty: the host's own page)
  std::string seed;                  // a state document, or a fixture's name, to start from (empty: the folder's state)
  std::string journal;               // a file each journal entry is appended to, one JSON line each (empty: none)
  size_t journalSize = 10000;        // the requests the journal keeps
  FILE* out = stdout;                // where the URL and the examples go
  FILE* log = stderr;                // one line per request, and the module's log
};

// Serves until SIGINT or SIGTERM. Exit status: 0 after a signal, 1 when the
// state folder or its database cannot be used, the folder is in use by
// another host, the conditions file cannot be read or set, the seed cannot be
// read or is refused, the journal file cannot be opened, or start-up fails
// otherwise; 2 a port in use, or a PKCE redirect URI of neither the host
// nor a trusted origin; 3 the module
// cannot be loaded.
int Serve(const ServeOptions& options);

// Starts a host on a free port and a temporary state folder, in a child
// process, and drives a whole account life cycle through it, then a few of
// the account service's conditions, printing each request and answer. 0 when every step answered as expected.
int Demo(const std::string& self, const std::string& module, FILE* out);

}  // namespace webapihost
