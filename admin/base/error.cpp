#include "tarnfwadmin/error.h"

#include <boost/interprocess/exceptions.hpp>

#include "tarnfwadmin/text.h"

namespace tarnfw {

std::string placeText(const RulePlace& place) {
    const std::string what = place.position == 0 ? std::string("the default policy")
                                                 : "rule " + std::to_string(place.position);
    return what + " of " + printable(place.adapter);
}

std::string reasonOf(const std::exception& error) {
    const bool isLock =
        dynamic_cast<const boost::interprocess::interprocess_exception*>(&error) != nullptr;
    return std::string(isLock ? "a lock file below /var/lock/firewall cannot be opened: " : "") +
           error.what();
}

}  // namespace tarnfw
