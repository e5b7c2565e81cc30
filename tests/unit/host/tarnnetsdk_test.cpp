#include "tarnnetsdk.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/if_tunnel.h>
#include <linux/rtnetlink.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "hostCall.h"
#include "host_testing.h"
#include "logged.h"
#include "netLinks.h"
#include "pppoeLink.h"
#include "tarncore.h"

namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char kModelFile[] = "/etc.defaults/tarninfo.conf";

// glibc's header of this function conflicts with the kernel's.
extern "C" unsigned if_nametoindex(const char* name);

void run(const std::string& command) {
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
}

// ---- Messages of rtnetlink, put together as the kernel does
// --------------------------------------

std::string attribute(int type, const std::string& data) {
    rtattr head{};
    head.rta_type = static_cast<unsigned short>(type);
    head.rta_len = static_cast<unsigned short>(sizeof head + data.size());
    std::string bytes(reinterpret_cast<const char*>(&head), sizeof head);
    bytes += data;
    bytes.resize(RTA_ALIGN(bytes.size()));
    return bytes;
}

template <typename T>
std::string bytesOf(const T& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string textOf(const char* text) {
    return {text, std::strlen(text) + 1};
}

template <typename Head>
class Message {
public:
    Message(std::uint16_t type, const Head& head, const std::string& attributes) {
        nlmsghdr header{};
        header.nlmsg_type = type;
        header.nlmsg_len =
            static_cast<std::uint32_t>(NLMSG_HDRLEN + sizeof head + attributes.size());
        const std::string bytes = bytesOf(header) + bytesOf(head) + attributes;
        words_.resize((bytes.size() + 3) / 4);
        std::memcpy(words_.data(), bytes.data(), bytes.size());
    }
    const nlmsghdr& get() const { return *reinterpret_cast<const nlmsghdr*>(words_.data()); }

private:
    std::vector<std::uint32_t> words_;
};

ifinfomsg linkHead(int index, unsigned flags, unsigned short type) {
    ifinfomsg head{};
    head.ifi_index = index;
    head.ifi_flags = flags;
    head.ifi_type = type;
    return head;
}

std::uint32_t ipv4(const char* text) {
    in_addr address{};
    EXPECT_EQ(inet_pton(AF_INET, text, &address), 1) << text;
    return address.s_addr;
}

TEST(ParseLinkTest, ReadsATunnelWithItsLowerLinkAndLocalAddress) {
    const std::string tunnel = attribute(IFLA_IPTUN_LOCAL, bytesOf(ipv4("192.0.2.7"))) +
                               attribute(IFLA_IPTUN_PROTO, bytesOf(std::uint8_t{41}));
    const Message<ifinfomsg> message(
        RTM_NEWLINK, linkHead(9, IFF_UP | IFF_NOARP, ARPHRD_SIT),
        attribute(IFLA_IFNAME, textOf("he-ipv6")) + attribute(IFLA_LINK, bytesOf(std::int32_t{4})) +
            attribute(IFLA_LINKINFO, attribute(IFLA_INFO_KIND, textOf("sit")) +
                                         attribute(IFLA_INFO_DATA, tunnel)));
    host::NetLink link;
    ASSERT_TRUE(host::parseLink(message.get(), link));
    EXPECT_EQ(link.index, 9);
    EXPECT_EQ(link.name, "he-ipv6");
    EXPECT_EQ(link.kind, "sit");
    EXPECT_TRUE(link.up);
    EXPECT_FALSE(link.loopback);
    EXPECT_FALSE(link.pointToPoint);
    EXPECT_EQ(link.lowerIndex, 4);
    EXPECT_EQ(link.tunnelLocal, ipv4("192.0.2.7"));
    EXPECT_EQ(link.tunnelPayload, 41);
}

TEST(ParseLinkTest, KnowsAPppLinkThatIsDown) {
    const Message<ifinfomsg> message(
        RTM_NEWLINK, linkHead(5, 0, ARPHRD_PPP),
        attribute(IFLA_IFNAME, textOf("ppp0")) +
            attribute(IFLA_LINKINFO, attribute(IFLA_INFO_KIND, textOf("ppp"))));
    host::NetLink link;
    ASSERT_TRUE(host::parseLink(message.get(), link));
    EXPECT_TRUE(link.pointToPoint);
    EXPECT_FALSE(link.up);
    EXPECT_EQ(link.kind, "ppp");
}

TEST(ParseLinkTest, IgnoresALowerLinkOfAnotherNamespace) {
    const Message<ifinfomsg> message(RTM_NEWLINK, linkHead(5, 0, ARPHRD_ETHER),
                                     attribute(IFLA_IFNAME, textOf("veth1")) +
                                         attribute(IFLA_LINK, bytesOf(std::int32_t{4})) +
                                         attribute(IFLA_LINK_NETNSID, bytesOf(std::int32_t{0})));
    host::NetLink link;
    ASSERT_TRUE(host::parseLink(message.get(), link));
    EXPECT_EQ(link.lowerIndex, 0);
}

TEST(ParseLinkTest, RefusesWhatIsNoLink) {
    host::NetLink link;
    const std::string name = attribute(IFLA_IFNAME, textOf("eth0"));
    EXPECT_FALSE(host::parseLink(
        Message<ifinfomsg>(RTM_DELLINK, linkHead(1, 0, ARPHRD_ETHER), name).get(), link));
    EXPECT_FALSE(host::parseLink(
        Message<ifinfomsg>(RTM_NEWLINK, linkHead(1, 0, ARPHRD_ETHER), "").get(), link));
    EXPECT_FALSE(host::parseLink(Message<std::uint32_t>(RTM_NEWLINK, 0, "").get(), link));
}

TEST(ParseLinkTest, StopsAtAnAttributeThatReachesBeyondTheMessage) {
    std::string broken = attribute(IFLA_LINK, bytesOf(std::int32_t{4}));
    broken[0] = 60;  // the attribute's length
    const Message<ifinfomsg> message(RTM_NEWLINK, linkHead(1, 0, ARPHRD_ETHER),
                                     attribute(IFLA_IFNAME, textOf("eth0")) + broken);
    host::NetLink link;
    ASSERT_TRUE(host::parseLink(message.get(), link));
    EXPECT_EQ(link.name, "eth0");
    EXPECT_EQ(link.lowerIndex, 0);
}

TEST(ParseAddressTest, TakesTheLinksOwnEndOfAPointToPointConnection) {
    ifaddrmsg head{};
    head.ifa_family = AF_INET;
    head.ifa_index = 7;
    const Message<ifaddrmsg> message(RTM_NEWADDR, head,
                                     attribute(IFA_ADDRESS, bytesOf(ipv4("203.0.113.1"))) +
                                         attribute(IFA_LOCAL, bytesOf(ipv4("198.51.100.20"))));
    host::NetAddress address;
    ASSERT_TRUE(host::parseAddress(message.get(), address));
    EXPECT_EQ(address.linkIndex, 7);
    EXPECT_EQ(address.address, ipv4("198.51.100.20"));
}

TEST(ParseAddressTest, RefusesIpv6) {
    ifaddrmsg head{};
    head.ifa_family = AF_INET6;
    const Message<ifaddrmsg> message(RTM_NEWADDR, head,
                                     attribute(IFA_LOCAL, std::string(16, '\1')));
    host::NetAddress address;
    EXPECT_FALSE(host::parseAddress(message.get(), address));
}

// ---- Order --------------------------------------------------------------------------------------

host::NetLink netLink(int index, const std::string& name, const std::string& kind,
                      bool hasDevice = false) {
    host::NetLink link;
    link.index = index;
    link.name = name;
    link.kind = kind;
    link.hasDevice = hasDevice;
    return link;
}

std::vector<std::string> orderedNames(std::size_t capacity) {
    std::vector<host::NetLink> links = {
        netLink(2, "veth7", "veth"), netLink(3, "eth0", "", true), netLink(4, "br0", "bridge"),
        netLink(5, "veth3", "veth"), netLink(6, "eth1", "", true), netLink(7, "ppp0", "ppp"),
    };
    host::orderForCapacity(links, capacity);
    std::vector<std::string> names;
    names.reserve(links.size());
    for (const host::NetLink& link : links) {
        names.push_back(link.name);
    }
    return names;
}

TEST(OrderForCapacityTest, KeepsTheKernelsOrderWhenAllFit) {
    EXPECT_THAT(orderedNames(6), ElementsAre("veth7", "eth0", "br0", "veth3", "eth1", "ppp0"));
}

TEST(OrderForCapacityTest, PutsHardwareFirstAndVirtualEthernetLastWhenTheyDoNotFit) {
    EXPECT_THAT(orderedNames(5), ElementsAre("eth0", "eth1", "br0", "ppp0", "veth7", "veth3"));
}

// ---- TLIBNetGetInterfaceInfo on the sandbox's own network ---------------------------------------

class InterfaceInfoTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* pair : {"0", "1", "2"}) {
            run(std::string("ip link add tva") + pair + " type veth peer name tvb" + pair);
        }
        run("ip link add abcdefghijklmno type bridge");  // the longest name, and the last index
        clearCapturedLog();
    }
    void TearDown() override {
        run("ip link del abcdefghijklmno");
        for (const char* pair : {"0", "1", "2"}) {
            run(std::string("ip link del tva") + pair);
        }
    }

    std::vector<std::string> names(int capacity) {
        std::vector<TLIBNET_INTERFACE> table(static_cast<std::size_t>(capacity));
        const int count = TLIBNetGetInterfaceInfo(table.data(), capacity, 8, &extra_);
        EXPECT_GE(count, 0);
        std::vector<std::string> result;
        result.reserve(table.size());
        for (int i = 0; i < count; ++i) {
            result.emplace_back(table[static_cast<std::size_t>(i)].name);
        }
        return result;
    }

    int extra_ = -1;
};

