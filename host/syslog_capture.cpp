#include "syslog_capture.h"

#include <syslog.h>

#include <cstdarg>
#include <deque>
#include <mutex>

#include "one_line.h"

namespace syslogcapture {
namespace {

constexpr size_t kLimit = 10000;
constexpr size_t kHistoryLimit = 100000;

struct Sink {
  std::mutex mu;
  std::deque<Line> lines;
  std::deque<Line> history;
  bool keepHistory = true;
  bool keep = true;  // lines at all
  FILE* echo = nullptr;
};

Sink& S() {
  static Sink* sink = new Sink();  // outlives static destructors that may still log
  return *sink;
}

void Record(int priority, const char* format, va_list args) {
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string text(n > 0 ? static_cast<size_t>(n) : 0, '\0');
  if (n > 0) (void)std::vsnprintf(&text[0], text.size() + 1, format, args);
  Sink& s = S();
  std::lock_guard<std::mutex> lock(s.mu);
  if (s.echo) (void)std::fprintf(s.echo, "<%d> %s\n", priority, webapihost::OneLine(text).c_str());
  if (!s.keep) return;
  if (s.keepHistory) s.history.push_back(Line{priority, text});
  if (s.history.size() > kHistoryLimit) s.history.pop_front();
  s.lines.push_back(Line{priority, std::move(text)});
  if (s.lines.size() > kLimit) s.lines.pop_front();
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const Line& line) {
  return os << "{" << line.priority << ", \"" << line.text << "\"}";
}

std::vector<Line> Take() {
  Sink& s = S();
  std::lock_guard<std::mutex> lock(s.mu);
  std::vector<Line> out(s.lines.begin(), s.lines.end());
  s.lines.clear();
  return out;
}

std::vector<Line> History() {
  Sink& s = S();
  std::lock_guard<std::mutex> lock(s.mu);
  return std::vector<Line>(s.history.begin(), s.history.end());
}

void KeepHistory(bool on) {
  std::lock_guard<std::mutex> lock(S().mu);
  S().keepHistory = on;
}

void SetEcho(FILE* stream, bool keep) {
  std::lock_guard<std::mutex> lock(S().mu);
  S().echo = stream;
  S().keep = keep;
}

}  // namespace syslogcapture

extern "C" {

__attribute__((visibility("default"))) void vsyslog(int priority, const char* format, va_list args) {
  syslogcapture::Record(priority, format, args);
}

__attribute__((visibility("default"))) void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  syslogcapture::Record(priority, format, args);
  va_end(args);
}

// The forms a module built with _FORTIFY_SOURCE calls.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's own name
__attribute__((visibility("default"))) void __vsyslog_chk(int priority, int, const char* format, va_list args) {
  syslogcapture::Record(priority, format, args);
}

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the C library's own name
__attribute__((visibility("default"))) void __syslog_chk(int priority, int, const char* format, ...) {
  va_list args;
  va_start(args, format);
  syslogcapture::Record(priority, format, args);
  va_end(args);
}

}  // extern "C"
