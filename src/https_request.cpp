// One HTTPS POST of URL-encoded form fields with the device's identity. Its
// log lines are the device's, slips and all, and stay as written (log.h).
#include "https_request.h"

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"
#include "talv/cloud.h"

namespace {

// Working buffers of one call, terminating NUL included. Everything but the
// form is cut silently at its size; the form alone has a guarded limit.
constexpr int kUrlSize = 256;
constexpr int kSerialSize = 256;
constexpr int kTokenSize = 33;
constexpr ssize_t kFormSize = 2048;
constexpr int kBuildNumberSize = 16;
constexpr int kModelNameSize = 128;
constexpr int kUserAgentSize = 128;
constexpr int kHeaderSize = 128;
constexpr int kKeyListSize = 512;
constexpr long kTimeoutSeconds = 30;

// The answer as it arrives; `data` always holds `size` bytes and a NUL.
struct MemoryBuffer {
  char* data;
  size_t size;
};

// What a call has acquired, released however the call ends.
struct Acquired {
  TLIBC_SZLIST* keys = nullptr;
  curl_slist* headers = nullptr;
  MemoryBuffer received = {nullptr, 0};
  CURL* curl = nullptr;
  ~Acquired() {
    TLIBCSzListFree(keys);
    curl_slist_free_all(headers);
    std::free(received.data);
    if (curl) curl_easy_cleanup(curl);
  }
};

// Formats into a fixed buffer, cutting what does not fit. C-style variadic
// on purpose: the compiler checks its formats like printf's.
// NOLINTNEXTLINE(cert-dcl50-cpp)
__attribute__((format(printf, 3, 4))) void FormatCut(char* buffer, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  (void)std::vsnprintf(buffer, size, format, args);
  va_end(args);
}

size_t WriteMemoryCallback(const char* data, size_t size, size_t count, MemoryBuffer* buffer) {
  size_t n = size * count;
  char* grown = static_cast<char*>(std::realloc(buffer->data, buffer->size + n + 1));
  if (!grown) {
    // Returning less than was offered makes libcurl end the transfer.
    std::free(buffer->data);
    buffer->data = nullptr;
    buffer->size = 0;
    return 0;
  }
  std::memcpy(grown + buffer->size, data, n);
  buffer->size += n;
  grown[buffer->size] = '\0';
  buffer->data = grown;
  return n;
}

// Keys go out as they are; only values are percent-encoded.
int AppendFormField(const char* key, const char* value, char* form, int first) {
  char* encoded = curl_easy_escape(nullptr, value, 0);
  if (!encoded) {
    PELLIX_LOG("URL encoding failed: %s", value);
    return -1;
  }
  // "=" and "&" are counted for every field, the first one too.
  const ssize_t added = static_cast<ssize_t>(std::strlen(key) + std::strlen(encoded) + 2);
  const ssize_t used = static_cast<ssize_t>(std::strlen(form));
  int result = -1;
  if (used + added + 1 > kFormSize) {
    PELLIX_LOG("buffer size not enough: total: %zd, used: %zd, newly add; %zd", kFormSize, used, added);
  } else {
    if (!first) std::strcat(form, "&");
    std::strcat(form, key);
    std::strcat(form, "=");
    std::strcat(form, encoded);
    result = 0;
  }
  curl_free(encoded);
  return result;
}

int AcceptCertificateCallback(int preverifyOk, X509_STORE_CTX* store) {
  (void)store;
#ifdef PELLIX_TLS_STRICT_HANDSHAKE
  // An unverified chain ends the handshake before the server hears more.
  return preverifyOk;
#else
  (void)preverifyOk;
  return 1;
#endif
}

// Runs before the handshake. The callback keeps the handshake going whatever
// the chain looks like, but libcurl still reads OpenSSL's verdict afterwards
// (CURLOPT_SSL_VERIFYPEER), so an untrusted server is refused all the same.
CURLcode SslCtxCallback(CURL* handle, void* sslContext, void* userData) {
  (void)handle;
  (void)userData;
  SSL_CTX_set_verify(static_cast<SSL_CTX*>(sslContext), SSL_VERIFY_CLIENT_ONCE, AcceptCertificateCallback);
  return CURLE_OK;
}

// Logs a failure; the caller decides whether the transfer can do without.
bool SetTimeOut(CURL* curl, CURLoption option) {
  const CURLcode rc = curl_easy_setopt(curl, option, kTimeoutSeconds);
  if (rc != CURLE_OK) PELLIX_LOG("failed to set time-out, return value=%d", rc);
  return rc == CURLE_OK;
}

// serial and token first, then the optional credentials, then the caller's
// fields in the hash's order.
int BuildForm(const HttpsRequest& request, const char* serial, const char* token, const TLIBC_SZLIST* keys,
              char* form) {
  if (AppendFormField("serial", serial, form, 1) < 0) return -1;
  if (AppendFormField("token", token, form, 0) < 0) return -1;
  if (request.username && AppendFormField("username", request.username, form, 0) < 0) return -1;
  if (request.passwd && AppendFormField("passwd", request.passwd, form, 0) < 0) return -1;
  for (int i = 0; i < keys->nItem; ++i) {
    const char* key = TLIBCSzListGet(keys, i);
    const char* value = key ? TLIBCSzHashGetValue(request.params, key) : nullptr;
    if (!value) continue;
    if (AppendFormField(key, value, form, 0) < 0) return -1;
  }
  return 0;
}

}  // namespace

