// The core library's string containers, key-value files and error state.
#include "talv/tlibc.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "accounting.h"
#include "seam/seam.h"

using talvseam::Arg;

struct _TLIBC_SZHASH {
  std::vector<std::pair<std::string, std::string>> entries;  // insertion order
  std::unordered_map<std::string, size_t> index;
};

namespace {

struct ErrorState {
  int code = 0;
  std::string file;
  int line = 0;
};
thread_local ErrorState tError;

#define TLIBC_FAIL(code) TLIBCErrSetEx((code), "tlibc.cpp", __LINE__)

size_t ListBytes(int slots) { return offsetof(TLIBC_SZLIST, pszItem) + sizeof(char*) * (slots > 0 ? slots : 1); }

std::string Address(const void* p) {
  char text[32];
  (void)std::snprintf(text, sizeof(text), "%p", p);
  return text;
}

// The registry of live hashes and lists.
struct Registry {
  std::mutex mu;
  std::unordered_set<const void*> hashes;
  std::unordered_set<const void*> lists;
  std::vector<std::string> badFrees;
};

Registry& R() {
  static Registry* registry = new Registry();  // never destroyed: frees may run during exit
  return *registry;
}

void Register(std::unordered_set<const void*> Registry::*set, const void* p) {
  std::lock_guard<std::mutex> lock(R().mu);
  (R().*set).insert(p);
}

// True when `p` was live (and now is not); otherwise records the refused free.
bool Unregister(std::unordered_set<const void*> Registry::*set, const char* op, const void* p) {
  talvseam::Note("tlibc", op, {Address(p)});
  std::lock_guard<std::mutex> lock(R().mu);
  if ((R().*set).erase(p)) return true;
  R().badFrees.push_back(std::string(op) + " " + Address(p));
  return false;
}

}  // namespace

namespace talvcore {

int LiveHashes() {
  std::lock_guard<std::mutex> lock(R().mu);
  return static_cast<int>(R().hashes.size());
}
int LiveLists() {
  std::lock_guard<std::mutex> lock(R().mu);
  return static_cast<int>(R().lists.size());
}
std::vector<std::string> BadFrees() {
  std::lock_guard<std::mutex> lock(R().mu);
  return R().badFrees;
}
void ClearBadFrees() {
  std::lock_guard<std::mutex> lock(R().mu);
  R().badFrees.clear();
}

}  // namespace talvcore