TEST_F(InterfaceInfoTest, ListsLinksWithoutAddressesInIndexOrderAndNotLo) {
    const std::vector<std::string> found = names(64);
    for (const char* name : {"tva0", "tvb0", "tva2", "tvb2", "abcdefghijklmno"}) {
        EXPECT_THAT(found, Contains(name));
    }
    EXPECT_THAT(found, Not(Contains("lo")));
    EXPECT_TRUE(
        std::is_sorted(found.begin(), found.end(), [](const std::string& a, const std::string& b) {
            return if_nametoindex(a.c_str()) < if_nametoindex(b.c_str());
        }));
    EXPECT_EQ(extra_, static_cast<int>(found.size()));
}

TEST_F(InterfaceInfoTest, LeavesVirtualEthernetOutFirstWhenThereIsNoRoom) {
    const std::size_t all = names(64).size();
    const std::vector<std::string> some = names(static_cast<int>(all) - 1);
    ASSERT_EQ(some.size(), all - 1);
    EXPECT_EQ(extra_, static_cast<int>(all));
    const auto bridge = std::find(some.begin(), some.end(), "abcdefghijklmno");
    ASSERT_NE(bridge, some.end());
    EXPECT_TRUE(std::none_of(some.begin(), bridge, [](const std::string& name) {
        return name.compare(0, 2, "tv") == 0;
    }));
}

