/// The texts of "tarnfw help TOPIC".
#pragma once

#include <vector>

namespace tarnfw {

struct HelpTopic {
    const char* name;
    const char* summary;  ///< half a line
    const char* text;     ///< lines of at most 78 columns
};

/// In the order in which a newcomer may want to read them.
const std::vector<HelpTopic>& helpTopics();

}  // namespace tarnfw
