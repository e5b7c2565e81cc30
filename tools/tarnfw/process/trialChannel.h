/// How the parties of a trial talk: the watchdog, the terminal that began it, and other terminals.
#pragma once

#include <optional>
#include <utility>

#include <json/json.h>

namespace tarnfw {

/// One end of a connection that carries whole JSON documents. Closed by its destructor.
class Channel {
public:
    Channel() = default;
    explicit Channel(int fd) : fd_(fd) {}
    ~Channel();
    Channel(Channel&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Channel& operator=(Channel&& other) noexcept;

    int fd() const { return fd_; }

    /// Sends a document, without waiting. A party that is gone gets nothing, which is no failure.
    void send(const Json::Value& message) const;

    /// Waits for the next document; nothing when the other party is gone.
    std::optional<Json::Value> receive() const;

private:
    int fd_ = -1;
};

/// Two ends that are connected with each other.
std::pair<Channel, Channel> connectedChannels();

/// Starts to listen where other terminals find the trial; only root can connect. Throws
/// Error when a trial listens there already.
Channel listenForTerminals();

/// Takes the connection of a terminal that has called; receive() waits a second for it.
Channel acceptTerminal(const Channel& listener);

/// Takes away what listenForTerminals() made, when the trial has ended.
void stopListening();

/// A connection to the trial that is going on; nothing when there is none.
std::optional<Channel> callTrial();

}  // namespace tarnfw
