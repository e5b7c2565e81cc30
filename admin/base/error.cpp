#include "tarnfwadmin/error.h"

#include <boost/interprocess/exceptions.hpp>

#include "tarnfwadmin/text.h"

namespace tarnfw {

std::string placeText(const RulePlace& place) {
    return "rule " + std::to_string(place.position) + " of " + printable(place.adapter);
}

std::string reasonOf(const std::exception& error) {
    const bool isLock =
        dynamic_cast<const boost::interprocess::interprocess_exception*>(&error) != nullptr;
    return std::string(isLock ? "a lock file below /var/lock/firewall cannot be opened: " : "") +
           error.what();
}

}  // namespace tarnfw
