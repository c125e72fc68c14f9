#pragma once
// A listener of the Linux transport in a temporary folder with callbacks
// that record its events and log, and a desktop process's end of a stream.

#include <ipc/IpcTransport.h>
#include <platform/UniqueFd.h>

#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace ndpx::ipc {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;
inline constexpr const char* kGuid = "{1CA68F57-44E0-4475-8065-A32557C79A56}";

// A desktop process connected to the endpoint at `path`.
class Client {
public:
    explicit Client(const std::filesystem::path& path)
        : fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(::connect(fd_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0)
            << std::generic_category().message(errno);
    }
    // False when its socket buffer is full.
    bool send(const Bytes& message) {
        return ::send(fd_.get(), message.data(), message.size(), MSG_DONTWAIT) ==
               static_cast<ssize_t>(message.size());
    }
    // The next message; empty at the end of the stream, nothing on timeout.
    std::optional<Bytes> receive(std::chrono::milliseconds timeout = 5s) {
        pollfd entry{fd_.get(), POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(timeout.count())) != 1) {
            return std::nullopt;
        }
        Bytes buffer(std::size_t{512} * 1024);
        const ssize_t n = ::recv(fd_.get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        buffer.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return buffer;
    }
    bool ended() {
        const auto next = receive();
        return next && next->empty();
    }
    void close() { fd_.reset(); }

private:
    platform::UniqueFd fd_;
};

class IpcFixture : public ::testing::Test {
protected:
    // The events of one stream.
    struct Record {
        std::vector<Bytes> messages;
        int closes = 0;  // status-0 messages
    };

    void TearDown() override {
        released_ = true;
        if (listener_) {
            listener_->close();
        }
    }

    std::filesystem::path socketDir() const { return dir_.path() / "run" / "ipc"; }
    std::filesystem::path socketPath() const {
        return socketDir() / (std::string(kGuid) + ".sock");
    }

    // Listens with `limits_` and accepts; the status of listen.
    int listen(std::shared_ptr<IpcListener>& out) {
        std::shared_ptr<IpcContext> context;
        const IpcLogSink sink = [this](const IpcLogRecord& record) {
            const std::lock_guard lock(mutex_);
            logs_.push_back(record);
        };
        EXPECT_EQ(initialiseIpc(sink, IpcOptions{socketDir(), limits_}, context), status::kOk);
        ListenerCallbacks callbacks;
        callbacks.connectRequest = [this](const IpcStreamPtr& stream) {
            const std::lock_guard lock(mutex_);
            requested_.push_back(stream);
            return admit_(stream);
        };
        callbacks.connectAccepted = [this](const IpcStreamPtr& stream) {
            const std::lock_guard lock(mutex_);
            accepted_.push_back(stream);
        };
        callbacks.received = [this](const IpcStreamPtr& stream, const IpcMessage& message) {
            if (holdFirstReceive_ && !held_.exchange(true)) {
                while (!released_) {
                    std::this_thread::sleep_for(1ms);
                }
            }
            const std::lock_guard lock(mutex_);
            Record& record = records_[stream.get()];
            if (message.status == 0) {
                ++record.closes;
            } else {
                record.messages.emplace_back(message.data, message.data + message.size);
            }
        };
        const int rc = context->listen(kGuid, callbacks, out);
        if (rc == status::kOk) {
            EXPECT_EQ(out->setAccepting(), status::kOk);
        }
        return rc;
    }
    void listen() { ASSERT_EQ(listen(listener_), status::kOk); }

    // The `n`th stream accepted (from 1), once it is.
    IpcStreamPtr accepted(std::size_t n) {
        EXPECT_TRUE(test::waitUntil([&] {
            const std::lock_guard guard(mutex_);
            return accepted_.size() >= n;
        }));
        const std::lock_guard guard(mutex_);
        return accepted_.size() >= n ? accepted_[n - 1] : nullptr;
    }
    Record record(const IpcStreamPtr& stream) {
        const std::lock_guard guard(mutex_);
        return records_[stream.get()];
    }
    std::size_t logged(const std::string& text) {
        const std::lock_guard guard(mutex_);
        return std::count_if(logs_.begin(), logs_.end(), [&](const IpcLogRecord& r) {
            return r.message.find(text) != std::string::npos;
        });
    }
    // Counts the sends taken and their completions, which may run up to the
    // listener's close in TearDown.
    struct Sends {
        int taken = 0;
        std::atomic<int> delivered{0};
        std::atomic<int> failed{0};
        std::string thread;  // of the last completion, set before the count
        int completed() const { return delivered + failed; }
    };
    IpcStream::Completion count(Sends& sends) {
        return [&sends](bool delivered) {
            char name[16] = {};
            ::pthread_getname_np(::pthread_self(), name, sizeof name);
            sends.thread = name;
            ++(delivered ? sends.delivered : sends.failed);
        };
    }
    // Sends `size`-byte messages to a process that does not read until the
    // queue stays full (its socket too).
    void fillUntilStuck(const IpcStreamPtr& stream, std::size_t size, Sends& sends) {
        int stillPauses = 0;  // pauses in a row that nothing went out in
        for (int round = 0; round < 200 && stillPauses < 3; ++round) {
            int rc = status::kOk;
            for (int i = 0; i < 10000 && rc == status::kOk; ++i) {
                rc = stream->sendAsync(Bytes(size, 0x5a), count(sends));
                sends.taken += rc == status::kOk;
            }
            ASSERT_EQ(rc, status::kQueueFull);
            const int completed = sends.completed();
            std::this_thread::sleep_for(50ms);
            stillPauses = sends.completed() == completed ? stillPauses + 1 : 0;
        }
        ASSERT_EQ(stillPauses, 3) << "the queue never stayed full";
    }

    test::TempDir dir_;
    IpcLimits limits_;
    std::shared_ptr<IpcListener> listener_;
    std::function<bool(const IpcStreamPtr&)> admit_ = [](const IpcStreamPtr&) { return true; };
    Sends sends_;
    // The first received event waits for released_ (set by TearDown too).
    bool holdFirstReceive_ = false;
    std::atomic<bool> held_{false};
    std::atomic<bool> released_{false};

    std::mutex mutex_;
    std::vector<IpcStreamPtr> requested_;
    std::vector<IpcStreamPtr> accepted_;
    std::map<IpcStream*, Record> records_;
    std::vector<IpcLogRecord> logs_;
};

}  // namespace ndpx::ipc
