/* Kernel module library of the operating system: netfilter modules, counted per service. */
#pragma once

#include "tarncore.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Inserts the listed modules ("xt_mac.ko"), in order, on behalf of a service.
 * Negative on failure. */
int TLIBIptablesModInsert(const char* servName, PTLIBCSZLIST modules);

/* Releases the listed modules for a service; a module is removed with its last user.
 * Negative on failure. */
int TLIBIptablesModRemove(const char* servName, PTLIBCSZLIST modules);

#ifdef __cplusplus
}
#endif
