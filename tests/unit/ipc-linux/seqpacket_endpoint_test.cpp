// The Linux transport's endpoint and admission: the socket file and its
// folder, who connected, refusals, and closing the listener.

#include "IpcFixture.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace ndpx::ipc {
namespace {

using IpcEndpoint = IpcFixture;

TEST_F(IpcEndpoint, AcceptsWithThePeersProcessAndRefusesWhomConnectRequestDeclines) {
    admit_ = [this](const IpcStreamPtr&) { return requested_.size() == 1; };  // under mutex_
    listen();
    Client first(socketPath());
    const IpcStreamPtr stream = accepted(1);
    ASSERT_TRUE(stream);
    EXPECT_EQ(stream->peerProcessId(), static_cast<std::uint32_t>(::getpid()));
    ASSERT_TRUE(stream->peerCredentials());
    EXPECT_EQ(stream->peerCredentials()->uid, ::getuid());
    EXPECT_NE(stream->name().find("(pid " + std::to_string(::getpid()) + ")"), std::string::npos);
    EXPECT_TRUE(stream->peerConnected());

    Client declined(socketPath());
    EXPECT_TRUE(declined.ended());
    EXPECT_TRUE(first.send({1, 2, 3}));
    ASSERT_TRUE(test::waitUntil([&] { return record(stream).messages.size() == 1; }));

    first.close();
    ASSERT_TRUE(test::waitUntil([&] { return record(stream).closes == 1; }));
    EXPECT_FALSE(stream->peerConnected());
    const std::lock_guard guard(mutex_);
    ASSERT_EQ(requested_.size(), 2U);
    EXPECT_EQ(accepted_.size(), 1U);
    EXPECT_EQ(records_.count(requested_[1].get()), 0U);  // no event for the declined one
}

TEST_F(IpcEndpoint, MakesTheFolder0755AndTheSocket0666WhateverTheUmask) {
    const mode_t umask = ::umask(077);
    listen();
    ::umask(umask);
    struct stat st {};
    for (const auto& folder : {socketDir().parent_path(), socketDir()}) {
        ASSERT_EQ(::stat(folder.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0755U) << folder;
    }
    ASSERT_EQ(::lstat(socketPath().c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0666U);
    listener_->close();
    EXPECT_FALSE(std::filesystem::exists(socketPath()));
}

TEST_F(IpcEndpoint, ReplacesAStaleSocketButNotALiveOneNorAnotherFile) {
    std::filesystem::create_directories(socketDir());
    {
        const platform::UniqueFd stale(::socket(AF_UNIX, SOCK_SEQPACKET, 0));
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath().c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(::bind(stale.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    listen();
    EXPECT_EQ(logged("replaced the stale socket file"), 1U);
    Client client(socketPath());
    EXPECT_TRUE(accepted(1));

    std::shared_ptr<IpcListener> second;
    EXPECT_EQ(listen(second), status::kFailed);
    EXPECT_EQ(logged("is in use by another listener"), 1U);

    listener_->close();
    std::ofstream(socketPath()) << "not a socket";
    EXPECT_EQ(listen(second), status::kFailed);
    EXPECT_EQ(logged("exists and is not a socket"), 1U);
    EXPECT_TRUE(std::filesystem::is_regular_file(socketPath()));
}

TEST_F(IpcEndpoint, RefusesProcessesBeyondMaxStreams) {
    limits_.maxStreams = 2;
    listen();
    Client first(socketPath());
    Client second(socketPath());
    ASSERT_TRUE(accepted(2));
    Client third(socketPath());
    EXPECT_TRUE(third.ended());
    EXPECT_EQ(
        logged("refusing pid " + std::to_string(::getpid()) + ": 2 processes connected, the limit"),
        1U);

    first.close();  // its place is free again
    ASSERT_TRUE(test::waitUntil([&] { return record(accepted(1)).closes == 1; }));
    Client fourth(socketPath());
    EXPECT_TRUE(accepted(3));
}

// The names of this process's threads.
std::size_t threadsNamed(const std::string& name) {
    std::size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string comm;
        std::getline(std::ifstream(task.path() / "comm"), comm);
        count += comm == name;
    }
    return count;
}

TEST_F(IpcEndpoint, CloseJoinsItsThreadsAndLeavesStreamsAnsweringClosed) {
    limits_.maxQueuedSends = 4;
    listen();
    EXPECT_TRUE(test::waitUntil(
        [] { return threadsNamed("IpcIo") == 1 && threadsNamed("IpcDispatch") == 1; }));
    Client client(socketPath());  // never reads
    const IpcStreamPtr stream = accepted(1);
    fillUntilStuck(stream, 4096, sends_);

    EXPECT_EQ(listener_->close(), status::kOk);
    // A joined thread may linger in /proc for a moment after it ended.
    EXPECT_TRUE(test::waitUntil(
        [] { return threadsNamed("IpcIo") + threadsNamed("IpcDispatch") == 0; }, 1s));
    EXPECT_EQ(sends_.completed(), sends_.taken);  // what was queued, as not delivered
    EXPECT_GE(sends_.failed, 1);
    EXPECT_FALSE(std::filesystem::exists(socketPath()));
    EXPECT_EQ(stream->sendAsync({1}, nullptr), status::kClosed);
    EXPECT_FALSE(stream->peerConnected());
    const auto began = std::chrono::steady_clock::now();
    stream->close(5s);  // nothing to wait for
    EXPECT_LT(std::chrono::steady_clock::now() - began, 1s);
    EXPECT_EQ(listener_->close(), status::kOk);
    EXPECT_EQ(listener_->setAccepting(), status::kClosed);
    EXPECT_EQ(record(stream).closes, 0);
}

}  // namespace
}  // namespace ndpx::ipc
