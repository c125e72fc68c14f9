// The session's counters as the metric carries them: a histogram whose
// buckets include their bound and add up, reasons that count from zero, and
// counts that stay whole when many threads add at once.

#include "mqtt/SessionCounters.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace ndpx {
namespace {

using namespace std::chrono_literals;

TEST(LatencyHistogramTest, BucketsIncludeTheirBoundAndAddUp) {
    LatencyHistogram h;
    h.observe(5ms);     // on the first bound: counted in it
    h.observe(5001us);  // just over: the next
    h.observe(1s);      // on a bound in the middle
    h.observe(40s);     // over the last bound: only in the count
    const Json::Value j = h.toJson();
    ASSERT_EQ(j["bounds"].size(), LatencyHistogram::kBounds.size());
    ASSERT_EQ(j["counts"].size(), j["bounds"].size());
    EXPECT_EQ(j["bounds"][0].asDouble(), 0.005);
    EXPECT_EQ(j["counts"][0].asUInt64(), 1u);
    EXPECT_EQ(j["counts"][1].asUInt64(), 2u);  // cumulative: le 0.01 holds both
    for (Json::ArrayIndex i = 0; i < j["bounds"].size(); ++i) {
        const double bound = j["bounds"][i].asDouble();
        const std::uint64_t expected = bound < 0.01 ? 1 : bound < 1 ? 2 : 3;
        EXPECT_EQ(j["counts"][i].asUInt64(), expected) << "le " << bound;
    }
    EXPECT_EQ(j["count"].asUInt64(), 4u);
    EXPECT_NEAR(j["sum"].asDouble(), 41.010001, 1e-9);
}

TEST(SessionCountersTest, PairingFailureReasonsStartAtZeroAndCount) {
    SessionCounters counters;
    Json::Value pairing = counters.pairing();
    EXPECT_EQ(pairing["attempts"].asUInt64(), 0u);
    EXPECT_EQ(pairing["failures"].getMemberNames(),
              (std::vector<std::string>{"credential_service", "credentials_response",
                                        "key_generation", "store"}));
    counters.pairingAttempts.fetch_add(2);
    counters.pairingFailures.add(pairing_failure::kCredentialService);
    counters.pairingFailures.add("something new");  // not known ahead: still counted
    pairing = counters.pairing();
    EXPECT_EQ(pairing["attempts"].asUInt64(), 2u);
    EXPECT_EQ(pairing["failures"]["credential_service"].asUInt64(), 1u);
    EXPECT_EQ(pairing["failures"]["something new"].asUInt64(), 1u);
    EXPECT_EQ(pairing["failures"]["store"].asUInt64(), 0u);
}

TEST(SessionCountersTest, ManyThreadsAddingLoseNothing) {
    SessionCounters counters;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&counters] {
            for (int i = 0; i < 1000; ++i) {
                counters.commandsAnswered.fetch_add(1);
                counters.answerLatency.observe(2ms);
                counters.pairingFailures.add(pairing_failure::kStore);
            }
        });
    }
    // Read while they add, as a collection would.
    const Json::Value during = counters.commands();
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_LE(during["answerLatency"]["count"].asUInt64(), 4000u);
    const Json::Value commands = counters.commands();
    EXPECT_EQ(commands["answered"].asUInt64(), 4000u);
    EXPECT_EQ(commands["answerLatency"]["count"].asUInt64(), 4000u);
    EXPECT_EQ(commands["answerLatency"]["counts"][0].asUInt64(), 4000u);
    EXPECT_EQ(counters.pairing()["failures"]["store"].asUInt64(), 4000u);
}

}  // namespace
}  // namespace ndpx
