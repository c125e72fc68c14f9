#pragma once
// Command round trip over a real broker: a control-plane client publishes a
// command at QoS 1 on a desktop's commands topic and waits for the answer
// with the same "ID" on its response topic. Whatever answers is a Responder:
// a raw MQTT echo client gives the floor; the real agent plugs in as another
// Responder and is measured on the same broker in the same run.

#include "support/MosquittoBroker.h"

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace ndpx::bench {

class Responder {
public:
    virtual ~Responder() = default;
    // Short name for the table ("floor", "agent", ...).
    virtual std::string name() const = 0;
    // Starts answering commands for desktopId() on `broker`; its broker
    // sockets get TCP_NODELAY when `noDelay`. Throws when it cannot.
    virtual void start(test::MosquittoBroker& broker, bool noDelay) = 0;
    // The identifier in the desktop's topics.
    virtual std::string desktopId() const = 0;
    // The command to send; the responder answers it without real work.
    virtual std::string command() const { return "Echo"; }
};

// Makes a fresh responder for each broker configuration.
using ResponderFactory = std::function<std::unique_ptr<Responder>()>;

struct RunLimits {
    std::size_t roundTrips = 2000;
    std::chrono::milliseconds maxTime = std::chrono::seconds(10);
    std::size_t warmUp = 50;
    std::chrono::milliseconds answerTimeout = std::chrono::seconds(5);
};

struct Measurement {
    std::string responder;
    bool noDelay = true;
    std::size_t inFlight = 1;
    std::size_t completed = 0;
    std::size_t lost = 0;  // no answer within the answer time-out
    double seconds = 0;
    double p50Ms = 0;
    double p99Ms = 0;
    double perSecond = 0;
};

// Sends commands to `responder` through `broker` with `inFlight` outstanding
// at a time until `limits` are reached.
Measurement measure(test::MosquittoBroker& broker, Responder& responder, bool noDelay,
                    std::size_t inFlight, const RunLimits& limits);

// The raw Paho echo client: answers with the request itself.
std::unique_ptr<Responder> makeFloorResponder();

}  // namespace ndpx::bench
