// The Linux transport's messages: boundaries both ways, the size limit, a
// process that does not read, one that sends too fast, one that leaves while
// messages are on their way.

#include "IpcFixture.h"

#include <unistd.h>

namespace ndpx::ipc {
namespace {

using IpcFlow = IpcFixture;

Bytes pattern(std::size_t size) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<std::uint8_t>(i * 7);
    }
    return bytes;
}

TEST_F(IpcFlow, MessagesGoBothWaysWithTheirBoundaries) {
    listen();
    Client client(socketPath());
    const IpcStreamPtr stream = accepted(1);
    const std::vector<Bytes> messages = {pattern(1), pattern(5000), pattern(3)};
    for (const auto& message : messages) {
        ASSERT_TRUE(client.send(message));
    }
    ASSERT_TRUE(test::waitUntil([&] { return record(stream).messages.size() == 3; }));
    EXPECT_EQ(record(stream).messages, messages);

    for (const auto& message : messages) {
        EXPECT_EQ(stream->sendAsync(message, count(sends_)), status::kOk);
    }
    for (const auto& message : messages) {
        EXPECT_EQ(client.receive(), message);
    }
    EXPECT_TRUE(test::waitUntil([&] { return sends_.delivered == 3; }));

    // The largest message fits the socket's send buffer.
    const Bytes largest = pattern(limits_.maxMessageBytes);
    EXPECT_EQ(stream->sendAsync(largest, nullptr), status::kOk);
    EXPECT_EQ(client.receive(), largest);

    // A close waits for what is queued, then ends the stream without an event.
    ASSERT_EQ(stream->sendAsync(pattern(10), nullptr), status::kOk);
    stream->close(5s);
    EXPECT_EQ(client.receive(), pattern(10));
    EXPECT_TRUE(client.ended());
    EXPECT_EQ(stream->sendAsync(pattern(10), nullptr), status::kClosed);
    EXPECT_EQ(record(stream).closes, 0);
}

TEST_F(IpcFlow, ACallbackThatBlocksHoldsUpNoSocket) {
    holdFirstReceive_ = true;
    listen();
    Client first(socketPath());
    accepted(1);
    Client second(socketPath());
    const IpcStreamPtr stream = accepted(2);
    ASSERT_TRUE(first.send(pattern(1)));
    ASSERT_TRUE(test::waitUntil([&] { return held_.load(); }));

    ASSERT_EQ(stream->sendAsync(pattern(8), count(sends_)), status::kOk);
    EXPECT_EQ(second.receive(), pattern(8));
    EXPECT_EQ(sends_.completed(), 0);  // its completion waits for the dispatch thread
    released_ = true;
    ASSERT_TRUE(test::waitUntil([&] { return sends_.delivered == 1; }));
    EXPECT_EQ(sends_.thread, "IpcDispatch");
}

TEST_F(IpcFlow, AMessageAboveTheLimitEndsTheStream) {
    limits_.maxMessageBytes = 1024;
    listen();
    Client client(socketPath());
    const IpcStreamPtr stream = accepted(1);
    EXPECT_EQ(stream->sendAsync(pattern(1025), nullptr), status::kTooLarge);
    ASSERT_TRUE(client.send(pattern(1024)));
    ASSERT_TRUE(client.send(pattern(2000)));
    ASSERT_TRUE(test::waitUntil([&] { return record(stream).closes == 1; }));
    EXPECT_EQ(record(stream).messages, std::vector<Bytes>{pattern(1024)});
    EXPECT_EQ(logged("message of 2000 bytes from pid " + std::to_string(::getpid()) +
                     " is above the limit of 1024"),
              1U);
    EXPECT_TRUE(client.ended());
}

TEST_F(IpcFlow, AProcessThatDoesNotReadFillsItsQueueUntilItReads) {
    limits_.maxQueuedSends = 8;
    listen();
    Client client(socketPath());
    const IpcStreamPtr stream = accepted(1);
    fillUntilStuck(stream, 4096, sends_);
    const std::size_t episodes = logged("does not read fast enough");
    EXPECT_GE(episodes, 1U);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(stream->sendAsync(pattern(1), nullptr), status::kQueueFull);
    }
    EXPECT_EQ(logged("does not read fast enough"), episodes);  // once an episode

    for (int i = 0; i < sends_.taken; ++i) {
        ASSERT_EQ(client.receive().value_or(Bytes{}).size(), 4096U);
    }
    ASSERT_TRUE(test::waitUntil([&] { return sends_.delivered == sends_.taken; }));
    EXPECT_EQ(stream->sendAsync(pattern(7), count(sends_)), status::kOk);
    EXPECT_EQ(client.receive(), pattern(7));
    EXPECT_TRUE(test::waitUntil([&] { return sends_.delivered == sends_.taken + 1; }));
}

TEST_F(IpcFlow, AFloodingProcessIsSlowedWhileAnotherIsServed) {
    limits_.maxReceivesPerSecond = 20;
    listen();
    Client flooder(socketPath());
    const IpcStreamPtr flooding = accepted(1);
    const auto began = std::chrono::steady_clock::now();
    for (int i = 0; i < 300 && flooder.send(pattern(16)); ++i) {
    }
    std::this_thread::sleep_until(began + 100ms);
    EXPECT_LE(record(flooding).messages.size(), 20U);
    ASSERT_TRUE(test::waitUntil([&] { return record(flooding).messages.size() >= 20; }, 2s));

    Client other(socketPath());
    const IpcStreamPtr served = accepted(2);
    ASSERT_TRUE(other.send(pattern(5)));
    ASSERT_TRUE(test::waitUntil([&] { return record(served).messages.size() == 1; }, 2s));
    EXPECT_EQ(served->sendAsync(pattern(6), nullptr), status::kOk);
    EXPECT_EQ(other.receive(2s), pattern(6));

    // A second second at the limit is the same episode: one record.
    ASSERT_TRUE(test::waitUntil([&] { return record(flooding).messages.size() >= 40; }, 3s));
    EXPECT_LE(record(flooding).messages.size(), 60U);
    EXPECT_EQ(logged("pid " + std::to_string(::getpid()) +
                     " sends faster than 20 messages a second; slowed"),
              1U);
}

TEST_F(IpcFlow, APeerLeavingMidSendCompletesTheRestAsNotDeliveredAndClosesOnce) {
    limits_.maxQueuedSends = 8;
    listen();
    Client client(socketPath());
    const IpcStreamPtr stream = accepted(1);
    fillUntilStuck(stream, 4096, sends_);
    client.close();
    ASSERT_TRUE(test::waitUntil([&] { return sends_.completed() == sends_.taken; }));
    EXPECT_GE(sends_.failed, 1);
    ASSERT_TRUE(test::waitUntil([&] { return record(stream).closes == 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(record(stream).closes, 1);
    EXPECT_FALSE(stream->peerConnected());
    EXPECT_EQ(stream->sendAsync(pattern(1), nullptr), status::kClosed);
}

}  // namespace
}  // namespace ndpx::ipc
