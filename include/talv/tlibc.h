/* Platform core library: string hash, string list, key-value files, trimming
 * and the per-thread error state.
 *
 * Functions that can fail set the error state (code, source file, line); read
 * it with TLIBCErrGet(), TLIBCErrorGetFile() and TLIBCErrorGetLine(). Absolute
 * configuration paths name files of the device's file system. */
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/* Error codes of the error state. */
#define TLIBC_ERR_NONE 0x0000
#define TLIBC_ERR_OUT_OF_MEMORY 0x0100
#define TLIBC_ERR_NOT_FOUND 0x0400
#define TLIBC_ERR_FILE 0x0800
#define TLIBC_ERR_BAD_PARAMETERS 0x0D00
#define TLIBC_ERR_NETWORK 0x8100

/* A hash of text keys to text values; enumerates keys in insertion order. */
/* The platform's tags: NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */
typedef struct _TLIBC_SZHASH TLIBC_SZHASH;

/* A list of texts. The header is public: nItem is the item count. */
/* NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp) */
typedef struct _TLIBC_SZLIST {
  int nSize;        /* capacity in items */
  int nItem;        /* items in the list */
  char* pszItem[1]; /* nSize slots follow; use TLIBCSzListGet */
} TLIBC_SZLIST;

/* A new empty hash sized for about `size` keys, or NULL (error state set).
 * Free with TLIBCSzHashFree. */
TLIBC_SZHASH* TLIBCSzHashAlloc(int size);
/* Stores a copy of key and value, replacing an earlier value of the key.
 * Takes the hash variable's address because a hash may be moved as it grows.
 * Returns 0, or -1 with the error state set. */
int TLIBCSzHashSetValue(TLIBC_SZHASH** ppHash, const char* key, const char* value);
/* The value stored under key, owned by the hash; NULL when absent. */
const char* TLIBCSzHashGetValue(const TLIBC_SZHASH* pHash, const char* key);
/* Appends the hash's keys to *ppList (which may be moved as it grows) and
 * returns their number; 0 for none, -1 on failure. */
int TLIBCSzHashEnumKey(const TLIBC_SZHASH* pHash, TLIBC_SZLIST** ppList);
/* Releases a hash; NULL is allowed. */
void TLIBCSzHashFree(TLIBC_SZHASH* pHash);

/* A new empty list with room for `size` items, or NULL (error state set). */
TLIBC_SZLIST* TLIBCSzListAlloc(int size);
/* Appends a copy of the text; may move the list. Returns 0 or -1. */
int TLIBCSzListPush(TLIBC_SZLIST** ppList, const char* text);
/* The item at `index`, owned by the list; NULL outside 0..nItem-1. */
const char* TLIBCSzListGet(const TLIBC_SZLIST* pList, int index);
/* Releases a list; NULL is allowed. */
void TLIBCSzListFree(TLIBC_SZLIST* pList);

/* Reads the value of `key` from a key-value file ("key=value" or
 * key="value" lines, '#' comments, "[section]" lines ignored; first match
 * wins) into `value`, cut at size-1 bytes. Returns the number of bytes
 * written (greater than 0 when found with a value), 0 when the key is absent
 * or empty, -1 when the file cannot be read (error state set). */
int TLIBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flags);
/* Removes white space in place: mode 0 both ends, 1 leading, 2 trailing.
 * Returns `text`. */
char* TLIBCStrTrimSpace(char* text, int mode);

/* Sets the calling thread's error state. `file` is copied. */
void TLIBCErrSetEx(int code, const char* file, int line);
int TLIBCErrGet(void);
const char* TLIBCErrorGetFile(void); /* "" when no error was set */
int TLIBCErrorGetLine(void);

#ifdef __cplusplus
}
#endif
