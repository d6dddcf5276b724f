// HttpsRequestSend's form over arbitrary keys and values, as the local
// service receives it. An input is a flags byte (1: a username follows, 2: a
// password follows) and then NUL-separated texts: the username, the
// password, and key-value pairs. The form must be the device's serial and
// token, the credentials and the caller's fields in the hash's order, each
// value percent-encoded and each key as it is; it must be sent exactly when
// it fits the 2048-byte buffer by its rule (the line "buffer size not enough"
// otherwise, and nothing sent); and its values must decode back to the
// fields.
#include <cctype>
#include <cstring>
#include <utility>
#include <vector>

#include "core/accounting.h"
#include "fuzz_check.h"
#include "support/service_process.h"
#include "talv/cloud.h"
#include "talv/tlibc.h"

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

const pellixtest::ServiceProcess* gProcess = nullptr;
constexpr size_t kFormSize = 2048;

// libcurl's rule: all but letters, digits and "-._~" as %XX.
std::string Encode(const std::string& value) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string encoded;
  for (unsigned char c : value) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      encoded += static_cast<char>(c);
    } else {
      encoded += '%';
      encoded += kHex[c >> 4];
      encoded += kHex[c & 15];
    }
  }
  return encoded;
}

int HexDigit(char c) { return c <= '9' ? c - '0' : c - 'A' + 10; }

// The received form read back: pairs split at "&" and at their first "=",
// values percent-decoded.
Fields Decode(const std::string& form) {
  Fields fields;
  size_t at = 0;
  while (at <= form.size()) {
    size_t end = form.find('&', at);
    if (end == std::string::npos) end = form.size();
    const std::string pair = form.substr(at, end - at);
    const size_t eq = pair.find('=');
    FUZZ_CHECK(eq != std::string::npos);
    std::string value;
    for (size_t i = eq + 1; i < pair.size(); ++i) {
      if (pair[i] == '%') {
        FUZZ_CHECK(i + 2 < pair.size());
        value += static_cast<char>(HexDigit(pair[i + 1]) * 16 + HexDigit(pair[i + 2]));
        i += 2;
      } else {
        value += pair[i];
      }
    }
    fields.emplace_back(pair.substr(0, eq), value);
    at = end + 1;
  }
  return fields;
}

struct Expected {
  int result;
  std::string form;  // sent when result is 0
  std::string line;  // the message logged when result is -1
  bool errorState;   // the line ends in the platform's error state
};

// What HttpsRequestSend must do with `fields`, in the order it takes them.
Expected Build(const Fields& fields) {
  Expected e{0, "", "", false};
  size_t used = 0;
  for (const auto& f : fields) {
    const std::string encoded = Encode(f.second);
    const size_t added = f.first.size() + encoded.size() + 2;
    if (used + added + 1 > kFormSize) {
      e.result = -1;
      e.line = "buffer size not enough: total: 2048, used: " + std::to_string(used) + ", newly add; " +
               std::to_string(added);
      return e;
    }
    e.form += (e.form.empty() ? "" : "&") + f.first + "=" + encoded;
    used = e.form.size();
  }
  return e;
}

