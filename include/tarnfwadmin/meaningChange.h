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

/// Packets with which something else happens, in words.
struct ChangeText {
    /// "opens tcp 445 on eth0, for 10.0.0.0/8 except 10.3.0.0/16 (rule 4 of eth0)". Not made
    /// printable.
    std::string text;
    FW::FW_CHANGE change = FW::FW_CHANGE_OPENED;
    bool logs = false;  ///< of FW_CHANGE_LOGGING: they are logged now
    /// The packets that the text is about, all of which change so; none where the text says that it
    /// is about a part of others, or about what was too complex to compare.
    std::vector<FW::FWPACKETSET> packets;
};

/// The difference of what two profiles mean.
class MeaningDifference {
public:
    /// How many changes the text of all of them names.
    static constexpr std::size_t kMostChanges = 4;

    /// The most characters of a change's text, apart from its rules: a word of a profile, such as
    /// the name of an adapter, may have more.
    static constexpr std::size_t kLongestText = 500;

    /// Both have the same environment. `named` are rules of `after` that the texts need not name
    /// as those that decide, since whoever prints them does.
    MeaningDifference(const Meaning& before, const Meaning& after,
                      const std::vector<RulePlace>& named = {});

    /// Whether both let the same packets through and log the same ones; false where that is too
    /// complex to find out.
    bool same() const { return exact_.changes.empty() && !tooComplex(); }

    /// Whether there may be more changes than are named: the rules are too complex to compare, or
    /// one is not counted that is not the same on both sides.
    bool tooComplex() const { return !exact_.findings.empty() || !notCounted_.empty(); }

    /// The packets, with the numbers of the rules that decide in Meaning::answers() of both sides.
    const FW::FWDIFFERENCE& exact() const { return exact_; }

    /// The changes in words. Where one edit is too complex to compare, that is what its rule
    /// matches: "closes tcp on eth0, for everybody, where it was open". Packets of the lines that
    /// are the same for every profile, such as those of established connections, are left out of
    /// consideration.
    const std::vector<ChangeText>& changes() const { return changes_; }

    /// The rules that are not counted, one line each: "rule 1 of eth0 is not counted: ...". Not
    /// made printable.
    const std::vector<std::string>& notCounted() const { return notCounted_; }

    /// One line for each change, and then notCounted(). Not made printable.
    std::vector<std::string> texts() const;

    /// The first `most` of changes() in one line, and the number of the others; "nothing else
    /// happens to any packet" when there are none.
    std::string text(std::size_t most = kMostChanges) const;

    /// The adapters, apart from "global", whose rules or default policies decide about packets with
    /// which something else happens, before or after; sorted.
    std::vector<std::string> adapters() const { return adapters_; }

private:
    FW::FWDIFFERENCE exact_;
    std::vector<ChangeText> changes_;
    std::vector<std::string> notCounted_;
    std::vector<std::string> adapters_;
    bool saysAll_ = false;  // changes_ are about all that changes, though it is too complex
};

/// The packets that a rule decides about, whatever would happen without it, as texts() has them:
/// "tcp 445 on eth0, for 10.0.0.0/8 except 10.3.0.0/16". Empty when there is none. Not made
/// printable.
std::string decidedText(const Meaning& meaning, const RulePlace& place);

}  // namespace tarnfw
