/// Communication in a trial: between the watchdog, the terminal that began it, and other terminals.
#pragma once

#include <chrono>
#include <optional>
#include <utility>

#include <json/json.h>

#include "tarnfwadmin/descriptor.h"

namespace tarnfw {

/// One end of a connection that carries whole JSON documents. Closed by its destructor.
class Channel {
public:
    Channel() = default;
    explicit Channel(Descriptor fd) : fd_(std::move(fd)) {}

    explicit operator bool() const { return static_cast<bool>(fd_); }
    int fd() const { return fd_.get(); }

    /// Sends a document, without waiting. It is not a failure if the other end is closed.
    void send(const Json::Value& message) const;

    /// Waits for a document, or for the end of the connection. False when the time is over.
    bool awaits(std::chrono::milliseconds time) const;

    /// Whether the other end is still open.
    bool isConnected() const;

    /// Waits for the next document; nothing if the other end is closed.
    std::optional<Json::Value> receive() const;

private:
    Descriptor fd_;
};

/// Two connected ends.
std::pair<Channel, Channel> connectedChannels();

/// Starts to listen for other terminals; only root can connect. Throws
/// Error when a trial listens there already.
Channel listenForTerminals();

/// Accepts a terminal's connection; receive() waits at most a second on it.
Channel acceptTerminal(const Channel& listener);

/// Removes what listenForTerminals() created, after the trial.
void stopListening();

/// A connection to the running trial; nothing if there is none. Throws Error, kBusy, when it does
/// not take one within 3 seconds.
std::optional<Channel> callTrial();

}  // namespace tarnfw
