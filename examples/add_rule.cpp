// Adds a rule to the active profile if the whole profile stays valid, and applies it.
//
//   add_rule ADAPTER RULE      add_rule eth0 "allow tcp 445 from 10.0.0.0/8"
//
// Exit status: 0 done, 1 the profile is as it was, or could not be applied, 2 wrong usage.
#include <tarnfwadmin/control.h>
#include <tarnfwadmin/error.h>
#include <tarnfwadmin/machine.h>
#include <tarnfwadmin/ruleChange.h>
#include <tarnfwadmin/storeSession.h>
#include <tarnfwadmin/vocabulary.h>

#include <exception>
#include <iostream>

namespace {

void addAndApply(const char* adapter, const char* text) {
    tarnfw::Machine machine;
    const FW::FWRULE rule = tarnfw::ruleFromText(text, machine);
    tarnfw::StoreSession session(tarnfw::StoreSession::Access::kChange);
    const std::string profile = session.snapshot().activeProfile();
    const tarnfw::RulePlace place = tarnfw::addRule(session, profile, adapter, rule, machine);
    std::cout << "stored as " << tarnfw::placeText(place) << '\n';
    if (tarnfw::Control(session).apply()) {
        std::cout << "applied\n";
    } else {
        std::cout << "the firewall is disabled\n";
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        std::cerr << "usage: add_rule ADAPTER RULE\n";
        return 2;
    }
    try {
        addAndApply(argv[1], argv[2]);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "add_rule: " << tarnfw::reasonOf(error) << '\n';
        return 1;
    }
}
