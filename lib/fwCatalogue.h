/// The platform's service catalogue, released with its owner.
#pragma once

#include <memory>
#include <utility>

#include "tarnserviceconf.h"

#include "tarnfirewall/fwIptables.h"

namespace FW {

using ServiceCatalogue = std::unique_ptr<TARNFW_SERVICE_LIST, CatalogueRelease>;

/// Loads the catalogue; null when it is empty or cannot be read.
inline ServiceCatalogue catalogueLoad() {
    TARNFW_SERVICE_LIST* list = nullptr;
    const int count = TARNFwServiceEnum(&list);
    ServiceCatalogue catalogue(list);
    return count >= 1 ? std::move(catalogue) : nullptr;
}

/// Whether the firewall may use a service: it ignores one without a title.
inline bool isUsable(const TARNFW_SERVICE* service) {
    return service != nullptr && service->title[0] != '\0';
}

}  // namespace FW
