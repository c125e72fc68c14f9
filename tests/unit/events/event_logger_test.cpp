// The event logger against a stand-in "System" worker: which events reach
// the event writer, with which type code and text, and the bad input.

#include "events/EventLogger.h"
#include "support/StubWorker.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>
#include <mfw/log.h>

#include <gtest/gtest.h>

namespace ndpx {
namespace {

using namespace std::chrono_literals;

CORE::PropertyBag event(int type, const CORE::PropertyBag* attributes) {
    CORE::PropertyBag bag;
    bag.setInt(L"Type", type);
    if (attributes != nullptr) {
        bag.setBag(L"attributes", *attributes);
    }
    return bag;
}

CORE::PropertyBag machine(const wchar_t* description = nullptr) {
    CORE::PropertyBag attributes;
    attributes.set(L"MachineName", L"vm7");
    if (description != nullptr) {
        attributes.set(L"Description", description);
    }
    return attributes;
}

class EventLoggerTest : public ::testing::Test {
protected:
    EventLoggerTest() {
        savedLevel_ = CORE::logLevel();
        CORE::setLogLevel(0);
        CORE::addLogSink(log_);
    }
    ~EventLoggerTest() override {
        CORE::removeLogSink(log_);
        CORE::setLogLevel(savedLevel_);
    }

    // The request the writer received for `bag`, recorded successfully.
    CORE::PropertyBag written(const CORE::PropertyBag& bag) {
        test::StubWorker system(L"System");
        EXPECT_TRUE(logger_.RecordEvent(bag));
        auto m = system.nextMessage(0ms);
        if (!m) {
            ADD_FAILURE() << "nothing written";
            return {};
        }
        EXPECT_EQ(m->operation, L"WriteWindowsEvent");
        return m->request;
    }
    bool logged(int level, const std::string& text) const {
        for (const auto& r : log_->records()) {
            if (r.level == level && r.text == text) {
                return true;
            }
        }
        return false;
    }

