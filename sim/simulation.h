// The simulated Pellix account service, whole: the vendor's cloud as a
// development device meets it. One Simulation owns the service's rules and
// store (service.h, store.h), account.php on its TLS endpoint with the
// state's certificate authority (account_php.h), the conditions that make it
// fail on request (conditions.h), the backend the device's account-client
// library talks to (backend.h), and the service's browser side: the pages
// its links lead to and what a user does there (pages.h), which the
// development host mounts among its routes (host/route.h).
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "account_php.h"
#include "backend.h"
#include "conditions.h"
#include "service.h"
#include "store.h"

namespace webapihost {
class Exchange;
}

namespace pellixsim {

class Simulation {
 public:
  // The service kept in `folder`: account.db, the certificate authority and
  // account.php's certificates (made on first use), for the device
  // `device`. `log` gets the service's own lines: storage failures, and the
  // conditions set, bitten and cleared (nullptr: none). nullptr with *error
  // naming what cannot be used.
  static std::unique_ptr<Simulation> Open(const std::string& folder, DeviceFacts device, FILE* log, std::string* error);
  ~Simulation();  // clears the conditions, stops account.php
  Simulation(const Simulation&) = delete;
  Simulation& operator=(const Simulation&) = delete;

  // What the device's account-client library talks to (talvpellix::SetBackend).
  talvpellix::Backend* backend() { return &backend_; }
  Conditions& conditions() { return conditions_; }
  Service& service() { return service_; }
  // Where the service keeps its state: account.db, and its authority's
  // ca.pem, which the device must trust.
  const std::string& folder() const { return folder_; }
  // Where the browser's side is served (the host's address); set before the
  // first request.
  void SetBaseUrl(const std::string& url) { service_.SetBaseUrl(url); }
  // Serves account.php on a free port of 127.0.0.1: the port, or -1 with
  // *error.
  int StartAccountPhp(std::string* error);
  // The service's part of the host's state document (snapshot.h) written
  // onto *service, the conditions in force among it ("conditions": each as
  // it was set, "times" what is left of it), and the device's binding in
  // *signedIn. kSystem on a storage failure.
  uint32_t Export(std::string* service, Json::Value* signedIn);
  // Why the service's part of a document cannot be imported ("" when it
  // can): a sentence beginning with the JSON pointer of the member at fault.
  static std::string Check(const Json::Value& service, const Json::Value& signedIn);
  // Replaces the service's state with a checked one, for the device `device`
  // (whose facts the service takes from here on), and the conditions in force
  // with the document's; the database records `generation` as the import's
  // (ImportService). kSystem, and nothing changed, on a storage failure.
  uint32_t Import(const Json::Value& service, const Json::Value& signedIn, DeviceFacts device,
                  const std::string& generation);
  // The store's last storage failure.
  std::string LastFailure() const { return store_->LastFailure(); }
  // Cuts account.php's connections still open.
  void Stop() { accountPhp_.Stop(); }

  // The browser's side, as routes of the host. A user's sign-in page and
  // its sign-in (GET and POST /sim/authorize), access tokens and
  // registrations (POST /sim/token, /sim/register), the pages the service's
  // links lead to (/sim/account, /sim/login/done, /sim/register/done), and
  // the conditions (GET, POST and DELETE /sim/conditions[/ID]).
  void Authorize(const webapihost::Exchange& x);
  void Browser(const webapihost::Exchange& x);
  void Page(const webapihost::Exchange& x);
  void InForce(const webapihost::Exchange& x);

 private:
  // Why the sign-in page may not send the browser to `redirect` (empty: it
  // may): neither the host's nor a trusted origin's.
  static std::string RedirectRefused(const webapihost::Exchange& x, const std::string& redirect);
  Simulation(std::string folder, std::unique_ptr<Store> store, DeviceFacts device, FILE* log);

  const std::string folder_;
  std::unique_ptr<Store> store_;
  Service service_;
  Conditions conditions_;  // outlives account.php, whose threads ask it
  SimBackend backend_;
  AccountPhp accountPhp_;
  FILE* log_;
};

}  // namespace pellixsim
