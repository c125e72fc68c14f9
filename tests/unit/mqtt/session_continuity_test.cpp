// A session the broker did not keep is told once, with the time away, and
// counted; a first connection, a new client ID and a clean start are not.

#include "mqtt/SessionContinuity.h"
#include "support/ManualTimeSource.h"
#include "support/TempDir.h"

#include <mfw/log.h>

#include <gtest/gtest.h>

namespace ndpx {
namespace {

using namespace std::chrono_literals;

constexpr const char* kAfterAway = "kept no session for this desktop after 42 s away";
constexpr const char* kAfterStart = "last known connected 3600 s ago before this start";

class SessionContinuityTest : public ::testing::Test {
protected:
    SessionContinuityTest() { CORE::addLogSink(log_); }
    ~SessionContinuityTest() override { CORE::removeLogSink(log_); }

    std::shared_ptr<CORE::CaptureSink> log_ = std::make_shared<CORE::CaptureSink>();
    test::ManualTimeSource time_;
    test::TempDir dir_;
    std::filesystem::path marker_ = dir_.path() / "last-connected";
};

TEST_F(SessionContinuityTest, ALostSessionIsToldWithTheTimeAwayAndCounted) {
    SessionContinuity session(time_);
    session.setMarker(marker_, "e1t3_vm7");
    session.connected(false, false);  // the first connection: nothing to keep
    session.disconnected();
    time_.advance(42s);
    session.connected(true, false);
    session.disconnected();
    time_.advance(42s);
    session.connected(false, true);  // a clean start asks for no session
    EXPECT_EQ(session.lostSessions(), 0u);
    session.disconnected();
    time_.advance(42s);
    session.connected(false, false);
    EXPECT_EQ(log_->count(kAfterAway), 1u);
    EXPECT_EQ(session.lostSessions(), 1u);
    EXPECT_EQ(session.reconnects(), 3u);

    // A new identity is a new client: it had no session.
    session.disconnected();
    session.setMarker(marker_, "e2t9_vm7");
    session.connected(false, false);
    EXPECT_EQ(session.lostSessions(), 1u);
}

TEST_F(SessionContinuityTest, ConnectedTimeCountsOnlyTheConnectedStretches) {
    SessionContinuity session(time_);
    session.setMarker(marker_, "e1t3_vm7");
    EXPECT_EQ(session.connectedSeconds(), 0u);
    session.connected(false, false);
    time_.advance(10s);
    session.disconnected();
    time_.advance(300s);     // away: not counted
    session.disconnected();  // a second loss while away changes nothing
    EXPECT_EQ(session.connectedSeconds(), 10u);
    session.connected(true, false);
    time_.advance(3s);
    EXPECT_EQ(session.connectedSeconds(), 13u);  // the current stretch counts as it goes
    session.disconnected(true);
    time_.advance(60s);
    EXPECT_EQ(session.connectedSeconds(), 13u);
}

TEST_F(SessionContinuityTest, AfterARestartTheMarkerTellsWhetherASessionWasExpected) {
    {
        SessionContinuity before(time_);
        before.setMarker(marker_, "e1t3_vm7");
        before.connected(false, false);
    }  // killed: the connection time is the last thing known
    time_.advance(3600s);
    SessionContinuity after(time_);
    after.setMarker(marker_, "e1t3_vm7");
    after.connected(false, false);
    EXPECT_EQ(log_->count(kAfterStart), 1u);
    EXPECT_EQ(after.lostSessions(), 1u);

    SessionContinuity other(time_);
    other.setMarker(marker_, "e9t9_vm9");  // another desktop's folder, restored
    other.connected(false, false);
    EXPECT_EQ(other.lostSessions(), 0u);
}

}  // namespace
}  // namespace ndpx
