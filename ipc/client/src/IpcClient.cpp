#include <ipcclient/IpcClient.h>
#include <ipcclient/TopicRules.h>

#include "BridgeSocket.h"
#include "WireFormat.h"

namespace ndpx::ipcclient {
namespace {

using detail::Clock;

Clock::time_point deadlineAfter(std::chrono::milliseconds timeout) {
    // Anything near kWaitForever would overflow the clock.
    if (timeout >= std::chrono::hours(24 * 365)) {
        return Clock::time_point::max();
    }
    return Clock::now() + std::max(timeout, std::chrono::milliseconds(0));
}

std::string durationText(std::chrono::milliseconds timeout) {
    return timeout.count() % 1000 == 0 ? std::to_string(timeout.count() / 1000) + " s"
                                       : std::to_string(timeout.count()) + " ms";
}

}  // namespace

std::filesystem::path bridgeSocketPath(const std::filesystem::path& root) {
    return root / "run" / "Brasswick" / "ipc" / (std::string(kEndpointGuid) + ".sock");
}

IpcError IpcClient::connect(const std::filesystem::path& socketPath) {
    close();
    IpcError error;
    fd_ = detail::connectBridge(socketPath, error);
    path_ = socketPath;
    return error;
}

void IpcClient::close() {
    fd_.reset();
    heardFromBridge_ = false;
    kept_.clear();
    const std::lock_guard lock(identityMutex_);
    identity_.reset();
}

IpcError IpcClient::subscribe(const std::vector<std::string>& topics,
                              std::chrono::milliseconds timeout) {
    if (IpcError error = checkSubscribe(topics); !error.ok()) {
        return error;
    }
    const std::string packet = detail::encodeSubscribe(topics);
    if (packet.size() > kMaxMessageBytes) {
        return {IpcErrc::TooLarge,
                "the subscribe message would be " + std::to_string(packet.size()) +
                    " bytes, above the bridge's limit of " + std::to_string(kMaxMessageBytes)};
    }
    return send(packet, timeout);
}

IpcError IpcClient::publish(std::string_view topic, std::span<const std::uint8_t> payload, int qos,
                            bool retain, std::chrono::milliseconds timeout) {
    if (IpcError error = checkPublish(topic, qos); !error.ok()) {
        return error;
    }
    // Base64 makes 4 bytes of 3: a payload past the limit never fits.
    const std::size_t size = payload.size() > kMaxMessageBytes
                                 ? payload.size()
                                 : detail::encodePublish(topic, payload, qos, retain).size();
    if (size > kMaxMessageBytes) {
        return {IpcErrc::TooLarge, "a payload of " + std::to_string(payload.size()) +
                                       " bytes does not fit: the message (base64 in JSON) "
                                       "would pass the bridge's limit of " +
                                       std::to_string(kMaxMessageBytes) + " bytes"};
    }
    return send(detail::encodePublish(topic, payload, qos, retain), timeout);
}

IpcError IpcClient::publish(std::string_view topic, std::string_view payload, int qos, bool retain,
                            std::chrono::milliseconds timeout) {
    return publish(topic, {reinterpret_cast<const std::uint8_t*>(payload.data()), payload.size()},
                   qos, retain, timeout);
}

IpcError IpcClient::send(const std::string& packet, std::chrono::milliseconds timeout) {
    if (!fd_) {
        return {IpcErrc::NotConnected, "not connected to the bridge"};
    }
    IpcError error = detail::sendPacket(fd_.get(), packet, deadlineAfter(timeout),
                                        {stop_.waitHandle(), externalStop_});
    return error.code == IpcErrc::Closed ? closedError() : error;
}

std::optional<Message> IpcClient::receive(std::chrono::milliseconds timeout, IpcError& error) {
    if (!kept_.empty()) {
        Message message = std::move(kept_.front());
        kept_.pop_front();
        error = {};
        return message;
    }
    return receiveBefore(deadlineAfter(timeout), error);
}

std::optional<Message> IpcClient::receiveBefore(std::chrono::steady_clock::time_point deadline,
                                                IpcError& error) {
    if (!fd_) {
        error = {IpcErrc::NotConnected, "not connected to the bridge"};
        return std::nullopt;
    }
    buffer_.resize(kMaxMessageBytes);
    std::size_t size = 0;
    error = detail::receivePacket(fd_.get(), buffer_, size, deadline,
                                  {stop_.waitHandle(), externalStop_});
    if (error.code == IpcErrc::Closed) {
        error = closedError();
    }
    if (error.code == IpcErrc::TooLarge || error.ok()) {
        heardFromBridge_ = true;
    }
    if (!error.ok()) {
        return std::nullopt;
    }
    auto message = detail::decodeBridgeMessage({buffer_.data(), size}, error);
    if (!message || message->topic != kIdentityTopic) {
        return message;
    }
    auto identity = parseIdentity(message->payload, error);
    if (!identity) {
        return std::nullopt;
    }
    message->isIdentity = true;
    const std::lock_guard lock(identityMutex_);
    identity_ = std::move(*identity);
    return message;
}

std::optional<Identity> IpcClient::waitForIdentity(std::chrono::milliseconds timeout,
                                                   IpcError& error) {
    if (auto known = identity()) {
        error = {};
        return known;
    }
    const auto deadline = deadlineAfter(timeout);
    for (;;) {
        auto message = receiveBefore(deadline, error);
        if (!message) {
            if (error.code == IpcErrc::TimedOut) {
                error.message = "the bridge sent no identity within " + durationText(timeout);
            }
            return std::nullopt;
        }
        if (message->isIdentity) {
            return identity();
        }
        kept_.push_back(std::move(*message));
    }
}

std::optional<Identity> IpcClient::identity() const {
    const std::lock_guard lock(identityMutex_);
    return identity_;
}

IpcError IpcClient::closedError() const {
    if (!heardFromBridge_ && !detail::messageWaiting(fd_.get())) {
        const std::string name = detail::executableBaseName();
        return {IpcErrc::Refused,
                "refused: the bridge at " + path_.string() +
                    " closed the connection before its first message; is this program (\"" + name +
                    "\") in the include list?"};
    }
    return {IpcErrc::Closed, "the bridge closed the connection (is the agent stopping?)"};
}

}  // namespace ndpx::ipcclient