std::string ErrorState() {
  char state[512];
  std::snprintf(state, sizeof(state), "[0x%04X %s:%d]", TLIBCErrGet(), TLIBCErrorGetFile(), TLIBCErrorGetLine());
  return state;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  gProcess = &pellixtest::StartServiceProcess();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  if (size == 0) return 0;
  const int flags = bytes[0];
  std::vector<std::string> texts;
  for (size_t at = 1; at <= size;) {
    const char* start = reinterpret_cast<const char*>(bytes) + at;
    const size_t n = strnlen(start, size - at);
    texts.emplace_back(start, n);
    at += n + 1;
  }
  size_t next = 0;
  auto take = [&] { return next < texts.size() ? texts[next++] : std::string(); };
  const bool hasUsername = flags & 1;
  const bool hasPasswd = flags & 2;
  const std::string username = hasUsername ? take() : "";
  const std::string passwd = hasPasswd ? take() : "";
  TLIBC_SZHASH* params = TLIBCSzHashAlloc(1024);
  FUZZ_CHECK(params);
  while (next < texts.size()) {
    const std::string key = take();
    TLIBCSzHashSetValue(&params, key.c_str(), take().c_str());
  }

  // The caller's fields in the order the platform lists them, and the serial
  // and token that go first: for a serial among them (cut to its buffer), or
  // the device's own.
  TLIBC_SZLIST* keys = TLIBCSzListAlloc(512);
  FUZZ_CHECK(keys);
  const int nKeys = TLIBCSzHashEnumKey(params, &keys);
  const char* givenSerial = TLIBCSzHashGetValue(params, "serial");
  char serial[256] = {};
  char token[33] = {};
  int tokenResult;
  if (givenSerial) {
    std::snprintf(serial, sizeof(serial), "%s", givenSerial);
    tokenResult = TALVCloudServiceQbtokenGenerateToken(serial, token, sizeof(token));
  } else {
    tokenResult = TALVCloudServiceQbtokenGetToken(serial, sizeof(serial), token, sizeof(token));
  }
  Fields fields = {{"serial", serial}, {"token", token}};
  if (hasUsername) fields.emplace_back("username", username);
  if (hasPasswd) fields.emplace_back("passwd", passwd);
  for (int i = 0; i < nKeys; ++i)
    fields.emplace_back(TLIBCSzListGet(keys, i), TLIBCSzHashGetValue(params, TLIBCSzListGet(keys, i)));
  TLIBCSzListFree(keys);

  Expected e = Build(fields);
  if (tokenResult < 0) {
    e = {
        -1, "",
        givenSerial ? "TALVCloudServiceQbtokenGenerateToken Failed, err=" : "Fail to get serial token of this QB, err=",
        true};
  } else if (nKeys <= 0) {
    e = {-1, "", "no key in the hash, ERR=", true};
  }

  syslogcapture::Take();
  const std::string host = gProcess->service->Address();
  const HttpsRequest request{host.c_str(),
                             "account.php",
                             params,
                             0,
                             hasUsername ? username.c_str() : nullptr,
                             hasPasswd ? passwd.c_str() : nullptr};
  HttpsResponse response{7, nullptr};
  const int result = gProcess->send(&request, &response);
  const std::vector<pellixtest::Connection> received = gProcess->service->Take();
  const std::vector<syslogcapture::Line> lines = syslogcapture::Take();

  FUZZ_CHECK(result == e.result);
  if (result < 0) {
    FUZZ_CHECK(response.httpStatus == 7 && !response.body);
    FUZZ_CHECK(received.empty());
    FUZZ_CHECK(lines.size() == 1);
    FUZZ_CHECK(pellixtest::Written(lines[0], "https_request.cpp", e.errorState ? e.line + ErrorState() : e.line));
  } else {
    FUZZ_CHECK(lines.empty());
    FUZZ_CHECK(response.httpStatus == 200 && response.body && std::strcmp(response.body, "good") == 0);
    FUZZ_CHECK(received.size() == 1);
    FUZZ_CHECK(received[0].body == e.form);
    // Keys go out as they are: where one holds "&" or "=", the form cannot
    // be read back, by the service or by anyone.
    bool readable = true;
    for (const auto& f : fields) readable &= f.first.find_first_of("&=") == std::string::npos;
    if (readable) FUZZ_CHECK(Decode(received[0].body) == fields);
  }
  gProcess->free(&response);
  TLIBCSzHashFree(params);
  FUZZ_CHECK(talvcore::LiveHashes() == 0);
  FUZZ_CHECK(talvcore::LiveLists() == 0);
  FUZZ_CHECK(talvcore::BadFrees().empty());
  return 0;
}
