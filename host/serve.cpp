#include "serve.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include "conditions.h"
#include "devhost.h"
#include "feasibility/checker.h"
#include "harness.h"
#include "one_line.h"
#include "origin.h"
#include "pellix/backend.h"
#include "seam/seam.h"
#include "simulation.h"
#include "snapshot.h"
#include "state.h"
#include "syslog_capture.h"
#include "trust.h"
#include "webapi/runner.h"

namespace webapihost {
namespace {

// The examples printed at start; each works as shown on a fresh state (the
// registration then answers 3010 or 3005 on later runs, which is the point).
void Announce(FILE* out, const std::string& url, const StateFolder& state, const std::string& accountPhp,
              const std::string& pages, const std::string& trusted, const std::string& conditions,
              const std::string& known) {
  const std::string entry = url + "/webapi/entry";
  (void)std::fprintf(
      out,
      "webapi-host: serving pellixcenter.so at %s\n"
      "  administration page %s\n"
      "  %s\n"
      "  state folder %s (device %s, %s, build %s)\n"
      "  sign-out refusal reasons in %s\n"
      "  %s\n"
      "  conditions of the account service at %s/sim/conditions%s\n"
      "%s"
      "  To start over with a new device and no accounts, stop and remove the state folder, or use another --state.\n"
      "Try:\n"
      "  curl -s '%s?api=TALV.Core.PellixCenter&version=2&method=query'\n"
      "  curl -s %s -d api=TALV.Core.PellixCenter -d version=2 -d method=register "
      "-d account=ada@example.com -d password=secret1 -d fullname='Ada Lovelace' -d critical_release=true\n"
      "  curl -s %s -H 'Content-Type: application/json' "
      "-d '{\"api\":\"TALV.Core.PellixCenter.Account\",\"version\":1,\"method\":\"get\"}'\n"
      "  curl -s %s -d api=TALV.Core.PellixCenter -d version=2 -d method=logout -d force=true\n"
      "  curl -s %s -d api=TALV.Core.PellixCenter -d version=2 -d method=login "
      "-d account=ada@example.com -d password=secret1\n"
      "Stop with Ctrl-C.\n",
      entry.c_str(), pages.c_str(), trusted.c_str(), state.root.c_str(), state.serial.c_str(), state.model.c_str(),
      state.build.c_str(), state.ReasonsFile().c_str(), accountPhp.c_str(), url.c_str(), conditions.c_str(),
      known.c_str(), entry.c_str(), entry.c_str(), entry.c_str(), entry.c_str(), entry.c_str());
  (void)std::fflush(out);
}

// Ctrl-C and SIGTERM once the host's threads run. The first signal stops the
// host: it takes no new connection and answers the requests under way; once
// none is, the process ends, whatever connections browsers keep open for
// their next request. A request may take up to the module's 30-second
// transfer limit, so after kGrace, or at a second signal, the process ends
// there and then: the kernel closes what is still open, and the service's
// database keeps every transaction whole or not at all.
class Stopper {
 public:
  static constexpr int kGraceSeconds = 3;

  // Blocks the signals in this thread and so in every thread started after
  // it; a thread of its own takes them, and then calls `stop` until Done()
  // while `underWay` is not 0.
  Stopper(std::function<void()> stop, std::function<int()> underWay)
      : stop_(std::move(stop)), underWay_(std::move(underWay)) {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    thread_ = std::thread([this] { Wait(); });
  }
  ~Stopper() {
    Done();
    thread_.join();
  }
  Stopper(const Stopper&) = delete;
  Stopper& operator=(const Stopper&) = delete;

  bool stopping() const { return stopping_; }
  // The host has stopped, or never will serve: nothing more to stop.
  void Done() { done_ = true; }

 private:
  bool Next() {
    const timespec tick{0, 50L * 1000 * 1000};  // 50 ms
    return sigtimedwait(&signals_, nullptr, &tick) > 0;
  }
  [[noreturn]] static void End(const char* why) {
    if (why) (void)std::fprintf(stderr, "webapi-host: %s; closing the connections still open\n", why);
    (void)std::fflush(nullptr);
    _exit(0);
  }

