/// Real packets for the kernel tests and the demo: a server that answers on given ports, a client
/// that reports which of them can be reached, and one that keeps a connection.
///
///     packet_probe serve tcp/22 udp/53 ip/47    answers in both families; prints "ready", goes on
///     packet_probe check < packets              one probe a line, all at once; status 0: as
///     expected packet_probe talk ADDRESS PORT            sends each line read, prints what comes
///     back
///
/// A line of "check" is PROTOCOL ADDRESS PORT EXPECTED [SOURCE], such as "tcp4 192.0.2.1 22 open".
/// The protocols are tcp, udp, icmp (PORT is 0) and ip (PORT is the protocol number), each with 4
/// or
/// 6. A probe ends "open" when the far side answered, "refused" when it said no, else "blocked".
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A slow machine must not make an open port look blocked, so the wait for an expected answer is
// long. It costs nothing: it ends with the answer.
constexpr std::chrono::seconds kAnswerWait{5};
// The wait that every blocked port costs; an answer across a veth pair takes well below 1 ms.
constexpr std::chrono::milliseconds kSilenceWait{500};
constexpr char kPayload[] = "probe";

[[noreturn]] void failSystem(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

class Socket {
public:
    Socket(const int family, const int type, const int protocol)
        : fd_(socket(family, type | SOCK_CLOEXEC, protocol)) {
        if (fd_ < 0) {
            failSystem("socket");
        }
    }
    explicit Socket(const int fd) : fd_(fd) {}
    Socket(Socket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    int fd() const { return fd_; }

private:
    int fd_;
};

struct Address {
    sockaddr_storage storage{};
    socklen_t size = 0;

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

std::uint16_t parseNumber(const std::string& text) {
    const unsigned long value = std::stoul(text);
    if (value > UINT16_MAX) {
        throw std::invalid_argument("not a port: " + text);
    }
    return static_cast<std::uint16_t>(value);
}

Address parseAddress(const int family, const std::string& text, const std::uint16_t port) {
    Address address;
    void* bytes = nullptr;
    address.storage.ss_family = static_cast<sa_family_t>(family);
    if (family == AF_INET) {
        auto* const v4 = reinterpret_cast<sockaddr_in*>(&address.storage);
        v4->sin_port = htons(port);
        bytes = &v4->sin_addr;
        address.size = sizeof(*v4);
    } else {
        auto* const v6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
        v6->sin6_port = htons(port);
        bytes = &v6->sin6_addr;
        address.size = sizeof(*v6);
    }
    if (inet_pton(family, text.c_str(), bytes) != 1) {
        throw std::invalid_argument("not an address: " + text);
    }
    return address;
}

// --- serve ---------------------------------------------------------------------------------------

enum class Role { kListener, kConnection, kDatagrams, kRaw4 };

struct Server {
    Socket socket;
    Role role;
};

Server makeServer(const std::string& kind, const std::uint16_t port, const int family) {
    const bool raw = kind == "ip";
    const int type = raw ? SOCK_RAW : kind == "tcp" ? SOCK_STREAM : SOCK_DGRAM;
    Socket made(family, type, raw ? port : 0);
    const int on = 1;
    setsockopt(made.fd(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    if (family == AF_INET6) {
        setsockopt(made.fd(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof(on));
    }
    const std::uint16_t bindPort = raw ? std::uint16_t{0} : port;
    const Address any = parseAddress(family, family == AF_INET ? "0.0.0.0" : "::", bindPort);
    if (bind(made.fd(), any.get(), any.size) != 0) {
        failSystem("bind " + kind + "/" + std::to_string(port));
    }
    if (kind == "tcp" && listen(made.fd(), SOMAXCONN) != 0) {
        failSystem("listen");
    }
    const Role role = kind == "tcp"              ? Role::kListener
                      : raw && family == AF_INET ? Role::kRaw4
                                                 : Role::kDatagrams;
    return {std::move(made), role};
}

// Sends one datagram back to where it came from. IPv4 alone hands a raw socket the header too.
void answerDatagram(const Server& server) {
    std::array<char, 2048> buffer{};
    Address from;
    from.size = sizeof(from.storage);
    const ssize_t got = recvfrom(server.socket.fd(), buffer.data(), buffer.size(), 0,
                                 reinterpret_cast<sockaddr*>(&from.storage), &from.size);
    const std::size_t header = server.role == Role::kRaw4 ? sizeof(ip) : 0;
    if (got >= 0 && static_cast<std::size_t>(got) >= header) {
        (void)sendto(server.socket.fd(), buffer.data() + header,
                     static_cast<std::size_t>(got) - header, 0, from.get(), from.size);
    }
}

// Sends back what a connection brought. False when it has ended.
bool answerConnection(const int fd) {
    std::array<char, 2048> buffer{};
    const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
    return got > 0 && send(fd, buffer.data(), static_cast<std::size_t>(got), 0) == got;
}

[[noreturn]] void serve(const std::vector<std::string>& specs) {
    std::vector<Server> servers;
    for (const std::string& spec : specs) {
        const std::size_t slash = spec.find('/');
        for (const int family : {AF_INET, AF_INET6}) {
            servers.push_back(
                makeServer(spec.substr(0, slash), parseNumber(spec.substr(slash + 1)), family));
        }
    }
    std::cout << "ready" << std::endl;

    while (true) {
        std::vector<pollfd> polls;
        for (const Server& server : servers) {
            polls.push_back({server.socket.fd(), POLLIN, 0});
        }
        if (poll(polls.data(), polls.size(), -1) < 0 && errno != EINTR) {
            failSystem("poll");
        }
        std::vector<Server> kept;
        for (std::size_t i = 0; i < servers.size(); ++i) {
            Server& server = servers[i];
            bool keep = true;
            if (polls[i].revents != 0) {
                if (server.role == Role::kListener) {
                    const int fd = accept4(server.socket.fd(), nullptr, nullptr, SOCK_CLOEXEC);
                    if (fd >= 0) {
                        kept.push_back({Socket(fd), Role::kConnection});
                    }
                } else if (server.role == Role::kConnection) {
                    keep = answerConnection(server.socket.fd());
                } else {
                    answerDatagram(server);
                }
            }
            if (keep) {
                kept.push_back(std::move(server));
            }
        }
        servers = std::move(kept);
    }
}

// --- check ---------------------------------------------------------------------------------------

enum class Kind { kTcp, kUdp, kIcmp, kIp };

struct Probe {
    std::string line;
    std::string expected;
    std::string result;  // empty until it is known
    Kind kind;
    int family;
    std::uint16_t sequence;
    Socket socket;
};

Kind kindOf(const std::string& name) {
    constexpr std::pair<const char*, Kind> kKinds[] = {
        {"tcp", Kind::kTcp}, {"udp", Kind::kUdp}, {"icmp", Kind::kIcmp}, {"ip", Kind::kIp}};
    for (const auto& [text, kind] : kKinds) {
        if (name == text) {
            return kind;
        }
    }
    throw std::invalid_argument("not a protocol: " + name);
}

std::string resultOfError(const int error) {
    if (error == ECONNREFUSED || error == ENOPROTOOPT || error == ECONNRESET) {
        return "refused";
    }
    return "blocked";
}

std::uint16_t internetChecksum(const std::uint8_t* const bytes, const std::size_t size) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < size; i += 2) {
        sum += static_cast<std::uint32_t>(bytes[i] << 8 | bytes[i + 1]);
    }
    while (sum > UINT16_MAX) {
        sum = (sum >> 16) + (sum & UINT16_MAX);
    }
    return htons(static_cast<std::uint16_t>(~sum));
}

void sendEchoRequest(const Probe& probe) {
    std::array<std::uint8_t, sizeof(icmphdr)> packet{};
    const std::uint16_t sequence = htons(probe.sequence);
    packet[0] =
        probe.family == AF_INET ? std::uint8_t{ICMP_ECHO} : std::uint8_t{ICMP6_ECHO_REQUEST};
    std::memcpy(&packet[6], &sequence, sizeof(sequence));
    if (probe.family == AF_INET) {  // for ICMPv6 the kernel fills it in
        const std::uint16_t checksum = internetChecksum(packet.data(), packet.size());
        std::memcpy(&packet[2], &checksum, sizeof(checksum));
    }
    if (send(probe.socket.fd(), packet.data(), packet.size(), 0) < 0) {
        failSystem("send " + probe.line);
    }
}

bool isEchoReply(const Probe& probe, const std::uint8_t* bytes, std::size_t size) {
    if (probe.family == AF_INET) {
        if (size < sizeof(ip)) {
            return false;
        }
        bytes += sizeof(ip);
        size -= sizeof(ip);
    }
    const int reply = probe.family == AF_INET ? ICMP_ECHOREPLY : ICMP6_ECHO_REPLY;
    const std::uint16_t sequence = htons(probe.sequence);
    return size >= sizeof(icmphdr) && bytes[0] == reply &&
           std::memcmp(&bytes[6], &sequence, sizeof(sequence)) == 0;
}

Probe startProbe(const std::string& line, const std::uint16_t sequence) {
    std::istringstream words(line);
    std::string protocol, address, number, expected, source;
    if (!(words >> protocol >> address >> number >> expected) || protocol.size() < 3) {
        throw std::invalid_argument("not a probe: " + line);
    }
    words >> source;
    const int family = protocol.back() == '6' ? AF_INET6 : AF_INET;
    const std::string name = protocol.substr(0, protocol.size() - 1);
    const std::uint16_t port = parseNumber(number);

    const Kind kind = kindOf(name);
    const bool raw = kind == Kind::kIcmp || kind == Kind::kIp;
    const int type = raw ? SOCK_RAW : kind == Kind::kTcp ? SOCK_STREAM : SOCK_DGRAM;
    const int icmp = family == AF_INET ? int{IPPROTO_ICMP} : int{IPPROTO_ICMPV6};
    Probe probe{line,
                expected,
                "",
                kind,
                family,
                sequence,
                Socket(family, type | SOCK_NONBLOCK,
                       kind == Kind::kIcmp ? icmp
                       : raw               ? port
                                           : 0)};

    if (!source.empty()) {
        const Address from = parseAddress(family, source, 0);
        if (bind(probe.socket.fd(), from.get(), from.size) != 0) {
            failSystem("bind " + line);
        }
    }
    const Address to = parseAddress(family, address, raw ? std::uint16_t{0} : port);
    if (connect(probe.socket.fd(), to.get(), to.size) != 0 && errno != EINPROGRESS) {
        failSystem("connect " + line);
    }
    if (kind == Kind::kIcmp) {
        sendEchoRequest(probe);
    } else if (kind != Kind::kTcp && send(probe.socket.fd(), kPayload, sizeof(kPayload), 0) < 0) {
        failSystem("send " + line);
    }
    return probe;
}

// What a socket that woke up means. Empty: nothing yet, such as another ICMP message.
std::string readResult(const Probe& probe) {
    if (probe.kind == Kind::kTcp) {
        int error = 0;
        socklen_t size = sizeof(error);
        getsockopt(probe.socket.fd(), SOL_SOCKET, SO_ERROR, &error, &size);
        return error == 0 ? "open" : resultOfError(error);
    }
    std::array<std::uint8_t, 2048> buffer{};
    const ssize_t got = recv(probe.socket.fd(), buffer.data(), buffer.size(), 0);
    if (got < 0) {
        return errno == EAGAIN || errno == EINTR ? "" : resultOfError(errno);
    }
    if (probe.kind == Kind::kIcmp &&
        !isEchoReply(probe, buffer.data(), static_cast<std::size_t>(got))) {
        return "";
    }
    return "open";
}

void waitForAnswers(std::vector<Probe>& probes, const int milliseconds) {
    std::vector<pollfd> polls;
    std::vector<Probe*> waiting;
    for (Probe& probe : probes) {
        if (probe.result.empty()) {
            const short events = probe.kind == Kind::kTcp ? POLLOUT : POLLIN;
            polls.push_back({probe.socket.fd(), events, 0});
            waiting.push_back(&probe);
        }
    }
    if (poll(polls.data(), polls.size(), milliseconds) < 0 && errno != EINTR) {
        failSystem("poll");
    }
    for (std::size_t i = 0; i < polls.size(); ++i) {
        if (polls[i].revents != 0) {
            waiting[i]->result = readResult(*waiting[i]);
        }
    }
}

int check() {
    std::vector<Probe> probes;
    for (std::string line; std::getline(std::cin, line);) {
        probes.push_back(startProbe(line, static_cast<std::uint16_t>(probes.size() + 1)));
    }

    const auto start = Clock::now();
    while (true) {
        const bool anyWaits = std::any_of(probes.begin(), probes.end(),
                                          [](const Probe& p) { return p.result.empty(); });
        const bool anyShouldAnswer = std::any_of(probes.begin(), probes.end(), [](const Probe& p) {
            return p.result.empty() && p.expected != "blocked";
        });
        const auto left =
            (anyShouldAnswer ? Clock::duration(kAnswerWait) : Clock::duration(kSilenceWait)) -
            (Clock::now() - start);
        const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(left).count();
        if (!anyWaits || milliseconds <= 0) {
            break;
        }
        waitForAnswers(probes, static_cast<int>(milliseconds));
    }

    int status = 0;
    for (Probe& probe : probes) {
        const std::string result = probe.result.empty() ? "blocked" : probe.result;
        std::cout << result << (result == probe.expected ? "" : " (UNEXPECTED)") << ": "
                  << probe.line << '\n';
        status = result == probe.expected ? status : 1;
    }
    return status;
}

// --- talk ----------------------------------------------------------------------------------------

int talk(const std::string& address, const std::uint16_t port) {
    const int family = address.find(':') == std::string::npos ? AF_INET : AF_INET6;
    const Socket connection(family, SOCK_STREAM, 0);
    const Address to = parseAddress(family, address, port);
    if (connect(connection.fd(), to.get(), to.size) != 0) {
        failSystem("connect " + address);
    }
    std::cout << "connected" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        line += '\n';
        if (send(connection.fd(), line.data(), line.size(), 0) !=
            static_cast<ssize_t>(line.size())) {
            failSystem("send");
        }
        const ssize_t got = recv(connection.fd(), line.data(), line.size(), MSG_WAITALL);
        if (got != static_cast<ssize_t>(line.size())) {
            failSystem("recv");
        }
        std::cout << line << std::flush;
    }
    return 0;
}

}  // namespace

int main(const int argc, char** const argv) {
    const std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
    std::signal(SIGPIPE, SIG_IGN);
    try {
        if (arguments.size() > 1 && arguments[0] == "serve") {
            serve({arguments.begin() + 1, arguments.end()});
        }
        if (arguments.size() == 1 && arguments[0] == "check") {
            return check();
        }
        if (arguments.size() == 3 && arguments[0] == "talk") {
            return talk(arguments[1], parseNumber(arguments[2]));
        }
        std::cerr << "usage: packet_probe serve KIND/NUMBER... | check | talk ADDRESS PORT\n";
    } catch (const std::exception& error) {
        std::cerr << "packet_probe: " << error.what() << '\n';
    }
    return 2;
}
