// Captures what the process writes to the system log.
//
// Linked into a host program, this library's syslog() and vsyslog() (and
// their fortified forms) take the place of the C library's for every module
// the program loads: each line is kept with its priority and its exact
// formatted text, and optionally echoed to a stream. It is an interposer:
// docs/platform.md#interposers says how a program must link it.
#pragma once

#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

namespace syslogcapture {

struct Line {
  int priority;
  std::string text;
  bool operator==(const Line& o) const { return priority == o.priority && text == o.text; }
};
std::ostream& operator<<(std::ostream& os, const Line& line);

// The lines logged since the last Take() (at most the latest 10000), which
// are then forgotten.
std::vector<Line> Take();
// Every line logged since the process started (at most the latest 100000),
// whether taken or not.
std::vector<Line> History();
// Off: lines are no longer kept for History(). For a fuzzer, which wants
// what an input allocates to be freed by the end of it.
void KeepHistory(bool on);
// Echo each line as it is logged to `stream` (nullptr: no echo). With `keep`
// false lines are only echoed, neither kept for Take() nor for History(): a
// long-running host that nobody takes lines from holds none.
void SetEcho(FILE* stream, bool keep = true);

}  // namespace syslogcapture
