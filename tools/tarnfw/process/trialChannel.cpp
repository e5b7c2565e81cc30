#include "process/trialChannel.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "tarnfwadmin/error.h"
#include "tarnfwadmin/storeSession.h"

namespace tarnfw {
namespace {

constexpr char kSocketPath[] = "/run/tarn/trial.sock";
constexpr int kBacklog = 4;
constexpr std::size_t kMaxMessage = 4096;

// Time limits: for a terminal's request after it has connected, and for a connection.
constexpr time_t kPatienceSeconds = 1;
constexpr time_t kConnectSeconds = 3;

constexpr std::chrono::milliseconds kPollPause(10);

// Keeps the boundaries of documents, and shows immediately when the other end is closed.
constexpr int kSocketType = SOCK_SEQPACKET | SOCK_CLOEXEC;

sockaddr_un socketAddress() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, kSocketPath, sizeof(address.sun_path) - 1);
    return address;
}

Channel openSocket() {
    Channel channel(Descriptor(socket(AF_UNIX, kSocketType, 0)));
    if (!channel) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot create a socket: ") + std::strerror(errno));
    }
    return channel;
}

}  // namespace

void Channel::send(const Json::Value& message) const {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    const std::string text = Json::writeString(builder, message);
    (void)::send(fd_.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

bool Channel::awaits(std::chrono::milliseconds time) const {
    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + time;
    while (true) {
        pollfd event = {fd_.get(), POLLIN, 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        const int limit =
            static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
        const int ready = poll(&event, 1, limit);
        if (ready >= 0 || limit == 0) {
            return ready > 0;
        }
        std::this_thread::sleep_for(kPollPause);  // interrupted, or short of memory: not the end
    }
}

bool Channel::isConnected() const {
    pollfd event = {fd_.get(), 0, 0};
    return poll(&event, 1, 0) == 0;
}

std::optional<Json::Value> Channel::receive() const {
    std::array<char, kMaxMessage> buffer{};
    ssize_t length = -1;
    do {
        length = recv(fd_.get(), buffer.data(), buffer.size(), 0);
    } while (length < 0 && errno == EINTR);
    if (length <= 0) {
        return std::nullopt;
    }
    Json::Value message;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(buffer.data(), buffer.data() + length, &message, nullptr) ||
        !message.isObject()) {
        return Json::Value(Json::objectValue);  // asks for nothing
    }
    return message;
}

std::pair<Channel, Channel> connectedChannels() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, kSocketType, 0, ends.data()) != 0) {
        throw Error(ErrorKind::kSystem,
                    std::string("cannot create a socket: ") + std::strerror(errno));
    }
    return {Channel(Descriptor(ends[0])), Channel(Descriptor(ends[1]))};
}

Channel listenForTerminals() {
    LockTime time;
    const ToolLock lock("trial.lock", time);
    if (callTrial()) {
        throw Error(ErrorKind::kBusy, "another trial is running; \"tarnfw status\" shows it");
    }
    (void)unlink(kSocketPath);  // of a watchdog that was killed
    Channel listener = openSocket();
    const sockaddr_un address = socketAddress();
    const mode_t mask = umask(0177);
    const int bound =
        bind(listener.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    (void)umask(mask);
    if (bound != 0 || listen(listener.fd(), kBacklog) != 0) {
        throw Error(ErrorKind::kSystem, std::string("cannot listen on ")
                                            .append(kSocketPath)
                                            .append(": ")
                                            .append(std::strerror(errno)));
    }
    return listener;
}

Channel acceptTerminal(const Channel& listener) {
    Channel channel(Descriptor(accept4(listener.fd(), nullptr, nullptr, SOCK_CLOEXEC)));
    const timeval patience = {kPatienceSeconds, 0};
    (void)setsockopt(channel.fd(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
    return channel;
}

void stopListening() {
    (void)unlink(kSocketPath);
}

std::optional<Channel> callTrial() {
    Channel channel = openSocket();
    const timeval patience = {kConnectSeconds, 0};  // with many waiting callers it would be endless
    (void)setsockopt(channel.fd(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    const sockaddr_un address = socketAddress();
    if (connect(channel.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        return channel;
    }
    if (errno == EAGAIN || errno == EINTR) {
        throw Error(ErrorKind::kBusy, "the watchdog of a running trial does not answer");
    }
    return std::nullopt;
}

}  // namespace tarnfw
