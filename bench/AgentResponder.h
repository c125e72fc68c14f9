#pragma once
// The real agent's MQTT session as a round-trip responder.

#include "RoundTripHarness.h"

namespace ndpx::bench {

std::unique_ptr<Responder> makeAgentResponder();

}  // namespace ndpx::bench
