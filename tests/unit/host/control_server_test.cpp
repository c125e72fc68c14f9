// The host's control channel over a real local socket: requests bounded in
// size and time, a silent client let go for the next one, a stop that ends a
// wait at once, and the answers to ill-formed and failing requests.

#include "host/ControlServer.h"
#include "host/MetricsFile.h"
#include "support/TempDir.h"

#include <mfw/MessageFrameWork.h>

#include <json/reader.h>

#include <gtest/gtest.h>

namespace ndpx::host {
namespace {

using namespace std::chrono_literals;
using platform::IoResult;

Json::Value parse(const std::string& text) {
    Json::Value v;
    std::istringstream in(text);
    EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr)) << text;
    return v;
}

class ControlServerTest : public ::testing::Test {
protected:
    ControlServerTest() {
        std::string error;
        EXPECT_TRUE(server_.start(error)) << error;
    }
    platform::LocalStream connect() {
        platform::ConnectError why{};
        std::string error;
        auto stream = platform::connectLocal(socket_, why, error);
        EXPECT_TRUE(stream.valid()) << error;
        return stream;
    }
    Json::Value ask(const std::string& line) {
        auto stream = connect();
        EXPECT_EQ(stream.writeAll(line, 2s), IoResult::Ok);
        std::string answer;
        EXPECT_EQ(stream.readLine(answer, 1u << 20, 5s), IoResult::Ok);
        return parse(answer);
    }

    test::TempDir dir_;
    const std::filesystem::path socket_ = dir_.path() / "agentctl.sock";
    ControlServer server_{socket_, std::make_shared<MetricsFile>(dir_.path() / "metrics.json"),
                          ControlLimits{.maxRequestBytes = 64, .readTimeout = 300ms}};
};

TEST_F(ControlServerTest, OversizedSilentAndMalformedRequestsAreAnsweredOrDroppedNotHeld) {
    EXPECT_EQ(std::filesystem::status(socket_).permissions(),
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
    EXPECT_EQ(ask(std::string(100, 'x') + "\n")["error"].asString(),
              "request longer than 64 bytes");
    EXPECT_EQ(ask("[1,2]\n")["error"].asString(), "the request is not a JSON object");

    // A client that says nothing is let go; the next one is served.
    auto silent = connect();
    const auto answer = ask(R"({"request":"reboot"})"
                            "\n");
    EXPECT_FALSE(answer["ok"].asBool());
    EXPECT_EQ(answer["error"].asString(), "unknown request \"reboot\" (known: send, status)");
    std::string none;
    EXPECT_EQ(silent.readLine(none, 64, 2s), IoResult::Closed);
}

TEST_F(ControlServerTest, StopEndsTheWaitForASilentClientAtOnce) {
    // The default read time-out (5 s) is longer than this test may take.
    const auto path = dir_.path() / "patient.sock";
    ControlServer patient(path, nullptr);
    std::string error;
    ASSERT_TRUE(patient.start(error)) << error;
    platform::ConnectError why{};
    auto silent = platform::connectLocal(path, why, error);
    ASSERT_TRUE(silent.valid()) << error;
    const auto before = std::chrono::steady_clock::now();
    patient.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - before, 2s);
    EXPECT_FALSE(std::filesystem::exists(path));
}

class Replier : public CORE::WorkItem {
public:
    bool handleMessage(const std::wstring& op, CORE::PropertyBag& request,
                       CORE::PropertyBag& response) override {
        if (op == L"Fail") {
            CORE::serviceOperation::setReplyError(response, 87, L"bad parameter");
            return false;
        }
        response.setBag(L"ECHO", request);
        return true;
    }
};

TEST(ControlRequests, SendReachesTheWorkerAndReportsItsErrorsAndUnknownWorkers) {
    CORE::MessageFrameWork::System().AddWorkerEx(
        [](void*) -> std::unique_ptr<CORE::WorkItem> { return std::make_unique<Replier>(); },
        nullptr, L"Replier", L"test", 0, nullptr);
    CORE::coreevent abort;
    const auto answer = [&](const std::string& text) {
        return answerControlRequest(parse(text), nullptr, abort, 5000);
    };
    const auto ok = answer(
        R"({"request":"send","worker":"Replier","operation":"Go","bag":{"A":"1","N":{"B":"2"}}})");
    EXPECT_TRUE(ok["ok"].asBool());
    EXPECT_EQ(ok["reply"]["ECHO"]["N"]["B"].asString(), "2");

    const auto failed = answer(R"({"request":"send","worker":"Replier","operation":"Fail"})");
    EXPECT_FALSE(failed["ok"].asBool());
    EXPECT_EQ(failed["result"].asInt(), 87);
    EXPECT_EQ(failed["error"].asString(), "bad parameter");

    const auto unknown = answer(R"({"request":"send","worker":"Nobody","operation":"Go"})");
    EXPECT_EQ(unknown["error"].asString(), "no worker named \"Nobody\" in this host");
    EXPECT_EQ(answer(R"({"request":"send","worker":"Replier","operation":"Go","bag":[1]})")["error"]
                  .asString(),
              "the request's bag is not a JSON object");
    EXPECT_FALSE(answer(R"({"request":"send","worker":7})")["ok"].asBool());
    CORE::MessageFrameWork::System().RemoveWorker(L"Replier", 0);
}

}  // namespace
}  // namespace ndpx::host