TEST_F(InterfaceInfoTest, FillsTheWholeRecordAndNoMoreRecordsThanThereAre) {
    std::vector<TLIBNET_INTERFACE> table(64);
    std::memset(static_cast<void*>(table.data()), 0xff, sizeof(TLIBNET_INTERFACE) * table.size());
    const int count = TLIBNetGetInterfaceInfo(table.data(), 64, 8, nullptr);
    ASSERT_GE(count, 7);
    for (int i = 0; i < count; ++i) {
        const TLIBNET_INTERFACE& record = table[static_cast<std::size_t>(i)];
        const auto* bytes = reinterpret_cast<const char*>(&record);
        const std::size_t length = strnlen(record.name, sizeof record.name);
        EXPECT_LT(length, sizeof record.name);
        EXPECT_TRUE(std::all_of(bytes + length, bytes + sizeof record, [](char c) {
            return c == '\0';
        })) << record.name;
    }
    EXPECT_EQ(table[static_cast<std::size_t>(count)].name[0], static_cast<char>(0xff));
}

TEST_F(InterfaceInfoTest, CountsEverythingForACallerWithoutRoom) {
    int extra = -1;
    EXPECT_EQ(TLIBNetGetInterfaceInfo(nullptr, 0, 8, &extra), 0);
    EXPECT_GE(extra, 7);
    EXPECT_EQ(TLIBNetGetInterfaceInfo(nullptr, 0, 8, nullptr), 0);
}

