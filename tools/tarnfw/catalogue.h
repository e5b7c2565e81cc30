/// The service catalogue as the commands look into it.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "tarnserviceconf.h"

namespace tarnfw {

/// The services that the firewall can use, by name. The records live as long as the object.
class Catalogue {
public:
    /// Loads the catalogue; one that is empty or cannot be read has no services.
    Catalogue();

    const std::map<std::string, const TARNFW_SERVICE*>& services() const { return services_; }

private:
    struct Release {
        void operator()(TARNFW_SERVICE_LIST* list) const { TARNFwServiceFree(list); }
    };

    std::unique_ptr<TARNFW_SERVICE_LIST, Release> list_;
    std::map<std::string, const TARNFW_SERVICE*> services_;
};

}  // namespace tarnfw
