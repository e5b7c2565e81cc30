/* The library's functions for programs that do not use its classes; C99 and C++. */
#pragma once

#include "tarnfirewall/fwExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Kernel modules on behalf of the service `servName`: the core list, or the core and the NAT list.
 * Each returns 1 on success, 0 on failure, and -1, logged, when `servName` is NULL. */
TARNFW_EXPORT int TARNIptablesCodeModeLoad(const char* servName);
TARNFW_EXPORT int TARNIptablesCoreModUnload(const char* servName);
TARNFW_EXPORT int TARNIptablesNATModLoad(const char* servName);
TARNFW_EXPORT int TARNIptablesNATModUnload(const char* servName);

#ifdef __cplusplus
}
#endif