TEST_F(InterfaceInfoTest, RefusesANegativeCapacityAndAMissingTable) {
    TLIBNET_INTERFACE record;
    EXPECT_LT(TLIBNetGetInterfaceInfo(&record, -1, 8, nullptr), 0);
    EXPECT_EQ(TLIBCErrGet(), host::kErrorBadParameter);
    TLIBCErrSetEx(0, "test", 0);
    EXPECT_LT(TLIBNetGetInterfaceInfo(nullptr, 1, 8, nullptr), 0);
    EXPECT_EQ(TLIBCErrGet(), host::kErrorBadParameter);
}

TEST_F(InterfaceInfoTest, ReportsAFailedQueryInTheErrorStateAndTheLog) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit none = {0, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    TLIBNET_INTERFACE record;
    const int result = TLIBNetGetInterfaceInfo(&record, 1, 8, nullptr);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);

    EXPECT_LT(result, 0);
    EXPECT_EQ(TLIBCErrGet(), EMFILE);
    EXPECT_STREQ(TLIBCErrorGetFile(), "tarnnetsdk");
    EXPECT_GT(TLIBCErrorGetLine(), 0);
    EXPECT_THAT(logged(LOG_ERR), ElementsAre(HasSubstr("Cannot list the network links")));
}

// ---- The PPPoE link, decided from data as of a kernel and its processes -------------------------

constexpr char kHeadings[] = "Id       Address              Device\n";
constexpr char kSession[] = "000002A1       00:53:00:AA:BB:CC     eth1\n";
constexpr char kSecondSession[] = "000002A2       00:53:00:AA:BB:CC     eth1\n";

host::NetLink pppLink(int index, const std::string& name, bool up = true) {
    host::NetLink link = netLink(index, name, "ppp");
    link.pointToPoint = true;
    link.up = up;
    return link;
}

struct PppoeCase {
    const char* name;
    int sessions;
    std::vector<host::NetLink> links;
    std::map<std::string, host::PppTransport> transports;
    const char* found;  ///< empty: none
};

class PppoeLinkTest : public ::testing::TestWithParam<PppoeCase> {};

TEST_P(PppoeLinkTest, FindsExactlyThisLink) {
    const PppoeCase& c = GetParam();
    std::string sessions = kHeadings;
    sessions += c.sessions > 0 ? kSession : "";
    sessions += c.sessions > 1 ? kSecondSession : "";
    EXPECT_EQ(host::pppoeLink(sessions, c.links, c.transports).value_or(""), c.found);
}

using Transport = host::PppTransport;
const PppoeCase kPppoeCases[] = {
    {"NoSession", 0, {pppLink(5, "ppp0")}, {{"ppp0", Transport::Pppoe}}, ""},
    {"SessionWithoutLink", 1, {netLink(2, "eth1", "", true)}, {}, ""},
    {"OneLinkOneSession", 1, {netLink(2, "eth1", "", true), pppLink(5, "ppp0")}, {}, "ppp0"},
    {"LinkOfAnyName", 1, {pppLink(5, "wan")}, {}, "wan"},
    {"LinkThatIsNotYetUp", 1, {pppLink(5, "ppp0", false)}, {}, "ppp0"},
    {"OnlyLinkIsSomethingElse", 1, {pppLink(5, "ppp0")}, {{"ppp0", Transport::Other}}, ""},
    {"KnownBeatsUnknown",
     1,
     {pppLink(5, "ppp0"), pppLink(6, "ppp1")},
     {{"ppp1", Transport::Pppoe}},
     "ppp1"},
    {"LeftOverAfterTheOthers",
     1,
     {pppLink(5, "ppp0"), pppLink(6, "ppp1"), pppLink(7, "ppp2")},
     {{"ppp0", Transport::Other}, {"ppp2", Transport::Other}},
     "ppp1"},
    {"TwoUnknownForOneSession", 1, {pppLink(5, "ppp0"), pppLink(6, "ppp1")}, {}, ""},
    {"TwoUnknownForTwoSessions", 2, {pppLink(6, "ppp1"), pppLink(5, "ppp0")}, {}, "ppp0"},
    {"UpBeatsLowerIndex", 2, {pppLink(5, "ppp0", false), pppLink(6, "ppp1")}, {}, "ppp1"},
    {"SeveralKnown",
     2,
     {pppLink(6, "ppp1"), pppLink(5, "ppp0")},
     {{"ppp0", Transport::Pppoe}, {"ppp1", Transport::Pppoe}},
     "ppp0"},
};
INSTANTIATE_TEST_SUITE_P(Cases, PppoeLinkTest, ::testing::ValuesIn(kPppoeCases),
                         [](const auto& tested) { return std::string(tested.param.name); });

