// Requests per second of the development host: `webapi-host serve` in a child
// process with a fresh state folder and a signed-in account, and 8 clients
// that each keep one connection open and send `query` as fast as it answers.
// Clients and host share the machine's cores, as they do on a device whose
// administration page is open in several tabs. Then the latency of a `query`
// on a connection of its own beside 64 idle ones, as many tabs keep open.
// WEBAPI_HOST in the environment measures another build's host.
#include <benchmark/benchmark.h>
#include <httplib.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client.h"

namespace {

const char kQuery[] = "/webapi/entry?api=TALV.Core.PellixCenter&version=2&method=query";

struct Host {
  webapihost::TempDir dir;
  std::unique_ptr<webapihost::ServeProcess> process;
  std::unique_ptr<webapihost::IdleConnections> idle;
  std::string problem;  // why there is nothing to measure
};

Host& Started() {
  static Host host;
  static std::once_flag once;
  std::call_once(once, [] {
    const char* program = std::getenv("WEBAPI_HOST");
    host.process = std::make_unique<webapihost::ServeProcess>(
        program ? program : WEBAPI_HOST, PELLIXCENTER_SO, host.dir.path() + "/state", host.dir.path() + "/serve.log");
    const int port = host.process->port();
    if (port < 0) {
      host.problem = "webapi-host serve did not start: " + host.process->Log();
      return;
    }
    Json::Value account;
    account["email"] = "ada@example.com";
    account["password"] = "secret1";
    account["full_name"] = "Ada Lovelace";
    Json::Value login;
    login["account"] = "ada@example.com";
    login["password"] = "secret1";
    if (webapihost::PostForm(port, "/sim/register", account).status != 200 ||
        !webapihost::CallWebApi(port, "TALV.Core.PellixCenter", 2, "login", login).body["success"].asBool())
      host.problem = "the account could not be signed in";
  });
  return host;
}

void Query(benchmark::State& state) {
  Host& host = Started();
  if (!host.problem.empty()) {
    state.SkipWithError(host.problem.c_str());
    return;
  }
  httplib::Client client("127.0.0.1", host.process->port());
  client.set_keep_alive(true);
  for (auto _ : state) {
    httplib::Result r = client.Get(kQuery);
    // Every answer is read whole and checked: a fast wrong answer is no answer.
    if (!r || r->status != 200 || r->body.find("\"is_logged_in\":true") == std::string::npos) {
      state.SkipWithError(r ? ("unexpected answer: " + r->body).c_str() : "no answer");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(Query)->Threads(8)->UseRealTime()->Unit(benchmark::kMicrosecond);

// Each query opens a connection, as a new tab does, while 64 others sit idle
// (opened again when the host closes them); the median and 99th percentile
// of its wall-clock time are counters of their own.
void QueryBesideIdleConnections(benchmark::State& state) {
  Host& host = Started();
  if (!host.problem.empty()) {
    state.SkipWithError(host.problem.c_str());
    return;
  }
  if (!host.idle) host.idle = std::make_unique<webapihost::IdleConnections>(host.process->port(), 64);
  std::vector<double> ms;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    httplib::Client client("127.0.0.1", host.process->port());
    client.set_read_timeout(std::chrono::seconds(120));
    httplib::Result r = client.Get(kQuery);
    if (!r || r->status != 200 || r->body.find("\"is_logged_in\":true") == std::string::npos) {
      state.SkipWithError(r ? ("unexpected answer: " + r->body).c_str() : "no answer");
      break;
    }
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
  }
  if (ms.empty()) return;
  std::sort(ms.begin(), ms.end());
  state.counters["p50_ms"] = ms[ms.size() / 2];
  state.counters["p99_ms"] = ms[(ms.size() * 99 + 99) / 100 - 1];  // nearest rank
}
BENCHMARK(QueryBesideIdleConnections)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  Started().idle.reset();
  if (Started().process) Started().process->Stop(SIGTERM);
  return 0;
}
