/* The library's functions for programs that do not use its classes; C99 and C++. */
#pragma once

#include "tarnfirewall/fwExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Names and addresses are NUL-terminated strings. Unless said otherwise a
 * function returns 0 on success and -1 on failure, which is logged, and only a reload flag of 1
 * asks for a reload. An exception of the classes is a failure like any other: it is logged and
 * does not leave the function. */

/* Brings every profile up to date with the service catalogue and, if that succeeds, applies the
 * active one. */
TARNFW_EXPORT int TARNFwRuleHup(void);

/* Disables the firewall. The outcome is not reported. */
TARNFW_EXPORT void TARNFwReset(void);

/* Removes a service from every profile. `servName` must not be NULL; that is not checked. */
TARNFW_EXPORT int TLIBFwServRemoveRec(const char* servName);

/* Moves the rules and the policy of one adapter to another in every profile. The names must not be
 * NULL; that is not checked. */
TARNFW_EXPORT int TLIBFwChangeAdatper(const char* oldAdapter, const char* newAdapter, int reload);

/* Reserves the services, separated by commas, on the adapter "global" of every profile: allowed
 * when `allow` is not 0, blocked when it is. Blanks are part of a name; empty names are ignored.
 * Stops at the first failure. NULL or an empty text sets the platform's error state to 0x0D00,
 * unlogged. */
TARNFW_EXPORT int TLIBFwRuleReserveServInsert(const char* servNames, int allow, int reload);

/* Asks whether the active profile lets a service through on `adapter`, or on all adapters when that
 * is NULL or empty. Returns 1 when allowed, also for a service that the catalogue does not have, as
 * it has no ports; 0 when the verdict for any of them, or of the global rules, is a different one,
 * and -1 on failure; NULL for `servName` also sets the platform's error state to 0x0D00. */
TARNFW_EXPORT int TARNFwPortsCheckAllowByAdapter(const char* adapter, const char* servName);

/* Kernel modules on behalf of the service `servName`: the core list, or the core and the NAT list.
 * Each returns 1 on success, 0 on failure, and -1, logged, when `servName` is NULL. */
TARNFW_EXPORT int TARNIptablesCodeModeLoad(const char* servName);
TARNFW_EXPORT int TARNIptablesCoreModUnload(const char* servName);
TARNFW_EXPORT int TARNIptablesNATModLoad(const char* servName);
TARNFW_EXPORT int TARNIptablesNATModUnload(const char* servName);

#ifdef __cplusplus
}
#endif
