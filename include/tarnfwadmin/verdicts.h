/// The questions of "blocked" and "explain", and the library's answers to them.
#pragma once

#include <string>
#include <vector>

#include "tarnfirewall/fwTypes.h"

namespace tarnfw {

/// Reads "tcp/22", "udp/5000-5010" or "both/53" ("tcp+udp/53"). Returns what is wrong with the
/// text; empty when nothing is.
std::string portQuestionFrom(const std::string& text, FW::PortCompareST& question);

/// "tcp/22", "both/53"; for source ports "source tcp/22".
std::string questionText(const FW::PortCompareST& question);

/// "allowed", "blocked", "undecided", "mixed"; on the way "allowed for some addresses", "blocked
/// for some addresses"; or "unknown verdict 7".
std::string verdictText(FW::FW_POLICY verdict);

/// The verdict on one question, and the steps of this adapter that led there.
struct PortAnswer {
    FW::PortCompareST question;
    FW::FW_POLICY verdict = FW::FW_POLICY_NONE;
    std::vector<FW::FWVERDICTSTEP> steps;
};

/// The verdict of an adapter on all questions together: blocked before mixed before allowed before
/// undecided.
struct AdapterAnswer {
    std::string adapter;
    FW::FW_POLICY verdict = FW::FW_POLICY_NONE;
    std::vector<PortAnswer> ports;
};

/// Asks the library about each adapter by its name: asked about all at once, it goes through the
/// rules of "global" twice. The first answer is that of "global". Throws Error.
std::vector<AdapterAnswer> askVerdicts(const std::vector<FW::PortCompareST>& questions,
                                       const std::vector<std::string>& adapters);

/// Whether nothing of it is blocked or mixed.
bool allAllowed(const std::vector<AdapterAnswer>& answers);

}  // namespace tarnfw
