#include "random_case.h"

#include "library_test.h"

namespace {

std::map<std::string, FakeService> fakeServices() {
    std::map<std::string, FakeService> services;
    services["ssh"] = {"SSH", 1, {"22"}, 0, {}};
    services["web"] = {"Web", 3, {"80", "443", "8000-8080"}, 0, {}};
    services["vpn_server_pptp"] = {"PPTP", 1, {"1723"}, 0, {}};
    services["vpn_server_ipsec"] = {"IPsec", 2, {"500", "4500"}, 4, {"1"}};
    services["hidden"] = {"", 1, {"9999"}, 0, {}};
    services["from"] = {"From", 32, {"1"}, 3, {"1000-1999"}};
    return services;
}

/// What the engine gets to know of the fake platform.
FW::FWENVIRONMENT environmentOf(const FakePlatform& platform, const TestCountries& countries) {
    FW::FWENVIRONMENT environment;
    environment.adapters = FW::fwAdaptersNow(platform.interfaces, platform.pppoeInterface);
    for (const auto& [asked, router] : platform.popenOutput) {
        if (asked == router) {
            continue;
        }
        environment.tunnels[asked] = router;
        if (asked == platform.pppoeInterface) {
            environment.tunnels["pppoe"] = router;
        }
    }
    for (const auto& [name, service] : platform.services) {
        if (service.title.empty()) {
            continue;
        }
        FW::ServPort& ports = environment.services[name];
        if (!service.srcPorts.empty()) {
            ports.srcPorts[FW::FW_PORT_PROTOCOL(service.srcProtocol)] = service.srcPorts;
        }
        if (!service.dstPorts.empty()) {
            ports.dstPorts[FW::FW_PORT_PROTOCOL(service.dstProtocol)] = service.dstPorts;
        }
    }
    environment.countries = [&countries](const std::string& country, FW::FW_FAMILY family) {
        return countries.find(country, family);
    };
    return environment;
}

}  // namespace

RandomCase makeCase(Random& random, int rules, const TestCountries& countries,
                    FakePlatform& platform) {
    platform.interfaces = {"lo", "eth0", "eth1", "tun0", "tun1000", "ppp0", "ppp1"};
    if (pick(random, 3) == 0) {
        platform.interfaces.emplace_back("et+");
        platform.interfaces.emplace_back("+");
    }
    platform.pppoeInterface = pick(random, 3) == 0 ? "" : pick(random, 2) == 0 ? "ppp0" : "ppp1";
    platform.popenOutput.clear();
    if (pick(random, 2) == 0) {
        // With the interface of another adapter, rules for eth0 are tried before and after its own.
        static const std::vector<std::string> kRouters = {"sit0", "sit0",    "global", "ppp0",
                                                          "tun0", "tun1000", "eth1"};
        platform.popenOutput["eth0"] = oneOf(random, kRouters);
        platform.popenOutput["vpn"] = pick(random, 2) == 0 ? "eth1" : "vpn";
    }
    if (pick(random, 3) == 0 && !platform.pppoeInterface.empty()) {
        platform.popenOutput[platform.pppoeInterface] = "aaa0";
    }
    platform.services = fakeServices();

    RandomCase made;
    made.batch = pick(random, 2) == 0;
    made.profile = makeProfile(
        random, rules,
        {"global", "eth0", "eth1", "vpn", "pppoe", "ppp0", "absent", "et+", "+", "tun0"});
    made.environment = environmentOf(platform, countries);
    made.environment.batch = made.batch;
    made.interfaces = platform.interfaces;
    for (const char* const name : {"sit0", "aaa0", "eth", "eth01", "other", "tun9", "e"}) {
        made.interfaces.emplace_back(name);
    }
    return made;
}

void storeCountries(const TestCountries& countries) {
    for (const auto& [name, content] : countries.files()) {
        writeFile(kGeoipDir + name, content);
    }
}
