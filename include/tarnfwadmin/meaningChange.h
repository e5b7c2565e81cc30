/// What a change of a profile opens and closes.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tarnfirewall/fwExport.h"
#include "tarnfirewall/fwMeaning.h"

#include "tarnfwadmin/meaning.h"
#include "tarnfwadmin/place.h"

namespace TARNFW_EXPORT_ALL tarnfw {

/// The difference of what two profiles mean.
class MeaningDifference {
public:
    /// How many changes the text of all of them names.
    static constexpr std::size_t kMostChanges = 4;

    /// Both have the same environment. `named` are rules of `after` that the texts need not name
    /// as those that decide, since whoever prints them does.
    MeaningDifference(const Meaning& before, const Meaning& after,
                      const std::vector<RulePlace>& named = {});

    /// Whether both let the same packets through and log the same ones; false where that is too
    /// complex to find out.
    bool same() const { return exact_.changes.empty() && exact_.findings.empty(); }

    /// Whether there may be more changes than are named.
    bool tooComplex() const { return !exact_.findings.empty(); }

    /// The packets, with the numbers of the rules that decide in Meaning::answers() of both sides.
    const FW::FWDIFFERENCE& exact() const { return exact_; }

    /// One line for each change, for people: "opens tcp 445 on eth0, for 10.0.0.0/8 except
    /// 10.3.0.0/16 (rule 4 of eth0)". Not made printable. Packets of the lines that are the same
    /// for every profile, such as those of established connections, are left out of consideration.
    const std::vector<std::string>& texts() const { return texts_; }

    /// The first `most` of texts() in one line, and the number of the others; "nothing else happens
    /// to any packet" when there are none.
    std::string text(std::size_t most = kMostChanges) const;

private:
    FW::FWDIFFERENCE exact_;
    std::vector<std::string> texts_;
};

/// The packets that a rule decides about, whatever would happen without it, as texts() has them:
/// "tcp 445 on eth0, for 10.0.0.0/8 except 10.3.0.0/16". Empty when there is none. Not made
/// printable.
std::string decidedText(const Meaning& meaning, const RulePlace& place);

}  // namespace tarnfw