TEST(PppoeSessionsTest, TextThatIsNoListOfSessionsHasNone) {
    for (const char* text : {"", "\n\n", kHeadings, "some words of three\n", "12 eth0\n"}) {
        EXPECT_FALSE(host::pppoeLink(text, {pppLink(5, "ppp0")}, {})) << text;
    }
}

TEST(PppTransportTest, RecognisesASocketByItsProtocolsName) {
    EXPECT_EQ(host::holdsSocketOf(getpid(), "UDP"), false);
    const host::Descriptor udp(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ASSERT_TRUE(udp);
    EXPECT_EQ(host::holdsSocketOf(getpid(), "UDP"), true);
    EXPECT_EQ(host::holdsSocketOf(getpid(), "PPPOE"), false);
}

TEST(PppTransportTest, SaysNothingOfAProcessThatIsGone) {
    const int noProcess = 1 << 30;  // above the kernel's largest number
    EXPECT_EQ(host::holdsSocketOf(noProcess, "PPPOE"), std::nullopt);
    EXPECT_EQ(host::transportOfProcess(noProcess), Transport::Unknown);
}

TEST(PppTransportTest, ReadsAPluginFromACommandLine) {
    const auto line = [](std::initializer_list<const char*> words) {
        std::string text;
        for (const char* word : words) {
            text += textOf(word);
        }
        return text;
    };
    EXPECT_TRUE(host::namesPppoePlugin(line({"pppd", "plugin", "rp-pppoe.so", "eth1"})));
    EXPECT_TRUE(host::namesPppoePlugin(line({"pppd", "nodetach", "plugin", "/lib/pppoe.so"})));
    EXPECT_FALSE(host::namesPppoePlugin(line({"pppd", "plugin", "pppol2tp.so"})));
    EXPECT_FALSE(host::namesPppoePlugin(line({"pppd", "call", "pppoe"})));
    EXPECT_FALSE(host::namesPppoePlugin(""));
}

TEST(PppTransportTest, BelievesAProcessFileOnlyWhileItsPppdRuns) {
    writeFile("/run/ppp9.pid", std::to_string(getpid()) + "\n");
    EXPECT_EQ(host::pppTransport("ppp9"), Transport::Unknown);  // this is no pppd
    ASSERT_EQ(prctl(PR_SET_NAME, "pppd"), 0);
    EXPECT_EQ(host::pppTransport("ppp9"), Transport::Other);  // it is, and holds no such socket
    writeFile("/run/ppp9.pid", "soon\n");
    EXPECT_EQ(host::pppTransport("ppp9"), Transport::Unknown);
    std::filesystem::remove("/run/ppp9.pid");
    EXPECT_EQ(host::pppTransport("ppp9"), Transport::Unknown);
}

// ---- TARNPPPoeIntfGet ---------------------------------------------------------------------------

class PppoeIntfTest : public ::testing::Test {
protected:
    void SetUp() override { clearCapturedLog(); }
    void TearDown() override { std::filesystem::remove(kModelFile); }

    char name_[256] = "untouched";
};

TEST_F(PppoeIntfTest, TakesTheNameInTheModelFileAsItIs) {
    writeFile(kModelFile, "support_wireless=\"no\"\npppoe_interface=\"ppp7\"\n");
    EXPECT_GE(TARNPPPoeIntfGet(name_, sizeof name_), 0);
    EXPECT_STREQ(name_, "ppp7");
}

TEST_F(PppoeIntfTest, FillsABufferToItsLastByte) {
    writeFile(kModelFile, "pppoe_interface=\"ppp7\"\n");
    EXPECT_GE(TARNPPPoeIntfGet(name_, 5), 0);
    EXPECT_STREQ(name_, "ppp7");
}

TEST_F(PppoeIntfTest, RefusesABufferThatIsTooSmall) {
    writeFile(kModelFile, "pppoe_interface=\"ppp7\"\n");
    EXPECT_LT(TARNPPPoeIntfGet(name_, 4), 0);
    EXPECT_EQ(TLIBCErrGet(), ENOSPC);
    EXPECT_STREQ(name_, "untouched");
}

TEST_F(PppoeIntfTest, RefusesWhatIsNoNameOfALink) {
    for (const char* value : {"ppp0 -j ACCEPT", "sixteen-letters-", "a/b", "..", "eth0:1"}) {
        clearCapturedLog();
        writeFile(kModelFile, std::string("pppoe_interface=\"") + value + "\"\n");
        EXPECT_LT(TARNPPPoeIntfGet(name_, sizeof name_), 0) << value;
        EXPECT_EQ(TLIBCErrGet(), EINVAL) << value;
        EXPECT_THAT(
            logged(LOG_ERR),
            ElementsAre(HasSubstr(std::string("\"pppoe_interface\" is no name of a link: \"") +
                                  value + "\"")));
    }
    EXPECT_STREQ(name_, "untouched");
}

TEST_F(PppoeIntfTest, FailsQuietlyWithoutASession) {
    for (const char* content : {"", "#pppoe_interface=\"ppp0\"\n", "pppoe_interface=\"\"\n"}) {
        writeFile(kModelFile, content);
        TLIBCErrSetEx(0, "test", 0);
        EXPECT_LT(TARNPPPoeIntfGet(name_, sizeof name_), 0) << content;
        EXPECT_EQ(TLIBCErrGet(), ENODEV) << content;
        EXPECT_THAT(logged(LOG_DEBUG),
                    ElementsAre(HasSubstr(std::string("No link is known to be a PPPoE session; "
                                                      "\"pppoe_interface\" in ") +
                                          kModelFile + " can name one")));
        EXPECT_EQ(capturedLog().size(), 1u);
        clearCapturedLog();
    }
    std::filesystem::remove(kModelFile);
    EXPECT_LT(TARNPPPoeIntfGet(name_, sizeof name_), 0);
    EXPECT_STREQ(name_, "untouched");
    EXPECT_THAT(logged(LOG_ERR), IsEmpty());
    EXPECT_THAT(logged(LOG_WARNING), IsEmpty());
}

TEST_F(PppoeIntfTest, RefusesAMissingBuffer) {
    EXPECT_LT(TARNPPPoeIntfGet(nullptr, 16), 0);
    EXPECT_EQ(TLIBCErrGet(), host::kErrorBadParameter);
    EXPECT_LT(TARNPPPoeIntfGet(name_, 0), 0);
    EXPECT_STREQ(name_, "untouched");
}

// ---- Addresses ----------------------------------------------------------------------------------

struct AddressCase {
    const char* text;
    bool ipv4;
    bool ipv6;
};

TEST(AddressTest, TellsTheFamiliesApart) {
    const AddressCase cases[] = {
        {"192.168.1.10", true, false},
        {"0.0.0.0", true, false},
        {"255.255.255.255", true, false},
        {"256.1.1.1", false, false},
        {"1.2.3", false, false},
        {"1.2.3.4.5", false, false},
        {"1.2.3.4/24", false, false},
        {" 1.2.3.4", false, false},
        {"1.2.3.4\n", false, false},
        {"0x7f.1", false, false},
        {"::", false, true},
        {"::1", false, true},
        {"fe80::1", false, true},
        {"2001:db8:0:1:2:3:4:5", false, true},
        {"::ffff:192.0.2.1", false, true},
        {"fe80::1%eth0", false, false},
        {"2001:db8::/32", false, false},
        {"1::2::3", false, false},
        {"", false, false},
        {"localhost", false, false},
    };
    for (const AddressCase& c : cases) {
        EXPECT_EQ(BlTLIBIsIpAddr(c.text) != 0, c.ipv4) << c.text;
        EXPECT_EQ(BlTLIBIsv6IpAddrValid(c.text) != 0, c.ipv6) << c.text;
    }
    EXPECT_EQ(BlTLIBIsIpAddr(nullptr), 0);
    EXPECT_EQ(BlTLIBIsv6IpAddrValid(nullptr), 0);
}

}  // namespace
