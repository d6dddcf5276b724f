// The host's journal: the last N requests it answered, each one JSON object
// (docs/devhost.md, "The journal"), answered at GET /sim/journal and as an
// HTTP Archive (HAR 1.2) at GET /sim/journal.har, and appended to a file as
// one JSON line each when one is named. Secrets (passwords, keys, tokens,
// grant codes, code verifiers, password hashes) are masked before an entry
// is kept anywhere. Safe for concurrent use.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "request.h"

namespace webapihost {

// What a masked value becomes.
extern const char kMasked[];
// Replaces the value of every member with a secret's name, at any depth.
void Mask(Json::Value* value);
// A request body for the journal: JSON or a form with its secrets masked,
// anything else by its size; cut to kBodyText bytes.
std::string MaskedBody(const std::string& text, const std::string& contentType);

// What the journal keeps of a web API request beside its HTTP exchange: the
// call (null when it could not be decoded), its answer, the bites of the
// service's conditions, and the reason when the host refused it; and the
// response's body, `body` (the answer's Envelope), masked as MaskedBody
// masks it.
void NoteCall(const ApiCall* call, const Answer& answer, const std::vector<std::string>& bites, const std::string& body,
              Json::Value* note);

class Journal {
 public:
  // The default number of entries kept.
  static constexpr size_t kDefaultSize = 10000;
  // Keeps the last `size` entries (at least one); each is also appended to
  // `file` (not owned; nullptr: none) as one line.
  Journal(size_t size, FILE* file) : size_(size ? size : 1), file_(file) {}

  // Keeps the entry that `write` writes, as Compact would write it, for the
  // number it is given ("id", from 1 up), and drops the oldest beyond the
  // size. `write` is called under the journal's lock: entries are kept in
  // the order of their numbers.
  void Add(const std::function<std::string(uint64_t id)>& write);
  // {"entries": [...], "last": ID}: the entries after `since`, oldest first;
  // "last" is the id of the newest entry made, to poll from.
  Json::Value After(uint64_t since) const;
  // The same as Compact writes it.
  std::string AfterText(uint64_t since) const;
  // Drops every entry; the ids go on.
  void Clear();
  // The entries as an HTTP Archive, for a host at `base` (http://HOST:PORT).
  Json::Value Har(const std::string& base) const;

 private:
  const size_t size_;
  FILE* file_;
  // An entry is kept as its text: a tree of values took a few dozen
  // allocations to keep and as many to drop, on every request.
  struct Entry {
    uint64_t id;
    std::string text;  // Compact's
  };
  mutable std::mutex mu_;
  std::deque<Entry> entries_;  // under mu_
  uint64_t last_ = 0;          // under mu_
};

}  // namespace webapihost
