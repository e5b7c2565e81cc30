/* Asks whether the firewall, as it is configured now, lets a service through.
 *
 *   ask SERVICE [ADAPTER]
 *
 * Exit status: 0 allowed, 1 blocked for some senders or all, 2 the question could not be answered;
 * the system log says why. A service that nobody knows has no ports, and counts as allowed.
 */
#include <stdio.h>
#include <tarnfirewall/tarnfirewall_c.h>

int main(int argc, char* argv[]) {
    if (argc < 2) {
        fprintf(stderr, "usage: ask SERVICE [ADAPTER]\n");
        return 2;
    }
    const char* adapter = argc > 2 ? argv[2] : NULL; /* NULL asks about all adapters */
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
