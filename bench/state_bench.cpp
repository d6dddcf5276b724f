// The whole state's speed: a state of 10,000 accounts with ten purchases and
// a sign-in key each (made here, the same every run), imported and exported
// offline by `webapi-host state import|export` as a user runs them, and
// replaced, read and reset through a running `webapi-host serve` (PUT and GET
// /sim/state, POST /sim/reset). Each is timed on the wall clock as its user
// waits for it: offline with the process's start and end, through the host
// with the transfer. Beside each: the CPU time of the process that did the
// work, and its peak resident size during it.
// WEBAPI_HOST in the environment measures another build's host.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <httplib.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "client.h"

namespace {

constexpr int kAccounts = 10000;
constexpr int kPurchases = 10;  // and one key, per account
const char kSerial[] = "Q26CA0000001";

const char* HostProgram() {
  const char* program = std::getenv("WEBAPI_HOST");
  return program ? program : WEBAPI_HOST;
}

// The document, written out by hand rather than by the code under measure.
// Every seventh account has a name beyond ASCII, as real ones do.
std::string Document() {
  char line[1024];
  (void)std::snprintf(line, sizeof(line),
                      R"({"version":1,"device":{"serial":"%s","account":{"email":"user0@example.com",)"
                      R"("auth_key":"k%031d"}},"service":{"limits":{"accounts_per_device":5},"accounts":[)",
                      kSerial, 0);
  std::string d = line;
  for (int i = 0; i < kAccounts; ++i) {
    (void)std::snprintf(line, sizeof(line),
                        R"(%s{"email":"user%d@example.com","full_name":"%s %d","password_hash":{"salt":"%032x",)"
                        R"("hash":"%064x","iterations":1000},"country":"NL","notify_language":"enu",)"
                        R"("timezone":"Amsterdam","critical_version_list":"","enews":%s,"critical_release":true,)"
                        R"("enews_local_promotion":false,"activated":true,"registered_from":"%s","created":%d,)"
                        R"("keys":[{"auth_key":"k%031d","serial":"%s","issued":%d}],"purchases":[)",
                        i ? "," : "", i, i % 7 ? "Ada Lovelace" : "Zo\u00eb \u00c5ngstr\u00f6m", i, i, i,
                        i % 2 ? "false" : "true", kSerial, 1700000000 + i, i, kSerial, 1700000000 + i);
    d += line;
    for (int j = 0; j < kPurchases; ++j) {
      (void)std::snprintf(line, sizeof(line),
                          R"(%s{"app":"app%d","serial":"%s","price":"%d.99","currency":"EUR",)"
                          R"("paypal":"user%d@example.com","date":"2026-%02d-%02d"})",
                          j ? "," : "", j, kSerial, j + 1, i, j % 12 + 1, i % 28 + 1);
      d += line;
    }
    d += "]}";
  }
  return d + R"(],"conditions":[]}})";
}

// A folder of the benchmark's own, with the document in it.
struct Files {
  webapihost::TempDir dir;
  std::string document;  // its path
  size_t size = 0;
};

Files& Made() {
  static Files files;
  static std::once_flag once;
  std::call_once(once, [] {
    files.document = files.dir.path() + "/state.json";
    const std::string text = Document();
    files.size = text.size();
    std::ofstream(files.document, std::ios::binary) << text;
  });
  return files;
}

double Seconds(const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; }

// Runs the host's program with `args`, its standard output to `out` and its
// errors to `out`.err: the exit status, and its CPU time and peak resident
// size in *used.
struct Used {
  double wall = 0, cpu = 0, peakMib = 0;
};
int Run(const std::vector<std::string>& args, const std::string& out, Used* used) {
  std::vector<std::string> all = {"webapi-host"};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : all) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDOUT_FILENO);
    dup2(open((out + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
    execv(HostProgram(), argv.data());
    _exit(127);
  }
  int status = 0;
  rusage r{};
  if (pid < 0 || wait4(pid, &status, 0, &r) != pid) return -1;
  used->wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  used->cpu = Seconds(r.ru_utime) + Seconds(r.ru_stime);
  used->peakMib = static_cast<double>(r.ru_maxrss) / 1024;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Report(benchmark::State& state, const Used& used) {
  state.SetIterationTime(used.wall);
  state.counters["cpu_s"] = used.cpu;
  state.counters["peak_rss_mib"] = used.peakMib;
}

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

// What a whole exported document must hold; "" when it does.
std::string Whole(const std::string& text) {
  const size_t accounts = Count(text, "\"full_name\":");
  const size_t purchases = Count(text, "\"app\":");
  if (accounts == kAccounts && purchases == size_t{kAccounts} * kPurchases) return "";
  return "the document holds " + std::to_string(accounts) + " accounts and " + std::to_string(purchases) +
         " purchases: " + text.substr(0, 200);
}

std::string OfflineFolder() { return Made().dir.path() + "/offline"; }

// `state import` of the document into the offline folder: "" when done.
std::string Import(Used* used) {
  const std::string out = Made().dir.path() + "/import.out";
  if (Run({"state", "import", Made().document, "--state", OfflineFolder()}, out, used) == 0) return "";
  return "state import failed: " + Read(out + ".err");
}

void OfflineImport(benchmark::State& state) {
  Files& files = Made();
  for (auto _ : state) {
    Used used;
    const std::string failed = Import(&used);
    if (!failed.empty()) {
      state.SkipWithError(failed.c_str());
      break;
    }
    Report(state, used);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * files.size));
}
BENCHMARK(OfflineImport)->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);