  void Wait() {
    while (!done_ && !Next()) {
    }
    if (done_) return;
    stopping_ = true;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kGraceSeconds);
    // Again and again: the host may not have begun to serve at the first.
    for (stop_();; stop_()) {
      const bool again = Next();
      if (done_) return;
      if (again) End("stopped again");
      if (underWay_() == 0) End(nullptr);
      if (std::chrono::steady_clock::now() >= deadline) End("requests still under way after 3 s");
    }
  }

  sigset_t signals_;
  std::function<void()> stop_;
  std::function<int()> underWay_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> done_{false};
  std::thread thread_;
};

}  // namespace

int Serve(const ServeOptions& o) {
  // Until the first thread starts, Ctrl-C and SIGTERM end the process as they
  // do any program: nothing is under way, and every file here is written
  // whole or not at all.
  StateFolder state;
  std::string error;
  Json::Value initial(Json::arrayValue);
  if (!o.conditions.empty() && !pellixsim::Conditions::ReadFile(o.conditions, &initial, &error)) {
    (void)std::fprintf(stderr, "webapi-host: %s\n", error.c_str());
    return 1;
  }
  std::unique_ptr<AnswerCheck> check;
  if (o.checkAnswers) {
    check = AnswerCheck::Load(o.schema.empty() ? "the description of the web API (not found)" : o.schema, &error);
    if (!check) {
      (void)std::fprintf(stderr, "webapi-host: --check-answers: %s\n", error.c_str());
      return 1;
    }
  }
  Json::Value seed;
  if (!o.seed.empty() && !ReadDocument(o.seed, &seed, &error)) {
    (void)std::fprintf(stderr, "webapi-host: --seed: %s\n", error.c_str());
    return 1;
  }
  std::unique_ptr<FILE, int (*)(FILE*)> journalFile(nullptr, std::fclose);
  if (!o.journal.empty()) {
    journalFile.reset(std::fopen(o.journal.c_str(), "ae"));
    if (!journalFile) {
      (void)std::fprintf(stderr, "webapi-host: cannot append to the journal file %s: %s\n", o.journal.c_str(),
                         std::strerror(errno));
      return 1;
    }
  }
  if (!OpenState(o.state, &state, &error)) {
    (void)std::fprintf(stderr, "webapi-host: %s\n", error.c_str());
    return 1;
  }
  std::unique_ptr<pellixsim::Simulation> sim = pellixsim::Simulation::Open(
      state.service, pellixsim::DeviceFacts{state.serial, state.language, state.timezone}, o.log, &error);
  if (!sim) {
    (void)std::fprintf(stderr, "webapi-host: %s\n", error.c_str());
    return 1;
  }
  if (!o.seed.empty()) {
    const Imported seeded = ImportState(&state, *sim, seed, &error);
    if (seeded != Imported::kDone) {
      (void)std::fprintf(stderr, "webapi-host: --seed %s: %s\n", o.seed.c_str(), error.c_str());
      return 1;
    }
  }
  // The module trusts the service's endpoint through the trust store, as the
  // device trusts the real service.
  std::string untrusted;
  std::ifstream caPem(state.service + "/ca.pem");
  const std::string ca((std::istreambuf_iterator<char>(caPem)), std::istreambuf_iterator<char>());
  if (!TrustAuthorities(ca, &untrusted))
    (void)std::fprintf(stderr,
                       "webapi-host: %s: the module does not trust the account service's certificate, and version-1 "
                       "registration answers badnetwork, as on a device that cannot reach the service\n",
                       untrusted.c_str());

  syslogcapture::SetEcho(o.log, false);
  std::unique_ptr<Module> module = Module::Load(o.module, &error);
  if (!module) {
    (void)std::fprintf(stderr, "webapi-host: cannot load module: %s\n", error.c_str());
    return 3;
  }

  pellixsim::Conditions& conditions = sim->conditions();
  DevHost host(module.get(), sim.get(), o.log, o.language.empty() ? "enu" : o.language);
  host.SetPages(o.pages);
  host.SetSchema(o.schema);
  host.SetAnswerCheck(check.get());
  Json::Value device(Json::objectValue);
  device["serial"] = state.serial;
  device["model"] = state.model;
  device["build"] = state.build;
  host.SetDevice(device);
  host.SetTrustedOrigins(o.trusted);
  host.SetWeb(o.web);
  host.SetState(&state);
  Journal journal(o.journalSize, journalFile.get());
  host.SetJournal(&journal);
  // From here on threads run, and the signals are the stopper's.
  Stopper stopper([&host] { host.Stop(); }, [&host] { return host.RequestsUnderWay(); });
  const int port = host.Bind(o.port);
  if (port < 0) {
    const int why = errno;
    (void)std::fprintf(
        stderr,
        "webapi-host: cannot listen on 127.0.0.1:%d: %s; pick another port with --port (0 takes any free one)\n",
        o.port, why == EADDRINUSE ? "the port is in use by another program" : std::strerror(why));
    return 2;
  }
  const std::string url = "http://127.0.0.1:" + std::to_string(port);
  sim->SetBaseUrl(url);
  if (!o.pkceRedirect.empty()) {
    const std::string origin = OriginOf(o.pkceRedirect);
    if (!host.admitted().Own(origin) && !host.admitted().Trusted(origin)) {
      (void)std::fprintf(stderr,
                         "webapi-host: --pkce-redirect-uri %s is neither this host's (%s/...) nor of an origin that "
                         "--trust-origin names; the sign-in page sends the browser only there\n",
                         o.pkceRedirect.c_str(), url.c_str());
      return 2;
    }
    sim->service().SetLoginRedirectUri(o.pkceRedirect);
  }
  talvfeasibility::ReasonsFileChecker reasons(
      state.ReasonsFile(), [&conditions](const std::string& grade) { return conditions.LogoutReasons(grade); });
  const int phpPort = sim->StartAccountPhp(&error);
  const std::string phpHost = phpPort > 0 ? "127.0.0.1:" + std::to_string(phpPort) : "";
  if (phpPort < 0) (void)std::fprintf(stderr, "webapi-host: %s; version-1 registration has no host\n", error.c_str());
  if (!WriteRelayHost(state, phpHost, &error)) {
    (void)std::fprintf(stderr, "webapi-host: %s\n", error.c_str());
    return 1;
  }
  const std::string phpLine = phpPort < 0 ? "account.php is not served"
                                          : "account.php at https://" + phpHost + "/account.php, " +
                                                (untrusted.empty() ? "trusted through " + state.service + "/ca.pem"
                                                                   : "not trusted by the module: " + untrusted);
  // Nobody reads the seam's journal here; it would only keep the arguments of
  // the latest calls, passwords among them, for as long as the host runs.
  talvseam::SetJournaling(false);
  talvpellix::SetBackend(sim->backend());
  talvwebapi::SetRunner(&host);
  talvfeasibility::SetChecker(&reasons);

  std::string trusted;
  for (const std::string& origin : o.trusted) trusted += (trusted.empty() ? "" : ", ") + origin;
  trusted = trusted.empty() ? "trusted origins: none (a page of another origin is refused; --trust-origin ORIGIN lets "
                              "its pages in)"
                            : "trusted origins: " + trusted + " (their pages may use every path)";
  std::string problem;
  const size_t set = initial.empty() ? 0 : conditions.Set(initial, true, &problem).size();
  Announce(o.out, url, state, phpLine,
           (o.pages.empty() ? "not served: no folder web/ beside the program or in the source tree"
                            : url + (o.web.empty() ? "/" : "/admin/") + " (from " + o.pages + ")") +
               (o.web.empty() ? "" : "; your interface " + url + "/ (from " + o.web + ")"),
           trusted, o.conditions.empty() ? "" : " (" + std::to_string(set) + " set from " + o.conditions + ")",
           "  the whole state at " + url + "/sim/state" + (o.seed.empty() ? "" : " (seeded from " + o.seed + ")") +
               ", a reset at POST " + url + "/sim/reset, the journal of the last " + std::to_string(o.journalSize) +
               " requests at " + url + "/sim/journal" + (o.journal.empty() ? "" : " and in " + o.journal) + "\n");
  const bool served = stopper.stopping() || host.Serve();
  stopper.Done();
  sim->Stop();

  talvpellix::SetBackend(nullptr);
  talvwebapi::SetRunner(nullptr);
  talvfeasibility::SetChecker(nullptr);
  return served ? 0 : 1;
}

}  // namespace webapihost
