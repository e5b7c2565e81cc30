/* A C99 program that knows the library by tarnfirewall_c.h alone. It expects a store with one
 * profile, "home", and a disabled firewall. Prints what it sees of each function. */
#include <stdio.h>
#include <tarnfirewall/tarnfirewall_c.h>

static int failures = 0;

static void expect(const char* what, int result, int expected) {
    printf("%-52s %d\n", what, result);
    if (result != expected) {
        printf("    expected %d\n", expected);
        ++failures;
    }
}

int main(void) {
    expect("ssh on eth0, firewall disabled", TARNFwPortsCheckAllowByAdapter("eth0", "ssh"), 1);
    expect("ssh on all adapters", TARNFwPortsCheckAllowByAdapter(NULL, "ssh"), 1);
    expect("no service", TARNFwPortsCheckAllowByAdapter("eth0", NULL), -1);
    expect("reserve nothing", TLIBFwRuleReserveServInsert("", 1, 0), -1);
    expect("reserve ssh and https", TLIBFwRuleReserveServInsert("ssh,https", 1, 0), 0);
    expect("move eth0 to bond0", TLIBFwChangeAdatper("eth0", "bond0", 0), 0);
    expect("follow the catalogue, reload", TARNFwRuleHup(), 0);
    expect("remove https", TLIBFwServRemoveRec("https"), 0);
    expect("core modules, no service", TARNIptablesCodeModeLoad(NULL), -1);
    expect("core modules", TARNIptablesCodeModeLoad("consumer"), 1);
    expect("core modules, back", TARNIptablesCoreModUnload("consumer"), 1);
    expect("NAT modules", TARNIptablesNATModLoad("consumer"), 1);
    expect("NAT modules, back", TARNIptablesNATModUnload("consumer"), 1);
    TARNFwReset();
    return failures != 0;
}
