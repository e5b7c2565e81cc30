/* Asks whether the firewall, as it is configured now, lets a service through.
 *
 *   ask SERVICE [ADAPTER]
 *
 * Exit status: 0 allowed, 1 blocked for some senders or all, 2 the question could not be answered;
 * the system log says why. 3 nothing is known of such a service or adapter: the firewall library
 * alone would count it as allowed, since no rule blocks it.
 */
#include <stdio.h>
#include <tarnfirewall/tarnfirewall_c.h>
#include <tarnfwadmin/tarnfwadmin_c.h>

int main(int argc, char* argv[]) {
    char reason[256];
    if (argc < 2) {
        fprintf(stderr, "usage: ask SERVICE [ADAPTER]\n");
        return 2;
    }
    const char* adapter = argc > 2 ? argv[2] : NULL; /* NULL asks about all adapters */
    const int known = tarnfwadmin_known(argv[1], adapter, reason, sizeof reason);
    if (known != TARNFWADMIN_OK) {
        fprintf(stderr, "ask: %s\n", reason);
        return known == TARNFWADMIN_NOT_FOUND ? 3 : 2;
    }
    switch (TARNFwPortsCheckAllowByAdapter(adapter, argv[1])) {
        case 1:
            printf("%s is allowed\n", argv[1]);
            return 0;
        case 0:
            printf("%s is blocked\n", argv[1]);
            return 1;
        default:
            return 2;
    }
}
