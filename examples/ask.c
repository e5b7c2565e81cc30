/* Asks whether the firewall, as it is configured now, lets a service through.
 *
 *   ask SERVICE [ADAPTER]
 *
 * Exit status: 0 allowed for everybody, 1 blocked for some senders or all, 2 the question could not
 * be answered, 3 nothing is known of such a service or adapter.
 */
#include <stdio.h>
#include <tarnfwadmin/tarnfwadmin_c.h>

int main(int argc, char* argv[]) {
    static const char* const answers[] = {"allowed", "blocked for some", "blocked"};
    char reason[1024];
    int blocked = 0;
    if (argc < 2) {
        fprintf(stderr, "usage: ask SERVICE [ADAPTER]\n");
        return 2;
    }
    const char* adapter = argc > 2 ? argv[2] : NULL; /* NULL asks about all adapters */
    const int result = tarnfwadmin_blocked(argv[1], adapter, &blocked, reason, sizeof reason);
    if (result != TARNFWADMIN_OK) {
        fprintf(stderr, "ask: %s\n", reason);
        return result == TARNFWADMIN_NOT_FOUND ? 3 : 2;
    }
    printf("%s is %s (%s)\n", argv[1], answers[blocked], reason);
    return blocked == 0 ? 0 : 1;
}
