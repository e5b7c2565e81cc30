/// What the package ships at fixed paths.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/json.h>

#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host_testing.h"
#include "syslog_capture.h"
#include "tarncore.h"
#include "tarnserviceconf.h"

namespace {

using ::testing::IsEmpty;

namespace fs = std::filesystem;

const std::string kData = TARN_DATA;

struct CatalogueFree {
    void operator()(TARNFW_SERVICE_LIST* list) const { TARNFwServiceFree(list); }
};

std::vector<std::string> texts(const TLIBCSZLIST* list) {
    std::vector<std::string> result;
    for (int i = 0; list != nullptr && i < list->nItem; ++i) {
        result.emplace_back(TLIBCSzListGet(list, i));
    }
    return result;
}

// A copy of a shipped file, as an installed one belongs to the machine: key/value files of somebody
// else, as a checkout's may be, are not read.
std::string installed(const std::string& name) {
    const std::string path = "/tmp/" + name;
    fs::copy_file(kData + "/" + name, path, fs::copy_options::overwrite_existing);
    return path;
}

// Every entry of the shipped files, as JSON.
std::vector<Json::Value> shippedEntries() {
    std::vector<Json::Value> entries;
    for (const auto& file : fs::directory_iterator(kData + "/services.d")) {
        std::ifstream stream(file.path());
        Json::Value document;
        std::string errors;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), stream, &document, &errors))
            << file.path() << errors;
        for (const Json::Value& entry : document) {
            entries.push_back(entry);
        }
    }
    return entries;
}

class ShippedCatalogueTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string directory = "/usr/tarn/etc.defaults/services.d";
        fs::remove_all(directory);
        fs::remove_all("/usr/tarn/etc/services.d");
        fs::create_directories("/usr/tarn/etc.defaults");
        fs::copy(kData + "/services.d", directory);
        clearCapturedLog();
        TARNFW_SERVICE_LIST* list = nullptr;
        count_ = TARNFwServiceEnum(&list);
        catalogue_.reset(list);
    }

    int count_ = 0;
    std::unique_ptr<TARNFW_SERVICE_LIST, CatalogueFree> catalogue_;
};

TEST_F(ShippedCatalogueTest, LoadsWithoutAWord) {
    EXPECT_GE(count_, 40);
    EXPECT_THAT(capturedLog(), IsEmpty());
}

TEST_F(ShippedCatalogueTest, NoTwoServicesShareANameAndAllAreUsable) {
    const std::vector<Json::Value> entries = shippedEntries();
    EXPECT_EQ(static_cast<int>(entries.size()), count_);
    std::set<std::string> titles;
    for (const Json::Value& entry : entries) {
        const std::string name = entry["name"].asString();
        const TARNFW_SERVICE* record = TARNFWServiceFind(catalogue_.get(), name.c_str());
        ASSERT_NE(record, nullptr) << name;
        EXPECT_STRNE(record->title, "") << name;
        EXPECT_TRUE(titles.insert(record->title).second) << name;
        EXPECT_GT(record->dstProtocol, 0) << name;
        ASSERT_NE(record->dstPorts, nullptr) << name;
        EXPECT_GT(record->dstPorts->nItem, 0) << name;
        for (const char c : name) {
            EXPECT_TRUE(std::islower(static_cast<unsigned char>(c)) ||
                        std::isdigit(static_cast<unsigned char>(c)) || c == '_')
                << name;
        }
    }
}

struct KnownService {
    const char* name;
    int protocol;
    std::vector<std::string> ports;
};

