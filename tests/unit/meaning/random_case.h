/// Random profiles on the fake platform.
#pragma once

#include <string>
#include <vector>

#include "fake_platform.h"
#include "tarnfirewall/fwMeaning.h"

#include "random_profile.h"

/// A profile with the machine that it is for.
struct RandomCase {
    FW::FWPROFILE profile;
    bool batch = false;
    FW::FWENVIRONMENT environment;
    std::vector<std::string> interfaces;  ///< names to send packets through
};

/// Makes a profile of up to `rules` rules an adapter and sets the platform's answers for it.
RandomCase makeCase(Random& random, int rules, const TestCountries& countries,
                    FakePlatform& platform);

/// Writes the files of the country database.
void storeCountries(const TestCountries& countries);
