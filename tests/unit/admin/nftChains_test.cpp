// The kernel's list of the chains of nftables.
#include "kernel/nftChains.h"

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/netlink.h"

namespace tarnfw {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

template <typename Value>
std::string bytesOf(const Value& value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string attribute(int type, const std::string& value) {
    nlattr head{};
    head.nla_len = static_cast<unsigned short>(sizeof head + value.size());
    head.nla_type = static_cast<unsigned short>(type);
    std::string text = bytesOf(head) + value;
    text.resize(NLA_ALIGN(text.size()));
    return text;
}

std::string named(int type, const std::string& name) {
    return attribute(type, name + '\0');
}

std::string message(int type, const std::string& content) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<unsigned int>(sizeof header + content.size());
    header.nlmsg_type = static_cast<unsigned short>(type);
    return bytesOf(header) + content;
}

std::string chainMessage(unsigned char family, const std::string& attributes) {
    nfgenmsg head{};
    head.nfgen_family = family;
    return message(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWCHAIN, bytesOf(head) + attributes);
}

std::string chainAt(unsigned int hook) {
    return named(NFTA_CHAIN_TABLE, "others") + named(NFTA_CHAIN_NAME, "pre") +
           attribute(NFTA_CHAIN_HOOK | NLA_F_NESTED,
                     attribute(NFTA_HOOK_HOOKNUM, bytesOf(htonl(hook)))) +
           named(NFTA_CHAIN_TYPE, "nat");
}

TEST(NftChainsTest, GivesTheChainsAtHooks) {
    const std::vector<NftBaseChain> chains =
        nftBaseChainsFrom(chainMessage(NFPROTO_INET, chainAt(NF_INET_LOCAL_IN)) +
                          chainMessage(NFPROTO_INET, named(NFTA_CHAIN_TABLE, "others") +
                                                         named(NFTA_CHAIN_NAME, "c")) +
                          chainMessage(NFPROTO_BRIDGE, chainAt(NF_INET_LOCAL_IN)));
    ASSERT_THAT(chains, SizeIs(1));
    EXPECT_EQ(chains[0].table, NftTable("inet", "others"));
    EXPECT_EQ(chains[0].name, "pre");
    EXPECT_EQ(chains[0].type, "nat");
    EXPECT_EQ(chains[0].hook, static_cast<unsigned int>(NF_INET_LOCAL_IN));
}

TEST(NetlinkTest, EndsWithTheLastMessage) {
    std::size_t messages = 0;
    const auto count = [&messages](const nlmsghdr&) { ++messages; };
    EXPECT_FALSE(readMessages(chainMessage(NFPROTO_INET, chainAt(0)), count));
    EXPECT_EQ(messages, 1U);
    EXPECT_TRUE(readMessages(message(NLMSG_DONE, bytesOf(0)), count));
    EXPECT_TRUE(readMessages(message(NLMSG_ERROR, bytesOf(nlmsgerr())), count));
    EXPECT_EQ(messages, 1U);
}

TEST(NetlinkTest, AListThatFailedOrHasChangedMeanwhileIsNone) {
    const auto ignored = [](const nlmsghdr&) {};
    EXPECT_THROW((void)readMessages(message(NLMSG_DONE, bytesOf(-EPERM)), ignored),
                 std::system_error);
    std::string changed = chainMessage(NFPROTO_INET, chainAt(0));
    nlmsghdr header{};
    std::memcpy(&header, changed.data(), sizeof header);
    header.nlmsg_flags = NLM_F_DUMP_INTR;
    std::memcpy(changed.data(), &header, sizeof header);
    EXPECT_THROW((void)readMessages(changed, ignored), std::system_error);
}

TEST(NftChainsTest, AnErrorOrACutMessageIsNoEmptyList) {
    nlmsgerr refused{};
    refused.error = -EPERM;
    try {
        (void)nftBaseChainsFrom(message(NLMSG_ERROR, bytesOf(refused)));
        FAIL();
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), EPERM);
    }
    const std::string whole = chainMessage(NFPROTO_INET, chainAt(0));
    EXPECT_THROW((void)nftBaseChainsFrom(whole.substr(0, whole.size() - 4)), std::system_error);
}

}  // namespace
}  // namespace tarnfw
