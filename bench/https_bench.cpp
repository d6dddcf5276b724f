// What the module's HTTPS client adds to libcurl: HttpsRequestSend to the
// local TLS service, beside a bare libcurl POST of the same body with a fresh
// handle to the same service, measured in one run; and the loopback TLS
// handshake alone, on a prepared OpenSSL context, as the floor under both.
// Times are wall-clock: the service's thread works for every request too.
// scripts/bench.sh prints the ratio.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <curl/curl.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "service_process.h"
#include "talv/tlibc.h"

namespace {

const pellixtest::ServiceProcess* gProcess = nullptr;
std::string gForm;  // the body HttpsRequestSend sends, as the service received it
const char kUserAgent[] = "Talvane-TS-464-20261101";
const long kTimeoutSeconds = 30;

std::string Host() { return gProcess->service->Address(); }

class RegisterFields {
 public:
  RegisterFields() : hash_(TLIBCSzHashAlloc(1024)) { TLIBCSzHashSetValue(&hash_, "action", "register"); }
  ~RegisterFields() { TLIBCSzHashFree(hash_); }
  TLIBC_SZHASH* get() const { return hash_; }

 private:
  TLIBC_SZHASH* hash_;
};

bool ModulePost(const HttpsRequest& request) {
  HttpsResponse response{0, nullptr};
  const bool good = gProcess->send(&request, &response) == 0 && response.httpStatus == 200;
  gProcess->free(&response);
  return good;
}

void HttpsRequestSend(benchmark::State& state) {
  const RegisterFields fields;
  const std::string host = Host();
  const HttpsRequest request{host.c_str(), "account.php", fields.get(), 0, nullptr, nullptr};
  for (auto _ : state)
    if (!ModulePost(request)) state.SkipWithError("the module's post failed");
}

size_t Collect(char* data, size_t size, size_t count, void* answer) {
  static_cast<std::string*>(answer)->append(data, size * count);
  return size * count;
}

// What HttpsRequestSend asks of libcurl, without the rest of what it does.
void BareCurlPost(benchmark::State& state) {
  const std::string url = "https://" + Host() + "/account.php";
  const std::string hostHeader = "Host: " + Host();
  for (auto _ : state) {
    CURL* curl = curl_easy_init();
    curl_slist* headers = curl_slist_append(nullptr, hostHeader.c_str());
    std::string answer;
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, gForm.c_str());
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_USERAGENT, kUserAgent);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kTimeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, kTimeoutSeconds);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, Collect);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &answer);
    long status = 0;
    if (curl_easy_perform(curl) != CURLE_OK || curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK ||
        status != 200)
      state.SkipWithError("the bare post failed");
    curl_slist_free_all(headers);
    curl_easy_cleanup(curl);
  }
}

// Connect, handshake, close: nothing of HTTP, the trust store loaded once.
void TlsHandshake(benchmark::State& state) {
  SSL_CTX* ctx = SSL_CTX_new(TLS_client_method());
  SSL_CTX_load_verify_locations(ctx, (pellixtest::TrustedServiceDir() + "/ca.pem").c_str(), nullptr);
  SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER, nullptr);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(gProcess->service->php().port()));
  for (auto _ : state) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    SSL* ssl = SSL_new(ctx);
    SSL_set_fd(ssl, fd);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || SSL_connect(ssl) != 1)
      state.SkipWithError("the handshake failed");
    SSL_shutdown(ssl);
    SSL_free(ssl);
    close(fd);
  }
  SSL_CTX_free(ctx);
}

BENCHMARK(HttpsRequestSend)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BareCurlPost)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(TlsHandshake)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  gProcess = &pellixtest::StartServiceProcess();
  // The bare post sends exactly what the module sends.
  const RegisterFields fields;
  const std::string host = Host();
  const HttpsRequest request{host.c_str(), "account.php", fields.get(), 0, nullptr, nullptr};
  const std::vector<pellixsim::TlsConnection> seen = (ModulePost(request), gProcess->service->php().TakeConnections());
  if (seen.size() != 1 || seen[0].request.body.empty()) {
    std::fprintf(stderr, "the service did not receive the module's form\n");
    return 1;
  }
  gForm = seen[0].request.body;
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