TEST_F(ShippedCatalogueTest, HasTheServicesOfAStorageApplianceAtTheirPorts) {
    const KnownService known[] = {
        {"ssh", 1, {"22"}},
        {"http", 1, {"80"}},
        {"https", 1, {"443"}},
        {"smb", 1, {"139", "445"}},
        {"smb_browse", 2, {"137", "138"}},
        {"afp", 1, {"548"}},
        {"nfs", 3, {"111", "2049", "20048"}},
        {"ftp", 1, {"21"}},
        {"ftps", 1, {"989", "990"}},
        {"rsync", 1, {"873"}},
        {"webdav", 1, {"80"}},
        {"webdavs", 1, {"443"}},
        {"iscsi", 1, {"3260"}},
        {"ntp", 2, {"123"}},
        {"snmp", 2, {"161"}},
        {"dns", 3, {"53"}},
        {"dhcp_server", 2, {"67"}},
        {"dhcp_client", 2, {"68"}},
        {"mdns", 2, {"5353"}},
        {"upnp_ssdp", 2, {"1900"}},
        {"ldap", 3, {"389"}},
        {"ldaps", 1, {"636"}},
        {"ipp", 1, {"631"}},
        {"smtp", 1, {"25"}},
        {"imaps", 1, {"993"}},
        {"mysql", 1, {"3306"}},
        {"postgresql", 1, {"5432"}},
        {"vpn_server_pptp", 1, {"1723"}},
        {"vpn_server_ipsec", 2, {"500", "4500"}},
        {"vpn_server_l2tp", 2, {"1701"}},
        {"vpn_server_openvpn", 3, {"1194"}},
        {"wireguard", 2, {"51820"}},
    };
    for (const KnownService& service : known) {
        const TARNFW_SERVICE* record = TARNFWServiceFind(catalogue_.get(), service.name);
        ASSERT_NE(record, nullptr) << service.name;
        EXPECT_EQ(record->dstProtocol, service.protocol) << service.name;
        EXPECT_EQ(texts(record->dstPorts), service.ports) << service.name;
    }
}

TEST(ShippedModuleListTest, HasFourKeysOfModuleFilesWithSingleBlanks) {
    const std::string file = installed("iptables_modules_list");
    std::set<std::string> seen;
    for (const char* key :
         {"KERNEL_MODULES_CORE", "KERNEL_MODULES_COMMON", "IPV6_MODULES", "KERNEL_MODULES_NAT"}) {
        char value[4096] = {};
        ASSERT_GT(TLIBCFileGetKeyValue(file.c_str(), key, value, sizeof value, 0), 0) << key;
        EXPECT_LT(std::strlen(value), 4096u - 1) << key << " may have been cut off";
        std::string text = value;
        EXPECT_EQ(text.find("  "), std::string::npos) << key;
        EXPECT_EQ(text.find('\t'), std::string::npos) << key;
        text += ' ';
        for (std::size_t begin = 0; begin < text.size();) {
            const std::size_t end = text.find(' ', begin);
            const std::string name = text.substr(begin, end - begin);
            ASSERT_GT(name.size(), 3u) << key << ": " << name;
            EXPECT_EQ(name.substr(name.size() - 3), ".ko") << key;
            EXPECT_TRUE(seen.insert(name).second) << name << " is listed twice";
            begin = end + 1;
        }
    }
    for (const char* name :
         {"x_tables.ko", "ip_tables.ko", "iptable_filter.ko", "nf_tables.ko", "nft_compat.ko",
          "nf_conntrack.ko", "xt_state.ko", "xt_conntrack.ko", "xt_tcpudp.ko", "xt_multiport.ko",
          "xt_iprange.ko", "xt_LOG.ko", "ip6_tables.ko", "ip6table_filter.ko", "nf_nat.ko"}) {
        EXPECT_EQ(seen.count(name), 1u) << name;
    }
}

TEST(ShippedModelFileTest, HasNoWirelessInterfaceAndNamesNoPppoeLink) {
    const std::string file = installed("tarninfo.conf");
    EXPECT_NE(TLIBCFileCheckKeyValue(file.c_str(), "support_wireless", "no", 0), 0);
    char value[64] = {};
    EXPECT_EQ(TLIBCFileGetKeyValue(file.c_str(), "pppoe_interface", value, sizeof value, 0), 0);
}

}  // namespace