void OfflineExport(benchmark::State& state) {
  Files& files = Made();
  Used imported;
  // Run alone, it imports the document first.
  const std::string failed = access(OfflineFolder().c_str(), F_OK) == 0 ? "" : Import(&imported);
  if (!failed.empty()) return state.SkipWithError(failed.c_str());
  for (auto _ : state) {
    Used used;
    const std::string out = files.dir.path() + "/export.json";
    if (Run({"state", "export", "--state", OfflineFolder()}, out, &used) != 0) {
      state.SkipWithError(("state export failed: " + Read(out + ".err")).c_str());
      break;
    }
    Report(state, used);
    const std::string wrong = Whole(Read(out));
    if (!wrong.empty()) {
      state.SkipWithError(wrong.c_str());
      break;
    }
  }
}
BENCHMARK(OfflineExport)->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);

// The host, started once; its own folder.
struct Host {
  std::unique_ptr<webapihost::ServeProcess> process;
  std::string problem;
  bool holds = false;  // the document, put
};
Host gHost;

Host& Started() {
  Host& host = gHost;
  static std::once_flag once;
  std::call_once(once, [&host] {
    const std::string dir = Made().dir.path();
    host.process =
        std::make_unique<webapihost::ServeProcess>(HostProgram(), PELLIXCENTER_SO, dir + "/served", dir + "/serve.log");
    if (host.process->port() < 0) host.problem = "webapi-host serve did not start: " + host.process->Log();
  });
  return host;
}

// The host's CPU time (seconds) from /proc.
double HostCpu(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  double ticks = 0;
  for (int i = 3; fields >> field && i <= 15; ++i)
    if (i >= 14) ticks += std::stod(field);  // utime, stime
  return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The host's peak resident size is counted from now (the kernel's VmHWM,
// reset to what it holds now).
void ResetPeak(pid_t pid) { std::ofstream("/proc/" + std::to_string(pid) + "/clear_refs") << "5"; }
double PeakMib(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(in, line);)
    if (line.rfind("VmHWM:", 0) == 0) return std::stod(line.substr(6)) / 1024;
  return 0;
}

// One request to the host, measured: the answer, or null with *problem.
httplib::Result Timed(const Host& host, const std::string& method, const std::string& path, const std::string& body,
                      Used* used) {
  httplib::Client client("127.0.0.1", host.process->port());
  client.set_read_timeout(std::chrono::seconds(300));
  client.set_write_timeout(std::chrono::seconds(300));
  const pid_t pid = host.process->pid();
  ResetPeak(pid);
  const double cpu = HostCpu(pid);
  const auto start = std::chrono::steady_clock::now();
  httplib::Result r = method == "GET"   ? client.Get(path)
                      : method == "PUT" ? client.Put(path, body, "application/json")
                                        : client.Post(path, body, "application/json");
  used->wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  used->cpu = HostCpu(pid) - cpu;
  used->peakMib = PeakMib(pid);
  return r;
}

bool Answered(benchmark::State& state, const httplib::Result& r, const char* what) {
  if (r && r->status == 200) return true;
  state.SkipWithError(r ? (std::string(what) + " answered " + std::to_string(r->status) + ": " + r->body).c_str()
                        : (std::string(what) + ": no answer").c_str());
  return false;
}

void HostPut(benchmark::State& state) {
  Host& host = Started();
  if (!host.problem.empty()) return state.SkipWithError(host.problem.c_str());
  const std::string document = Read(Made().document);
  for (auto _ : state) {
    Used used;
    if (!Answered(state, Timed(host, "PUT", "/sim/state", document, &used), "PUT /sim/state")) break;
    Report(state, used);
    host.holds = true;
  }
}
BENCHMARK(HostPut)->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);

void HostGet(benchmark::State& state) {
  Host& host = Started();
  if (!host.problem.empty()) return state.SkipWithError(host.problem.c_str());
  // Run alone, it puts the document first.
  Used put;
  if (!host.holds && !Answered(state, Timed(host, "PUT", "/sim/state", Read(Made().document), &put), "PUT /sim/state"))
    return;
  for (auto _ : state) {
    Used used;
    const httplib::Result r = Timed(host, "GET", "/sim/state", "", &used);
    if (!Answered(state, r, "GET /sim/state")) break;
    Report(state, used);
    const std::string wrong = Whole(r->body);
    if (!wrong.empty()) {
      state.SkipWithError(wrong.c_str());
      break;
    }
  }
}
BENCHMARK(HostGet)->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);

// A reset from the whole state: the document is put back before each.
void HostReset(benchmark::State& state) {
  Host& host = Started();
  if (!host.problem.empty()) return state.SkipWithError(host.problem.c_str());
  const std::string document = Read(Made().document);
  for (auto _ : state) {
    Used used;
    if (!Answered(state, Timed(host, "PUT", "/sim/state", document, &used), "PUT /sim/state") ||
        !Answered(state, Timed(host, "POST", "/sim/reset", "", &used), "POST /sim/reset"))
      break;
    Report(state, used);
    host.holds = false;
  }
}
BENCHMARK(HostReset)->Iterations(1)->Repetitions(3)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (gHost.process) gHost.process->Stop(SIGTERM);
  return 0;
}
