#include "devcloud/EchoResponder.h"

#include "devcloud/Topics.h"

#include <utility>

namespace ndpx::devcloud {

EchoResponder::EchoResponder(ClientOptions options, std::string desktopId)
    : desktopId_(std::move(desktopId)),
      responseTopic_(responseTopic(desktopId_)),
      client_(std::move(options)) {
    // Publishing without waiting is allowed on Paho's receive thread.
    client_.setHandler([this](const Message& m) {
        if (client_.publishAsync(responseTopic_, m.payload, 1)) {
            answered_.fetch_add(1);
        }
    });
}

bool EchoResponder::start(std::chrono::milliseconds limit) {
    return client_.connect(limit) && client_.subscribe(commandsTopic(desktopId_), 1, limit);
}

}  // namespace ndpx::devcloud
