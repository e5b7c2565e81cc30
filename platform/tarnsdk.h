/* Development kit of the operating system: directories, and the hooks by which programs announce
 * events to each other. */
#pragma once

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Creates the directory `path` with its missing parents, owned by `uid` and `gid`, with `mode`.
 * The library passes NULL for `base` and 1 for `flag`. Negative on failure, with errno set. */
int TARNFSMkdirP(const char* path, const char* base, int flag, int uid, int gid, mode_t mode);

/* Opens a context for the hook `name` ("net/firewall_enable") of `category` ("net").
 * Negative on failure; `*handle` is then as it was. */
int TLIBPluginSDKInit(const char* category, const char* name, void** handle);

/* Sets a text that the hook gets under `key`. Negative on failure. */
int TLIBPluginSetArg(void* handle, const char* key, const char* value);

/* Runs the hook: action 4 before the announced operation, 5 after it. Negative on failure. */
int TLIBPluginAction(int action, void* handle);

/* Closes a hook context; NULL is allowed. */
int TLIBPluginExit(void* handle);

#ifdef __cplusplus
}
#endif
