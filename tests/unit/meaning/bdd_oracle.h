/// Resolved rules as binary decision diagrams, an independent way to compare whole sets of packets.
#pragma once

#include <bdd.h>

#include <cstddef>
#include <string>
#include <vector>

#include "tarnfirewall/fwMeaning.h"

/// What a list of rules does: the packets of each outcome, disjoint and together all packets.
struct BddFunction {
    std::vector<bdd> outcomes;  ///< by verdict and logging, see BddOracle::outcomeOf()
};

/// Knows packets that come and leave through the interfaces of a list; their names have to be
/// enough to tell all rules apart.
class BddOracle {
public:
    explicit BddOracle(std::vector<std::string> interfaces);

    /// A number below 6.
    static std::size_t outcomeOf(FW::FW_PACKET_VERDICT verdict, bool log) {
        return static_cast<std::size_t>(verdict) * 2 + (log ? 1 : 0);
    }

    bdd packets(const FW::FWPACKETSET& set) const;

    /// All packets that there are.
    const bdd& domain() const { return domain_; }

    /// The rules folded from the last to the first.
    BddFunction fold(const std::vector<FW::FWRESOLVEDRULE>& rules) const;

    /// The outcome of a packet whose every field is known, and whose interfaces are of the list.
    std::size_t outcomeOf(const BddFunction& function, const FW::FWPACKET& packet) const;

    static bool same(const BddFunction& a, const BddFunction& b);

private:
    std::vector<std::string> interfaces_;
    bdd domain_;
};
