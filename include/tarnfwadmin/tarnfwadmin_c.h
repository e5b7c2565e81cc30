/* Administering the firewall from C; C99 and C++.
 *
 * Texts end with a zero byte and are UTF-8. Every function returns one of the codes below and
 * writes one line about it for a person to `reason`: why it failed, or what was done or found. The
 * line is cut to fit `size` bytes and always ends with a zero byte; with NULL or 0 it is left out.
 * No exception leaves a function. Nothing is printed; the libraries log to syslog.
 *
 * The functions hold nothing between calls and may be called by several threads and processes at a
 * time: those that change something wait for each other, up to 30 s. They need root's rights,
 * tarnfwadmin_check_rule(), tarnfwadmin_known(), tarnfwadmin_blocked() and tarnfwadmin_decide()
 * only the permission to read. */
#ifndef TARNFWADMIN_TARNFWADMIN_C_H
#define TARNFWADMIN_TARNFWADMIN_C_H

#include <stddef.h>

#include "tarnfirewall/fwExport.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The kinds of error.h, but for kDeclined: no function asks a person. */
enum tarnfwadmin_code {
    TARNFWADMIN_OK = 0,
    TARNFWADMIN_SYSTEM = 1,    /* the operating system or the library failed, or the base filter is
                                  missing */
    TARNFWADMIN_NOT_FOUND = 2, /* a profile, adapter, service or country that does not exist */
    TARNFWADMIN_INVALID = 3,   /* an argument, a profile or a rule that is not valid */
    TARNFWADMIN_REFUSED = 4,   /* the rules could not be applied */
    TARNFWADMIN_BUSY = 5,      /* another program holds a lock */
    TARNFWADMIN_NO_RIGHTS = 6, /* this process lacks the rights */
    TARNFWADMIN_UNUSABLE = 7   /* a name that cannot be used for this: reserved, or of the wrong
                                  sort */
};

/* Whether `rule` is a rule, such as "deny tcp 22,6000-6010 from 192.168.1.0/24" (see ruleSyntax.h),
 * with the services and countries of this machine. On success `reason` is the rule as it is
 * understood. Changes nothing. */
TARNFW_EXPORT int tarnfwadmin_check_rule(const char* rule, char* reason, size_t size);

/* Whether the service catalogue has `service`, and whether `adapter` is an interface of the
 * machine, one of the active profile's adapters, or predefined. NULL is not asked about. Otherwise
 * TARNFWADMIN_NOT_FOUND; `reason` has the nearest name. Changes nothing. */
TARNFW_EXPORT int tarnfwadmin_known(const char* service, const char* adapter, char* reason,
                                    size_t size);

/* Whether the active profile, as it is stored, lets packets for `service` in through `adapter`;
 * NULL asks about "global" and all adapters of the profile and of the machine, but for "lo".
 * `blocked` becomes 0 when nothing blocks any of them, 1 when it depends on the sender or the
 * adapter, 2 when all are blocked, and is left alone on failure. While the firewall is disabled
 * nothing is blocked. TARNFWADMIN_NOT_FOUND as tarnfwadmin_known(), and for "pppoe" and "vpn" when
 * the profile has nothing for it and no interface of the machine is one. Changes nothing. */
TARNFW_EXPORT int tarnfwadmin_blocked(const char* service, const char* adapter, int* blocked,
                                      char* reason, size_t size);

/* Adds `rule` as the last of an adapter's list ("eth0", "global") and stores the profile, when the
 * whole profile is valid with it. The machine need not have the adapter: the rule has no effect
 * until it has, and `reason` says so. `profile` is its name; NULL or "" means the active one. The
 * kernel still has the old rules, see tarnfwadmin_reload(). On success `reason` says where the rule
 * is. On failure the store is as it was. */
TARNFW_EXPORT int tarnfwadmin_add_rule(const char* profile, const char* adapter, const char* rule,
                                       char* reason, size_t size);

/* Enables the firewall and applies the active profile, when that is valid and the base filter is
 * set up. After TARNFWADMIN_REFUSED a firewall that was disabled is disabled again; after every
 * other failure nothing has changed, unless `reason` says that going back has failed. During a
 * trial ("tarnfw try") the rules on trial are replaced and the trial keeps nothing: only the tool
 * knows about trials and refuses that. */
TARNFW_EXPORT int tarnfwadmin_enable(char* reason, size_t size);

/* Empties the firewall's chains and disables it, also when it is disabled already. On failure the
 * chains may be empty while the settings still say that it is enabled. */
TARNFW_EXPORT int tarnfwadmin_disable(char* reason, size_t size);

/* Applies the active profile. While the firewall is disabled it succeeds, does nothing and says so.
 * A profile that this kernel does not take as a whole is refused. After a failure `reason` says
 * what is in force: the old rules, unless going back to them failed, too. In the apply mode "lines"
 * a process that is killed meanwhile leaves the machine closed to new connections. A
 * trial is not noticed, see tarnfwadmin_enable(). */
TARNFW_EXPORT int tarnfwadmin_reload(char* reason, size_t size);

/* Whether packets from `address` ("10.0.0.5", "2001:db8::1") that come in by `adapter` ("eth0") may
 * reach a port of this machine ("tcp/445", "udp/53"), by the active profile as it is stored.
 * `allowed` becomes 1 or 0, and is left alone on failure; `reason` names the rule or default policy
 * that decides, and then, after "; unless", each earlier rule that may match and decide otherwise.
 * While the firewall is disabled everything is allowed. TARNFWADMIN_NOT_FOUND as
 * tarnfwadmin_blocked(). Changes nothing. */
TARNFW_EXPORT int tarnfwadmin_decide(const char* address, const char* port, const char* adapter,
                                     int* allowed, char* reason, size_t size);

#ifdef __cplusplus
}
#endif

#endif
