// Sockets that wait for packets, as the kernel lists them: real ones of this process.
#include "tarnfwadmin/listeners.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <optional>

#include <gtest/gtest.h>

#include "tarnfwadmin/descriptor.h"

namespace tarnfw {
namespace {

struct Bound {
    Descriptor socket;
    std::uint16_t port = 0;
};

/// A socket bound to a free port of an address.
Bound bound(int type, const char* address, bool onlyIpv6 = false) {
    Bound made;
    sockaddr_in6 v6{};
    sockaddr_in v4{};
    const bool ipv6 = inet_pton(AF_INET6, address, &v6.sin6_addr) == 1;
    made.socket = Descriptor(socket(ipv6 ? AF_INET6 : AF_INET, type | SOCK_CLOEXEC, 0));
    if (ipv6) {
        v6.sin6_family = AF_INET6;
        const int only = onlyIpv6 ? 1 : 0;
        EXPECT_EQ(setsockopt(made.socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only), 0);
        EXPECT_EQ(bind(made.socket.get(), reinterpret_cast<sockaddr*>(&v6), sizeof v6), 0);
        socklen_t length = sizeof v6;
        EXPECT_EQ(getsockname(made.socket.get(), reinterpret_cast<sockaddr*>(&v6), &length), 0);
        made.port = ntohs(v6.sin6_port);
    } else {
        v4.sin_family = AF_INET;
        EXPECT_EQ(inet_pton(AF_INET, address, &v4.sin_addr), 1);
        EXPECT_EQ(bind(made.socket.get(), reinterpret_cast<sockaddr*>(&v4), sizeof v4), 0);
        socklen_t length = sizeof v4;
        EXPECT_EQ(getsockname(made.socket.get(), reinterpret_cast<sockaddr*>(&v4), &length), 0);
        made.port = ntohs(v4.sin_port);
    }
    if (type == SOCK_STREAM) {
        EXPECT_EQ(listen(made.socket.get(), 1), 0);
    }
    return made;
}

std::optional<Listener> listenerAt(FW::FW_PORT_PROTOCOL protocol, std::uint16_t port) {
    const std::vector<Listener> all = listenersNow();
    const auto found = std::find_if(all.begin(), all.end(), [&](const Listener& listener) {
        return listener.protocol == protocol && listener.port == port;
    });
    return found == all.end() ? std::nullopt : std::make_optional(*found);
}

TEST(ListenersTest, AreTcpSocketsThatListenAndUdpSocketsWithoutAPeer) {
    const Bound tcp = bound(SOCK_STREAM, "127.0.0.1");
    const Bound udp = bound(SOCK_DGRAM, "0.0.0.0");
    const auto listening = listenerAt(FW::FW_PORT_PROTOCOL_TCP, tcp.port);
    ASSERT_TRUE(listening);
    EXPECT_EQ(spelled(listening->address), "127.0.0.1");
    EXPECT_FALSE(listening->takesIpv4);
    EXPECT_EQ(listening->interface, "");
    ASSERT_EQ(listening->owners.size(), 1U);
    EXPECT_EQ(listening->owners[0].program, "listeners_test");
    EXPECT_EQ(listening->owners[0].process, getpid());
    ASSERT_TRUE(listenerAt(FW::FW_PORT_PROTOCOL_UDP, udp.port));

    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    peer.sin_port = htons(9);
    ASSERT_EQ(connect(udp.socket.get(), reinterpret_cast<sockaddr*>(&peer), sizeof peer), 0);
    EXPECT_FALSE(listenerAt(FW::FW_PORT_PROTOCOL_UDP, udp.port));
}

TEST(ListenersTest, AnIpv6SocketOfEveryAddressMayTakeIpv4) {
    const Bound both = bound(SOCK_STREAM, "::");
    const Bound one = bound(SOCK_STREAM, "::", true);
    EXPECT_TRUE(listenerAt(FW::FW_PORT_PROTOCOL_TCP, both.port)->takesIpv4);
    EXPECT_FALSE(listenerAt(FW::FW_PORT_PROTOCOL_TCP, one.port)->takesIpv4);
    EXPECT_TRUE(listenerAt(FW::FW_PORT_PROTOCOL_TCP, one.port)->address.isIpv6());
}

TEST(ListenersTest, AnIpv6SocketOfAnIpv4AddressTakesIpv4) {
    const Bound mapped = bound(SOCK_STREAM, "::ffff:127.0.0.1");
    const Bound every = bound(SOCK_DGRAM, "::ffff:0.0.0.0");
    EXPECT_EQ(spelled(listenerAt(FW::FW_PORT_PROTOCOL_TCP, mapped.port)->address), "127.0.0.1");
    EXPECT_EQ(listenerAt(FW::FW_PORT_PROTOCOL_UDP, every.port)->address, Address(false, {}));
    EXPECT_FALSE(listenerAt(FW::FW_PORT_PROTOCOL_UDP, every.port)->takesIpv4);
}

}  // namespace
}  // namespace tarnfw