extern "C" {

void TLIBCErrSetEx(int code, const char* file, int line) {
  tError.code = code;
  tError.file = file ? file : "";
  tError.line = line;
}
int TLIBCErrGet(void) { return tError.code; }
const char* TLIBCErrorGetFile(void) { return tError.file.c_str(); }
int TLIBCErrorGetLine(void) { return tError.line; }

TLIBC_SZHASH* TLIBCSzHashAlloc(int size) {
  if (talvseam::Enter("tlibc", "TLIBCSzHashAlloc", {Arg(size)}) || size <= 0) {
    TLIBC_FAIL(size <= 0 ? TLIBC_ERR_BAD_PARAMETERS : TLIBC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  TLIBC_SZHASH* hash = new TLIBC_SZHASH();
  hash->entries.reserve(size < 64 ? size : 64);
  Register(&Registry::hashes, hash);
  return hash;
}

int TLIBCSzHashSetValue(TLIBC_SZHASH** ppHash, const char* key, const char* value) {
  if (talvseam::Enter("tlibc", "TLIBCSzHashSetValue", {Arg(key), Arg(value)})) {
    TLIBC_FAIL(TLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  if (!ppHash || !*ppHash || !key || !value) {
    TLIBC_FAIL(TLIBC_ERR_BAD_PARAMETERS);
    return -1;
  }
  TLIBC_SZHASH* hash = *ppHash;
  auto it = hash->index.find(key);
  if (it != hash->index.end()) {
    hash->entries[it->second].second = value;
  } else {
    hash->index.emplace(key, hash->entries.size());
    hash->entries.emplace_back(key, value);
  }
  return 0;
}

const char* TLIBCSzHashGetValue(const TLIBC_SZHASH* pHash, const char* key) {
  talvseam::Enter("tlibc", "TLIBCSzHashGetValue", {Arg(key)});
  if (!pHash || !key) return nullptr;
  auto it = pHash->index.find(key);
  return it == pHash->index.end() ? nullptr : pHash->entries[it->second].second.c_str();
}

int TLIBCSzHashEnumKey(const TLIBC_SZHASH* pHash, TLIBC_SZLIST** ppList) {
  if (talvseam::Enter("tlibc", "TLIBCSzHashEnumKey", {})) {
    TLIBC_FAIL(TLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  if (!pHash || !ppList || !*ppList) {
    TLIBC_FAIL(TLIBC_ERR_BAD_PARAMETERS);
    return -1;
  }
  for (const auto& entry : pHash->entries)
    if (TLIBCSzListPush(ppList, entry.first.c_str()) < 0) return -1;
  return static_cast<int>(pHash->entries.size());
}

void TLIBCSzHashFree(TLIBC_SZHASH* pHash) {
  if (pHash && Unregister(&Registry::hashes, "TLIBCSzHashFree", pHash)) delete pHash;
}

TLIBC_SZLIST* TLIBCSzListAlloc(int size) {
  if (talvseam::Enter("tlibc", "TLIBCSzListAlloc", {Arg(size)}) || size <= 0) {
    TLIBC_FAIL(size <= 0 ? TLIBC_ERR_BAD_PARAMETERS : TLIBC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  auto* list = static_cast<TLIBC_SZLIST*>(std::calloc(1, ListBytes(size)));
  if (!list) {
    TLIBC_FAIL(TLIBC_ERR_OUT_OF_MEMORY);
    return nullptr;
  }
  list->nSize = size;
  Register(&Registry::lists, list);
  return list;
}

int TLIBCSzListPush(TLIBC_SZLIST** ppList, const char* text) {
  if (!ppList || !*ppList || !text) {
    TLIBC_FAIL(TLIBC_ERR_BAD_PARAMETERS);
    return -1;
  }
  TLIBC_SZLIST* list = *ppList;
  if (list->nItem == list->nSize) {
    // Full: the list moves, which is why callers hand over its address.
    int grown = list->nSize * 2;
    {
      std::lock_guard<std::mutex> lock(R().mu);
      R().lists.erase(list);
    }
    auto* moved = static_cast<TLIBC_SZLIST*>(std::realloc(list, ListBytes(grown)));
    Register(&Registry::lists, moved ? moved : list);
    if (!moved) {
      TLIBC_FAIL(TLIBC_ERR_OUT_OF_MEMORY);
      return -1;
    }
    moved->nSize = grown;
    *ppList = list = moved;
  }
  char* copy = strdup(text);
  if (!copy) {
    TLIBC_FAIL(TLIBC_ERR_OUT_OF_MEMORY);
    return -1;
  }
  list->pszItem[list->nItem++] = copy;
  return 0;
}

const char* TLIBCSzListGet(const TLIBC_SZLIST* pList, int index) {
  if (!pList || index < 0 || index >= pList->nItem) return nullptr;
  return pList->pszItem[index];
}

void TLIBCSzListFree(TLIBC_SZLIST* pList) {
  if (!pList || !Unregister(&Registry::lists, "TLIBCSzListFree", pList)) return;
  for (int i = 0; i < pList->nItem; ++i) std::free(pList->pszItem[i]);
  std::free(pList);
}

int TLIBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flags) {
  (void)flags;
  if (talvseam::Enter("tlibc", "TLIBCFileGetKeyValue", {Arg(path), Arg(key), Arg(size)})) {
    TLIBC_FAIL(TLIBC_ERR_FILE);
    return -1;
  }
  if (!path || !key || !value || size <= 0) {
    TLIBC_FAIL(TLIBC_ERR_BAD_PARAMETERS);
    return -1;
  }
  std::ifstream in(talvseam::ResolvePath(path));
  if (!in) {
    TLIBC_FAIL(TLIBC_ERR_FILE);
    return -1;
  }
  std::string line;
  while (std::getline(in, line)) {
    std::vector<char> text(line.begin(), line.end());
    text.push_back('\0');
    char* s = TLIBCStrTrimSpace(text.data(), 0);
    if (*s == '#' || *s == ';' || *s == '[') continue;
    char* eq = std::strchr(s, '=');
    if (!eq) continue;
    *eq = '\0';
    if (std::strcmp(TLIBCStrTrimSpace(s, 0), key) != 0) continue;
    char* v = TLIBCStrTrimSpace(eq + 1, 0);
    size_t n = std::strlen(v);
    if (n >= 2 && v[0] == '"' && v[n - 1] == '"') {
      v[n - 1] = '\0';
      ++v;
      n -= 2;
    }
    size_t copied = n < static_cast<size_t>(size - 1) ? n : static_cast<size_t>(size - 1);
    std::memcpy(value, v, copied);
    value[copied] = '\0';
    return static_cast<int>(copied);
  }
  value[0] = '\0';
  return 0;
}

char* TLIBCStrTrimSpace(char* text, int mode) {
  if (!text) return text;
  if (mode == 0 || mode == 2) {
    size_t n = std::strlen(text);
    while (n > 0 && std::isspace(static_cast<unsigned char>(text[n - 1]))) text[--n] = '\0';
  }
  if (mode == 0 || mode == 1) {
    size_t lead = 0;
    while (text[lead] && std::isspace(static_cast<unsigned char>(text[lead]))) ++lead;
    if (lead) std::memmove(text, text + lead, std::strlen(text + lead) + 1);
  }
  return text;
}

}  // extern "C"
