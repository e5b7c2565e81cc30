/// Profiles for the measurements of FW_MEANING, the same ones in every run, and the machine they
/// are for.
#pragma once

#include "tarnfirewall/fwMeaning.h"

enum class MeaningKind {
    Random,     ///< networks, ports and verdicts at random, on four adapters
    Realistic,  ///< services, some networks, 20 countries of a full-size database
    Hostile,    ///< wide ranges of addresses and ports that cut each other, on either side
    Crowded,    ///< the same, all of TCP on one adapter
    Lists,      ///< masks with gaps on one adapter: of each rule 128 addresses of its own
};

struct NamedMeaningKind {
    const char* name;
    MeaningKind kind;
};

inline constexpr NamedMeaningKind kMeaningKinds[] = {
    {"random", MeaningKind::Random},   {"realistic", MeaningKind::Realistic},
    {"hostile", MeaningKind::Hostile}, {"crowded", MeaningKind::Crowded},
    {"lists", MeaningKind::Lists},
};

/// A profile of `rules` rules. Different seeds make unrelated profiles.
FW::FWPROFILE makeMeaningProfile(MeaningKind kind, int rules, unsigned seed = 1);

/// The interfaces of support/answers.cpp, the platform's services, and 20 countries.
FW::FWENVIRONMENT makeMeaningEnvironment();

/// Writes the database files of these countries.
void storeMeaningCountries();
