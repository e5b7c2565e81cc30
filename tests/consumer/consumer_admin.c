/* A C99 program that administers the firewall by tarnfwadmin_c.h alone. It expects a store with one
 * profile, "home", which denies what comes in by eth0, and a disabled firewall.
 *
 *   consumer_admin without_base          the base filter is not set up
 *   consumer_admin with_base FILE        it is; FILE is the profile's
 *
 * Prints what each function returns and says. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <tarnfwadmin/tarnfwadmin_c.h>

static int failures = 0;
static char reason[300];

/* The code, and how the reason begins. */
static void expect(const char* what, int code, int expected, const char* start) {
    printf("%-34s %d %s\n", what, code, reason);
    if (code != expected || strncmp(reason, start, strlen(start)) != 0) {
        printf("    expected %d %s\n", expected, start);
        ++failures;
    }
    memset(reason, 'x', sizeof reason); /* a reason that is not written or does not end shows */
}

#define EXPECT(call, expected, start) expect(#call, call, expected, start)
#define REASON reason, sizeof reason

static int check_rule(const char* rule) {
    return tarnfwadmin_check_rule(rule, REASON);
}
static int known(const char* service, const char* adapter) {
    return tarnfwadmin_known(service, adapter, REASON);
}
static int add_rule(const char* profile, const char* adapter, const char* rule) {
    return tarnfwadmin_add_rule(profile, adapter, rule, REASON);
}
static int enable(void) {
    return tarnfwadmin_enable(REASON);
}
static int disable(void) {
    return tarnfwadmin_disable(REASON);
}
static int reload(void) {
    return tarnfwadmin_reload(REASON);
}

/* What the answer is, or minus the code. */
static int decide(const char* address, const char* port, const char* adapter) {
    int allowed = 7;
    const int code = tarnfwadmin_decide(address, port, adapter, &allowed, REASON);
    if (code != TARNFWADMIN_OK && allowed != 7) {
        printf("    the answer was written in spite of code %d\n", code);
        ++failures;
    }
    return code == TARNFWADMIN_OK ? allowed : -code;
}

static void without_base(void) {
    EXPECT(check_rule("deny tcp 22 from 10.0.0.0/8"), TARNFWADMIN_OK,
           "deny tcp 22 from 10.0.0.0/8 (IPv4)");
    EXPECT(check_rule("allow service ssh"), TARNFWADMIN_OK, "allow service ssh");
    EXPECT(check_rule("allow tcp 99999"), TARNFWADMIN_INVALID, "\"99999\"");
    EXPECT(check_rule(""), TARNFWADMIN_INVALID, "");
    EXPECT(check_rule(NULL), TARNFWADMIN_INVALID, "no rule is given");
    EXPECT(decide("10.0.0.5", "tcp/22", "eth0"), 1, "the firewall is disabled");
    EXPECT(enable(), TARNFWADMIN_SYSTEM, "the base filter is not set up");
    EXPECT(reload(), TARNFWADMIN_OK, "the firewall is disabled");
}

enum { THREADS = 4, RULES = 5 };

/* Adds rules; how many that worked is in *result. */
static void* add_rules(void* result) {
    char own[300];
    int* const added = result;
    int i;
    for (i = 0; i < RULES; ++i) {
        if (tarnfwadmin_add_rule("home", "eth0", "allow udp 5000", own, sizeof own) ==
            TARNFWADMIN_OK) {
            ++*added;
        }
    }
    return NULL;
}

/* None undoes what another one has done: with the two rules before there are then this many. */
static void add_in_threads(void) {
    pthread_t threads[THREADS];
    int added[THREADS] = {0};
    int all = 0;
    int i;
    for (i = 0; i < THREADS; ++i) {
        (void)pthread_create(&threads[i], NULL, add_rules, &added[i]);
    }
    for (i = 0; i < THREADS; ++i) {
        (void)pthread_join(threads[i], NULL);
        all += added[i];
    }
    if (all != THREADS * RULES) {
        printf("    of %d rules %d were added\n", THREADS * RULES, all);
        ++failures;
    }
    EXPECT(add_rule("home", "eth0", "allow udp 5001"), TARNFWADMIN_OK, "rule 23 of eth0: ");
}

/* Makes rule 1 of the profile, "allow tcp 22 from 10.0.0.0/8", invalid. */
static void spoil(const char* file) {
    char text[4096];
    FILE* profile = fopen(file, "r+");
    const size_t size = profile == NULL ? 0 : fread(text, 1, sizeof text - 1, profile);
    char* port;
    text[size] = '\0';
    port = strstr(text, "\"22\"");
    if (port == NULL) {
        printf("    %s has no port 22\n", file);
        ++failures;
    } else {
        memcpy(port, "\"xx\"", 4);
        rewind(profile);
        (void)fwrite(text, 1, size, profile);
    }
    if (profile != NULL) {
        (void)fclose(profile);
    }
}