extern "C" {

int HttpsRequestSend(const HttpsRequest* request, HttpsResponse* response) {
  if (!request || !response) {
    TLIBCErrSetEx(TLIBC_ERR_BAD_PARAMETERS, __FILE_NAME__, __LINE__);
    return -1;
  }
  char url[kUrlSize] = {};
  char serial[kSerialSize] = {};
  char token[kTokenSize] = {};
  char form[kFormSize] = {};
  Acquired acquired;
  FormatCut(url, sizeof(url), "https://%s/%s", request->host, request->path);

  // A serial among the caller's fields is the one the token must be for.
  const char* givenSerial = request->params ? TLIBCSzHashGetValue(request->params, "serial") : nullptr;
  if (givenSerial) {
    FormatCut(serial, sizeof(serial), "%s", givenSerial);
    if (TALVCloudServiceQbtokenGenerateToken(serial, token, kTokenSize) < 0) {
      PELLIX_LOG("TALVCloudServiceQbtokenGenerateToken Failed, err=[0x%04X %s:%d]", TLIBC_ERROR_STATE);
      return -1;
    }
  } else if (TALVCloudServiceQbtokenGetToken(serial, kSerialSize, token, kTokenSize) < 0) {
    PELLIX_LOG("Fail to get serial token of this QB, err=[0x%04X %s:%d]", TLIBC_ERROR_STATE);
    return -1;
  }

  acquired.keys = TLIBCSzListAlloc(kKeyListSize);
  if (!acquired.keys) {
    PELLIX_LOG("out of memory, ERR=[0x%04X %s:%d]", TLIBC_ERROR_STATE);
    return -1;
  }
  if (TLIBCSzHashEnumKey(request->params, &acquired.keys) <= 0) {
    PELLIX_LOG("no key in the hash, ERR=[0x%04X %s:%d]", TLIBC_ERROR_STATE);
    return -1;
  }
  if (BuildForm(*request, serial, token, acquired.keys, form) < 0) return -1;
  TLIBCSzListFree(acquired.keys);
  acquired.keys = nullptr;

  CURL* curl = acquired.curl = curl_easy_init();
  if (!curl) {
    PELLIX_LOG("failed to init pCurl");
    return -1;
  }
  CURLcode rc;
  if (curl_easy_setopt(curl, CURLOPT_POST, 1L) != CURLE_OK) {
    PELLIX_LOG("failed to set request method to be POST");
    return -1;
  }
  // libcurl reads the form during the transfer; it lives until we return.
  if (curl_easy_setopt(curl, CURLOPT_POSTFIELDS, form) != CURLE_OK) {
    PELLIX_LOG("failed to set post field to be POST");
    return -1;
  }
  if ((rc = curl_easy_setopt(curl, CURLOPT_URL, url)) != CURLE_OK) {
    PELLIX_LOG("failed to set req=%s return value=%d", url, rc);
    return -1;
  }

  char buildNumber[kBuildNumberSize];
  char modelName[kModelNameSize];
  std::memset(buildNumber, 0, sizeof(buildNumber));
  std::memset(modelName, 0, sizeof(modelName));
  if (TLIBCFileGetKeyValue("/etc.defaults/VERSION", "buildnumber", buildNumber, kBuildNumberSize, 0) <= 0 ||
      TLIBCFileGetKeyValue("/etc.defaults/talvinfo.conf", "upnpmodelname", modelName, kModelNameSize, 0) <= 0)
    return -1;

  char userAgent[kUserAgentSize];
  FormatCut(userAgent, sizeof(userAgent), "Talvane-%s-%s", modelName, buildNumber);
  if ((rc = curl_easy_setopt(curl, CURLOPT_USERAGENT, userAgent)) != CURLE_OK) {
    PELLIX_LOG("failed to set agent=%s, return value=%d", userAgent, rc);
    return -1;
  }

  char header[kHeaderSize];
  FormatCut(header, sizeof(header), "Host: %s", request->host);
  acquired.headers = curl_slist_append(nullptr, header);
  rc = acquired.headers ? curl_easy_setopt(curl, CURLOPT_HTTPHEADER, acquired.headers) : CURLE_OUT_OF_MEMORY;
  if (rc != CURLE_OK) {
    PELLIX_LOG("failed to set req=%s, header=%s, return value=%d", request->host, header, rc);
    return -1;
  }

  if ((rc = curl_easy_setopt(curl, CURLOPT_SSL_CTX_FUNCTION, SslCtxCallback)) != CURLE_OK) {
    PELLIX_LOG("can not set CURLOPT_SSL_CTX_FUNCTION (%d)", rc);
    return -1;
  }
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 1L);
  if (request->verbose) curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
  // Without a connect time-out the overall one still bounds the call.
  SetTimeOut(curl, CURLOPT_CONNECTTIMEOUT);
  if (!SetTimeOut(curl, CURLOPT_TIMEOUT)) return -1;
  if ((rc = curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, WriteMemoryCallback)) != CURLE_OK) {
    PELLIX_LOG("failed to write function WriteMemoryCallback, return value=%d", rc);
    return -1;
  }
  if ((rc = curl_easy_setopt(curl, CURLOPT_WRITEDATA, &acquired.received)) != CURLE_OK) {
    PELLIX_LOG("failed to write data, return value=%d", rc);
    return -1;
  }

  rc = curl_easy_perform(curl);
  if (rc != CURLE_OK) {
    // The caller reads the outcome from the body alone, in the service's
    // own vocabulary; the status stays as the caller set it.
    if (request->verbose) PELLIX_LOG("curl_easy_perform. res: %d", rc);
    TLIBCErrSetEx(TLIBC_ERR_NETWORK, __FILE_NAME__, __LINE__);
    response->body = strdup("badnetwork");
    return 0;
  }

  long status = 0;
  if (curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) != CURLE_OK) status = 0;
  response->httpStatus = status;
  if (status != 200) {
    response->body = strdup("badsys");
  } else if (acquired.received.size > 0) {
    response->body = strdup(acquired.received.data);
    if (response->body) TLIBCStrTrimSpace(response->body, 0);
  }
  return 0;
}

void HttpsResponseFree(HttpsResponse* response) {
  if (!response) return;
  std::free(response->body);
  response->body = nullptr;
  response->httpStatus = 0;
}

}  // extern "C"
