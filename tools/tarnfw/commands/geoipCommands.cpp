/// tarnfw geoip: the country database that country rules match by.
#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>
#include <boost/algorithm/string/case_conv.hpp>

#include "cli/command.h"
#include "cli/commandLine.h"
#include "cli/output.h"
#include "commands/commands.h"
#include "tarnfwadmin/addressRange.h"
#include "tarnfwadmin/machine.h"

namespace tarnfw {
namespace {

/// The countries of the database. Throws Error without any.
std::vector<std::string> requireCountries() {
    std::vector<std::string> codes = machineCountries();
    if (codes.empty()) {
        throw Error(ErrorKind::kNotFound, "there are no country data in /usr/share/xt_geoip");
    }
    return codes;
}

std::string textOf(const AddressRange& range) {
    const std::string first = spelled(range.first);
    return range.first == range.last ? first : first + "-" + spelled(range.last);
}

Json::Value jsonOf(const AddressRange& range) {
    Json::Value entry;
    entry["first"] = spelled(range.first);
    entry["last"] = spelled(range.last);
    return entry;
}

// ---- list ---------------------------------------------------------------------------------------

void list(bool json) {
    const std::vector<std::string> codes = requireCountries();
    Json::Value document;
    Table table({"country", "IPv4 ranges", "IPv6 ranges"});
    Progress progress("Reading countries", codes.size());
    for (const std::string& code : codes) {
        const std::size_t v4 = readCountryRanges(code, false).size();
        const std::size_t v6 = readCountryRanges(code, true).size();
        Json::Value entry;
        entry["country"] = code;
        entry["v4Ranges"] = static_cast<Json::UInt>(v4);
        entry["v6Ranges"] = static_cast<Json::UInt>(v6);
        document["countries"].append(entry);
        table.addRow({{code}, {std::to_string(v4)}, {std::to_string(v6)}});
        progress.step();
    }
    if (json) {
        printJson(document);
    } else {
        table.print();
    }
}

// ---- show ---------------------------------------------------------------------------------------

struct ShowOptions {
    std::string country;
    FamilyOptions family;
    bool json = false;
};

/// The country as the database spells it. Throws Error for one without data.
std::string knownCountry(const std::string& wanted) {
    const std::vector<std::string> codes = requireCountries();
    for (const std::string& code : {wanted, boost::to_upper_copy(wanted)}) {
        if (std::binary_search(codes.begin(), codes.end(), code)) {
            return code;
        }
    }
    throw Error(ErrorKind::kNotFound,
                "there are no data for country " + inQuotes(wanted) +
                    didYouMean(nearestCode(boost::to_upper_copy(wanted), codes)) +
                    "; see \"tarnfw geoip list\"");
}

void show(const ShowOptions& options) {
    const std::string country = knownCountry(options.country);
    Json::Value document;
    document["country"] = country;
    document["ranges"] = Json::Value(Json::arrayValue);
    for (const bool ipv6 : {false, true}) {
        if (ipv6 ? options.family.onlyV4() : options.family.onlyV6()) {
            continue;
        }
        for (const AddressRange& range : readCountryRanges(country, ipv6)) {
            if (!options.json) {
                std::cout << textOf(range) << '\n';
                continue;
            }
            Json::Value entry = jsonOf(range);
            entry["family"] = ipv6 ? "v6" : "v4";
            document["ranges"].append(entry);
        }
    }
    if (options.json) {
        printJson(document);
    }
}

// ---- check --------------------------------------------------------------------------------------

struct CheckOptions {
    std::string address;
    bool json = false;
};

/// A range that contains the address, and its country.
struct Match {
    std::string country;
    AddressRange range;
};

std::vector<Match> matchesOf(const Address& address) {
    const std::vector<std::string> codes = requireCountries();
    std::vector<Match> matches;
    Progress progress("Reading countries", codes.size());
    for (const std::string& code : codes) {
        const std::vector<AddressRange> ranges = readCountryRanges(code, address.isIpv6());
        const auto found =
            std::find_if(ranges.begin(), ranges.end(),
                         [&](const AddressRange& range) { return range.contains(address); });
        if (found != ranges.end()) {
            matches.push_back({code, *found});
        }
        progress.step();
    }
    return matches;
}

void check(const CheckOptions& options) {
    const Address address = *addressFrom(options.address);  // has passed as an option
    const std::vector<Match> matches = matchesOf(address);
    if (options.json) {
        Json::Value document;
        document["address"] = spelled(address);
        document["countries"] = Json::Value(Json::arrayValue);
        for (const Match& match : matches) {
            Json::Value entry = jsonOf(match.range);
            entry["country"] = match.country;
            document["countries"].append(entry);
        }
        printJson(document);
    } else if (matches.empty()) {
        std::cout << spelled(address) << " is in no country\n";
    } else {
        for (const Match& match : matches) {
            std::cout << spelled(address) << " is in " << match.country << " ("
                      << textOf(match.range) << ")\n";
        }
    }
    if (matches.empty()) {
        endWith(kExitFailed);
    }
}

// ---- The command line ---------------------------------------------------------------------------

void addList(Command& group) {
    Command& command =
        group.subcommand("list", "List the countries with data, and how many ranges they have");
    const auto json = std::make_shared<bool>(false);
    addJsonFlag(command, *json);
    command.run([json] { list(*json); });
}

void addShow(Command& group) {
    Command& command = group.subcommand("show", "Print the address ranges of a country");
    const auto options = std::make_shared<ShowOptions>();
    command.option("COUNTRY", options->country, "The code of a country, such as DE").required();
    addFamilyOptions(command, options->family);
    addJsonFlag(command, options->json);
    command.run([options] { show(*options); });
}

void addCheck(Command& group) {
    Command& command = group.subcommand(
        "check", "Show the country of an address. Exit status 1 when it is in none");
    const auto options = std::make_shared<CheckOptions>();
    command.option("ADDRESS", options->address, "An IPv4 or IPv6 address")
        .required()
        .check([](const std::string& text) {
            return addressFrom(text) ? std::string() : inQuotes(text) + " is not an address";
        });
    addJsonFlag(command, options->json);
    command.run([options] { check(*options); });
}

}  // namespace

void addGeoipCommands(Command& app) {
    Command& geoip = app.subcommand("geoip", "The country database, used by rules for countries");
    addList(geoip);
    addShow(geoip);
    addCheck(geoip);
}

}  // namespace tarnfw