static void with_base(const char* file) {
    char small[8];
    EXPECT(enable(), TARNFWADMIN_OK, "the firewall is enabled with profile \"home\"");
    EXPECT(decide("10.0.0.5", "tcp/22", "eth0"), 0, "the default policy of eth0: deny");
    EXPECT(add_rule(NULL, "eth0", "allow tcp 22 from 10.0.0.0/8"), TARNFWADMIN_OK,
           "rule 1 of eth0: allow tcp 22 from 10.0.0.0/8 (IPv4)");
    EXPECT(add_rule("home", "eth0", "deny udp 53"), TARNFWADMIN_OK, "rule 2 of eth0: deny udp 53");
    EXPECT(decide("10.0.0.5", "tcp/22", "eth0"), 1, "rule 1 of eth0: allow tcp 22");
    EXPECT(decide("192.0.2.1", "tcp/22", "eth0"), 0, "the default policy of eth0: deny");
    EXPECT(decide("2001:db8::1", "udp/53", "eth0"), 0, "rule 2 of eth0: deny udp 53");
    EXPECT(reload(), TARNFWADMIN_OK, "profile \"home\" is applied");

    EXPECT(decide("10.0.0.x", "tcp/22", "eth0"), -TARNFWADMIN_INVALID, "\"10.0.0.x\" is not an IP");
    EXPECT(decide("10.0.0.5", "22", "eth0"), -TARNFWADMIN_INVALID, "\"22\" is not a port");
    EXPECT(decide("10.0.0.5", "tcp/22-23", "eth0"), -TARNFWADMIN_INVALID, "one port can be asked");
    EXPECT(decide("10.0.0.5", "tcp/22", "nosuch"), -TARNFWADMIN_NOT_FOUND, "there is no adapter");
    EXPECT(decide(NULL, "tcp/22", "eth0"), -TARNFWADMIN_INVALID, "no address is given");
    EXPECT(add_rule("nosuch", "eth0", "allow any"), TARNFWADMIN_NOT_FOUND, "");
    EXPECT(add_rule("home", "no/such", "allow any"), TARNFWADMIN_UNUSABLE,
           "\"no/such\" is not the name of an adapter");
    EXPECT(add_rule("home", "eht0", "allow any"), TARNFWADMIN_OK,
           "rule 1 of eht0: allow everything from anywhere; there is no adapter \"eht0\" now: ");
    EXPECT(known("ssh", "eht0"), TARNFWADMIN_OK, "known");
    EXPECT(known(NULL, "global"), TARNFWADMIN_OK, "known");
    EXPECT(known("nosuch", NULL), TARNFWADMIN_NOT_FOUND, "there is no service \"nosuch\"");
    EXPECT(known("ssh", "nosuch"), TARNFWADMIN_NOT_FOUND, "there is no adapter \"nosuch\"");
    EXPECT(add_rule("home", "ppp0", "allow any"), TARNFWADMIN_UNUSABLE,
           "rules and default policies");
    EXPECT(add_rule("home", "eth0", "allow tcp ssh,x"), TARNFWADMIN_INVALID, "");
    EXPECT(add_rule("home", NULL, "allow any"), TARNFWADMIN_INVALID, "no adapter is given");

    if (tarnfwadmin_check_rule("allow any", small, sizeof small) != TARNFWADMIN_OK ||
        strcmp(small, "allow e") != 0 ||
        tarnfwadmin_check_rule("nonsense", NULL, 0) != TARNFWADMIN_INVALID) {
        printf("    a small buffer, or none, is not respected\n");
        ++failures;
    }

    add_in_threads();
    spoil(file);
    EXPECT(add_rule("home", "eth0", "allow any"), TARNFWADMIN_INVALID, "rule 1 of eth0: ");
    EXPECT(enable(), TARNFWADMIN_INVALID, "rule 1 of eth0: ");
    (void)remove(file);
    EXPECT(reload(), TARNFWADMIN_NOT_FOUND, "there are no profiles");
    EXPECT(enable(), TARNFWADMIN_NOT_FOUND, "there are no profiles");
    EXPECT(decide("10.0.0.5", "tcp/22", "eth0"), -TARNFWADMIN_NOT_FOUND, "there are no profiles");
    EXPECT(disable(), TARNFWADMIN_OK, "the firewall is disabled");
    EXPECT(disable(), TARNFWADMIN_OK, "the firewall is disabled");
    EXPECT(decide("10.0.0.5", "tcp/22", "global"), 1, "the firewall is disabled");
    EXPECT(decide("10.0.0.5", "tcp/22", "nosuch"), -TARNFWADMIN_NOT_FOUND, "there is no adapter");
}

int main(int argc, char* argv[]) {
    memset(reason, 'x', sizeof reason);
    if (argc == 2 && strcmp(argv[1], "without_base") == 0) {
        without_base();
    } else if (argc == 3 && strcmp(argv[1], "with_base") == 0) {
        with_base(argv[2]);
    } else {
        fprintf(stderr, "usage: consumer_admin without_base | with_base FILE\n");
        return 2;
    }
    return failures != 0;
}
