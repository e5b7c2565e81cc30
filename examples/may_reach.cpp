// Asks whether an address may reach a port of this machine, and which rule says so.
//
//   may_reach ADDRESS PORT INTERFACE      may_reach 10.0.0.5 tcp/445 eth0
//
// Exit status: 0 it may, 1 it may not, 2 the question could not be answered, 3 neither the machine
// nor the profile has such an interface.
#include <tarnfwadmin/error.h>
#include <tarnfwadmin/interfaces.h>
#include <tarnfwadmin/meaning.h>
#include <tarnfwadmin/packetAnswers.h>
#include <tarnfwadmin/storeSession.h>

#include <exception>
#include <iostream>

namespace {

bool mayReach(const char* address, const char* port, const char* interface) {
    const tarnfw::StoreSession session(tarnfw::StoreSession::Access::kRead);
    const tarnfw::StoreSnapshot& store = session.snapshot();
    const FW::FWPROFILE& profile = store.profile(store.activeProfile());
    tarnfw::requireAdapter(interface, tarnfw::adaptersOf(profile));
    if (!store.firewallEnabled()) {
        std::cout << "allowed: the firewall is disabled\n";
        return true;
    }
    const tarnfw::Meaning meaning(profile);
    bool allowed = true;
    // One decision; of a range such as tcp/6000-6010 one for each part that is decided alike.
    const auto packets =
        tarnfw::packetsFrom(address, port, tarnfw::interfaceFor(meaning, interface));
    for (const auto& decision : tarnfw::decisionsFor(meaning, packets)) {
        std::cout << (decision.denied ? "denied: " : "allowed: ")
                  << tarnfw::reasonText(meaning, decision.by) << '\n';
        for (const auto number : decision.unless) {  // rules of which it is not known
            std::cout << "  unless " << tarnfw::placeText(tarnfw::placeOf(meaning, number))
                      << " matches\n";
        }
        for (const auto& rule : decision.uncounted) {  // too complex to be evaluated
            std::cout << "  unless " << tarnfw::placeText(rule.place) << " matches\n";
        }
        allowed = allowed && !decision.denied;
    }
    return allowed;
}

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 4) {
        std::cerr << "usage: may_reach ADDRESS PORT INTERFACE\n";
        return 2;
    }
    try {
        return mayReach(argv[1], argv[2], argv[3]) ? 0 : 1;
    } catch (const tarnfw::Error& error) {
        std::cerr << "may_reach: " << error.what() << '\n';
        return error.kind() == tarnfw::ErrorKind::kNotFound ? 3 : 2;
    } catch (const std::exception& error) {
        std::cerr << "may_reach: " << tarnfw::reasonOf(error) << '\n';
        return 2;
    }
}
