/* Core library of the operating system: string lists, running programs, key/value files, file
 * locks, and the error state. README.md has the conventions of all platform headers. */
#pragma once

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- String lists ------------------------------------------------------------------------- */

/* A growing list of texts; `items[0]` to `items[nItem - 1]` are owned by the list. */
typedef struct TLIBCSZLIST {
    int nItem;
    int capacity;
    char** items;
} TLIBCSZLIST, *PTLIBCSZLIST;

/* Creates an empty list with room for `capacity` texts; `flags` is 0. NULL on failure. */
PTLIBCSZLIST TLIBCSzListAlloc(int capacity, int flags);

/* Appends a copy of `text`. The list may be reallocated, so read `*list` again after the call.
 * Negative on failure; `*list` is then as it was. */
int TLIBCSzListPush(PTLIBCSZLIST* list, const char* text);

/* The text at `index`, owned by the list; NULL outside 0 to nItem - 1. */
const char* TLIBCSzListGet(const TLIBCSZLIST* list, int index);

/* Releases a list and its texts; NULL is allowed. */
void TLIBCSzListFree(PTLIBCSZLIST list);

/* ---- Programs ----------------------------------------------------------------------------- */

/* Runs `path` with the NULL-terminated arguments `argv` (argv[0] included), without a shell, and
 * waits for it. -1 when it could not be run; any other value is success. `flag` is 1. */
int TLIBCExecv(const char* path, const char* const argv[], int flag);

/* Starts `path` without a shell and opens a stream on its output (`mode` "r"). The arguments
 * after `mode` are those after the program's name; the last one is NULL. NULL on failure. */
FILE* TLIBCPopen(const char* path, const char* mode, ...);

/* Closes a stream of TLIBCPopen and waits for its program. */
int TLIBCPclose(FILE* stream);

/* ---- Files -------------------------------------------------------------------------------- */

/* 1 when something exists at `path`, whatever its type. */
int TLIBCFileExist(const char* path);

/* Reads `key` of a key/value file into `value` (`size` bytes, always terminated); `flag` is 0.
 * Above 0 when found, 0 when the key is absent, negative on error. */
int TLIBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flag);

/* Writes `key`, creating the file when needed; `flag` is 0. Negative on error. */
int TLIBCFileSetKeyValue(const char* path, const char* key, const char* value, int flag);

/* Non-zero when `key` has exactly `value`; `flag` is 0. */
int TLIBCFileCheckKeyValue(const char* path, const char* key, const char* value, int flag);

/* Non-zero when this model has the feature `key` ("support_wireless"). */
int TLIBCSupportGet(const char* key);

/* ---- File locks --------------------------------------------------------------------------- */

/* Locks the file `path` between processes, waiting at most `seconds`; `mode` is 1, exclusive.
 * 1 with the locked descriptor in `*fd`; 0 when the lock was not obtained, `*fd` untouched. */
int TLIBCFileLockTimeByFile(const char* path, int mode, int seconds, int* fd);

/* Releases a lock and closes its descriptor. Non-zero on success. */
int TLIBCFileUnlockByFile(int fd);

/* ---- Error state -------------------------------------------------------------------------- */

/* Records an error code and where it was raised; `file` is copied. */
void TLIBCErrSetEx(int code, const char* file, int line);

/* The code, file (never NULL) and line recorded last. */
int TLIBCErrGet(void);
const char* TLIBCErrorGetFile(void);
int TLIBCErrorGetLine(void);

#ifdef __cplusplus
}
#endif