    std::shared_ptr<CORE::CaptureSink> log_ = std::make_shared<CORE::CaptureSink>();
    int savedLevel_ = 0;
    CORE::coreevent abort_;
    EventLogger logger_{abort_};
};

TEST_F(EventLoggerTest, WarningsErrorsAndCertificateSuccessesAreWrittenWithTheirTypeCode) {
    const auto attributes = machine(L"RENAME FAILED");
    const std::pair<int, int> expected[] = {{1004, 2}, {1013, 2}, {1014, 1}, {1016, 1},
                                            {1018, 1}, {1015, 4}, {1017, 4}};
    for (const auto& [type, code] : expected) {
        const CORE::PropertyBag request = written(event(type, &attributes));
        ASSERT_EQ(request.size(), 4u) << type;
        EXPECT_EQ(request.getName(0), L"wType");
        EXPECT_EQ(request.getInt64(L"wType"), code) << type;
        EXPECT_EQ(request.getName(1), L"wCategory");
        EXPECT_EQ(request.getValue(1), L"0");
        EXPECT_EQ(request.getName(2), L"wEventID");
        EXPECT_EQ(request.getValue(2), L"0");
        EXPECT_EQ(request.getName(3), L"text");
    }
    EXPECT_EQ(CORE::toUtf8(written(event(1016, &attributes)).get(L"text", L"")),
              "AGENT_CERTIFICATE_REFRESH_FAILED\n"
              "The agent on machine vm7 failed to refresh its certificates. Cause: RENAME FAILED\n"
              "\nAttributes:\n\tMachineName=vm7\n\tDescription=RENAME FAILED");
}

TEST_F(EventLoggerTest, OtherInformationalEventsAreNotWritten) {
    test::StubWorker system(L"System");
    const auto attributes = machine();
    for (int type = 1001; type <= 1012; ++type) {
        if (type != 1004) {
            EXPECT_TRUE(logger_.RecordEvent(event(type, &attributes))) << type;
        }
    }
    ASSERT_TRUE(logger_.RecordEvent(event(1017, &attributes)));
    // RecordEvent waits for the writer: the first request is the last event's.
    const auto m = system.nextMessage(0ms);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->request.getInt64(L"wType"), 4);
    EXPECT_FALSE(system.nextMessage(0ms));
}

TEST_F(EventLoggerTest, MissingAndMalformedPartsOfTheText) {
    const auto noCause = machine();
    EXPECT_NE(CORE::toUtf8(written(event(1018, &noCause)).get(L"text", L""))
                  .find("swap its certificates. Cause: unknown\n"),
              std::string::npos);

    EXPECT_EQ(CORE::toUtf8(written(event(1014, nullptr)).get(L"text", L"")),
              "AGENT_LAUNCH_FAILED\nFailed to launch Machine unknown\n\nAttributes:\n");
    EXPECT_TRUE(log_->contains("Event 1014 has no attributes"));

    CORE::PropertyBag odd = machine();
    odd.set(L"Type", L"1016");
    odd.set(L"ModuleAndEventText", L"x");
    odd.setBag(L"Nested", machine());
    odd.set(L"UserDisplayName", L"Ann");
    EXPECT_EQ(CORE::toUtf8(written(event(1004, &odd)).get(L"text", L"")),
              "AGENT_PENDING_EXPIRED\nThe pending session on machine vm7 for user Ann has expired\n"
              "\nAttributes:\n\tMachineName=vm7\n\tUserDisplayName=Ann");
    EXPECT_TRUE(logged(CORE::kLogWarning,
                       "EventLogger::RecordEvent(): Property (Nested) is an unexpected bag."));

    EXPECT_EQ(EventLogger::FillTemplate("On ${MachineName}, cause ${Description", &odd),
              "On vm7, cause ${Description");
    EXPECT_TRUE(logged(CORE::kLogWarning,
                       "EventLogger::RecordEvent(): Invalid Event Viewer message format: On "
                       "${MachineName}, cause ${Description"));
}

TEST_F(EventLoggerTest, BadTypesAndAFailingWriterAreLoggedAndRefused) {
    test::StubWorker system(L"System");
    const auto attributes = machine();
    EXPECT_FALSE(logger_.RecordEvent(CORE::PropertyBag()));
    EXPECT_FALSE(logger_.RecordEvent(event(0, &attributes)));
    EXPECT_TRUE(logged(CORE::kLogError,
                       "EventLogger::RecordEvent(): Unable to record event without a type."));
    for (int type : {999, 1019}) {
        EXPECT_FALSE(logger_.RecordEvent(event(type, &attributes)));
        EXPECT_TRUE(
            logged(CORE::kLogWarning,
                   "EventLogger::RecordEvent(): Unexpected event type: " + std::to_string(type)));
    }
    EXPECT_FALSE(system.nextMessage(0ms));
    EXPECT_EQ(EventLogger::EventTypeName(1019), "MQTT_STATE_1019");
    EXPECT_EQ(EventLogger::EventTypeName(1013), "AGENT_APPLICATION_LAUNCH_FAILED");
}

// A writer that holds every request until released.
class StuckWriter {
public:
    StuckWriter() {
        CORE::MessageFrameWork::System().AddWorkerEx(&make, this, L"System", L"stuck", 0, nullptr);
    }
    ~StuckWriter() {
        release_.set();
        CORE::MessageFrameWork::System().RemoveWorker(L"System", 0);
    }

private:
    struct Op : CORE::WorkItem {
        explicit Op(CORE::coreevent& release) : release_(release) {}
        bool handleMessage(const std::wstring&, CORE::PropertyBag&, CORE::PropertyBag&) override {
            return release_.wait(30s);
        }
        CORE::coreevent& release_;
    };
    static std::unique_ptr<CORE::WorkItem> make(void* self) {
        return std::make_unique<Op>(static_cast<StuckWriter*>(self)->release_);
    }
    CORE::coreevent release_;
};

TEST_F(EventLoggerTest, AWriterThatFailsOrHangsGivesFalseAndAStoppingLoggerDoesNotWait) {
    const auto attributes = machine();
    EXPECT_FALSE(logger_.RecordEvent(event(1014, &attributes)));  // no writer at all
    EXPECT_TRUE(logged(CORE::kLogError, "EventLogger::SendEvent(): SendMsg failed: 1168."));

    StuckWriter stuck;
    abort_.set();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(logger_.RecordEvent(event(1014, &attributes)));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_TRUE(logged(CORE::kLogError, "EventLogger::SendEvent(): SendMsg failed: 1115."));
}

}  // namespace
}  // namespace ndpx
