// Workers and messages: results, errors, time-outs, asynchronous completions,
// removal and cancellation, as plug-ins and the host rely on them.

#include <mfw/MessageFrameWork.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

namespace CORE {
namespace {

using Handler = std::function<bool(const std::wstring&, PropertyBag&, PropertyBag&)>;

class LambdaItem : public WorkItem {
public:
    explicit LambdaItem(Handler* h) : h_(h) {}
    bool handleMessage(const std::wstring& op, PropertyBag& req, PropertyBag& resp) override {
        return (*h_)(op, req, resp);
    }

private:
    Handler* h_;
};

std::unique_ptr<WorkItem> makeItem(void* context) {
    return std::make_unique<LambdaItem>(static_cast<Handler*>(context));
}

class MessagingTest : public ::testing::Test {
protected:
    void add(const std::wstring& name, Handler h, unsigned threads = 2) {
        handlers_.push_back(std::make_unique<Handler>(std::move(h)));
        names_.push_back(name);
        fw().AddWorkerEx(&makeItem, handlers_.back().get(), name, L"test", 0, nullptr, threads);
    }
    void TearDown() override {
        for (const auto& n : names_) {
            fw().RemoveWorker(n, 0);
        }
    }
    static MessageFrameWork& fw() { return MessageFrameWork::System(); }

    std::vector<std::unique_ptr<Handler>> handlers_;
    std::vector<std::wstring> names_;
};

TEST_F(MessagingTest, SendMsgCarriesRequestAndAnswerAndReportsErrors) {
    add(L"Echo", [](const std::wstring& op, PropertyBag& req, PropertyBag& resp) {
        if (op == L"Fail") {
            serviceOperation::setReplyError(resp, 87, L"bad parameter");
            return false;
        }
        if (op == L"Throw") {
            throw std::runtime_error("boom");
        }
        if (op == L"Refuse") {
            return false;
        }
        resp.set(L"OP", op);
        resp.set(L"X", req.get(L"X", L"?"));
        return true;
    });
    PropertyBag req;
    req.set(L"X", L"42");
    PropertyBag resp;
    // Worker names are case-blind, as the agent's queues are.
    EXPECT_EQ(MessageHandler::SendMsg(L"echo", L"Hello", req, resp, 5000), kErrorSuccess);
    EXPECT_EQ(resp.get(L"X", L""), L"42");
    EXPECT_EQ(resp.get(L"OP", L""), L"Hello");

    PropertyBag failed;
    EXPECT_EQ(MessageHandler::SendMsg(L"Echo", L"Fail", req, failed, 5000), 87);
    EXPECT_EQ(failed.get(kReplyErrorText, L""), L"bad parameter");
    PropertyBag thrown;
    EXPECT_EQ(MessageHandler::SendMsg(L"Echo", L"Throw", req, thrown, 5000), kErrorHandlerFailed);
    EXPECT_EQ(MessageHandler::SendMsg(L"Echo", L"Refuse", req, thrown, 5000), kErrorHandlerFailed);
    EXPECT_EQ(MessageHandler::SendMsg(L"Nobody", L"Hello", req, resp, 5000), kErrorNotFound);
    EXPECT_FALSE(MessageHandler::PostMsg(L"Nobody", L"Hello", req));
    EXPECT_THROW(add(L"ECHO", nullptr), coreException);
}

// A busy worker makes a sync send time out; a sender that is told to stop
// (its abort event set, before or during the wait) gives up at once.
TEST_F(MessagingTest, SendMsgTimesOutWhileTheWorkerIsBusyOrEndsWhenAborted) {
    // Shared: the worker may still be leaving the wait when the test ends.
    auto release = std::make_shared<coreevent>();
    add(L"Slow", [release](const std::wstring&, PropertyBag&, PropertyBag&) {
        release->waitMs(kInfinite);
        return true;
    });
    PropertyBag req;
    PropertyBag resp;
    EXPECT_EQ(MessageHandler::SendMsg(L"Slow", L"Op", req, resp, 50), kErrorTimeout);

    coreevent stopping;
    auto sender = std::async(std::launch::async, [&] {
        PropertyBag answer;
        return MessageHandler::SendMsg(L"Slow", L"Op", req, answer, kInfinite, stopping);
    });
    EXPECT_EQ(sender.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    stopping.set();
    ASSERT_EQ(sender.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(sender.get(), kErrorShutdown);
    EXPECT_EQ(MessageHandler::SendMsg(L"Slow", L"Op", req, resp, kInfinite, stopping),
              kErrorShutdown);
    EXPECT_FALSE(MessageFrameWork::System().IsWorkerInstalled(L"Never", kInfinite, &stopping));
    release->set();  // the late answers must not touch the callers' bags
}

TEST_F(MessagingTest, AsyncCompletionRunsOnAWorkerThreadWithTheRequestId) {
    add(L"Async", [](const std::wstring& op, PropertyBag&, PropertyBag& resp) {
        resp.set(L"DONE", op);
        return true;
    });
    using Seen = std::tuple<std::wstring, int, std::wstring, std::thread::id>;
    std::promise<Seen> seen;
    auto completion = [](void* ctx, const std::wstring& id, int type, PropertyBag& resp) {
        static_cast<std::promise<Seen>*>(ctx)->set_value(
            {id, type, resp.get(L"DONE", L""), std::this_thread::get_id()});
    };
    PropertyBag req;
    ASSERT_TRUE(MessageHandler::SendAsyncMsg(L"Async", L"Work", req, completion, &seen, L"id-7"));
    auto result = seen.get_future();
    ASSERT_EQ(result.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    const auto [id, type, done, thread] = result.get();
    EXPECT_EQ(id, L"id-7");
    EXPECT_EQ(type, kErrorSuccess);
    EXPECT_EQ(done, L"Work");
    EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(MessagingTest, RemovingAWorkerFailsQueuedRequestsAndCancelDropsCompletions) {
    coreevent entered;
    coreevent release;
    add(
        L"Busy",
        [&](const std::wstring&, PropertyBag&, PropertyBag&) {
            entered.set();
            release.waitMs(kInfinite);
            return true;
        },
        1);
    std::atomic<int> completions{0};
    auto completion = [](void* ctx, const std::wstring&, int, PropertyBag&) {
        static_cast<std::atomic<int>*>(ctx)->fetch_add(1);
    };
    PropertyBag req;
    ASSERT_TRUE(
        MessageHandler::SendAsyncMsg(L"Busy", L"First", req, completion, &completions, L"1"));
    ASSERT_TRUE(entered.wait(std::chrono::seconds(10)));
    // The second request waits in the queue behind the first; after cancel
    // its completion must never run.
    ASSERT_TRUE(
        MessageHandler::SendAsyncMsg(L"Busy", L"Second", req, completion, &completions, L"2"));
    MessageFrameWork::System().CancelAsyncCompletions(&completions);
    release.set();
    EXPECT_TRUE(MessageFrameWork::System().RemoveWorker(L"Busy", 0));
    names_.clear();
    EXPECT_EQ(completions.load(), 0);
    EXPECT_FALSE(MessageFrameWork::System().RemoveWorker(L"Busy", 0));
}

TEST_F(MessagingTest, IsWorkerInstalledWaitsForARegistration) {
    EXPECT_FALSE(MessageFrameWork::System().IsWorkerInstalled(L"Late", 0));
    std::thread adder([&] { add(L"Late", [](auto&, auto&, auto&) { return true; }); });
    EXPECT_TRUE(MessageFrameWork::System().IsWorkerInstalled(L"Late", 10000));
    adder.join();
}

}  // namespace
}  // namespace CORE
