// The event logger against a stand-in "System" worker: which events reach
// the event writer, with which type code and text, and the bad input.

#include "events/EventLogger.h"
#include "support/StubWorker.h"

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

class EventLoggerTest : public ::testing::Test {
protected:
    EventLoggerTest() {
        attributes_.set(L"MachineName", L"vm7");
        CORE::setLogLevel(0);
        CORE::addLogSink(log_);
    }
    ~EventLoggerTest() override { CORE::removeLogSink(log_); }

    // The request the writer got for `bag`, recorded successfully.
    CORE::PropertyBag written(const CORE::PropertyBag& bag) {
        EXPECT_TRUE(logger_.RecordEvent(bag));
        auto m = system_.nextMessage(0ms);  // RecordEvent waited for the writer
        EXPECT_TRUE(m && m->operation == L"WriteWindowsEvent");
        return m ? m->request : CORE::PropertyBag();
    }
    std::string text(const CORE::PropertyBag& bag) {
        return CORE::toUtf8(written(bag).get(L"text", L""));
    }
    bool logged(int level, const std::string& text) const {
        const auto records = log_->records();
        return std::any_of(records.begin(), records.end(),
                           [&](const auto& r) { return r.level == level && r.text == text; });
    }

    std::shared_ptr<CORE::CaptureSink> log_ = std::make_shared<CORE::CaptureSink>();
    CORE::PropertyBag attributes_;
    test::StubWorker system_{L"System"};
    CORE::coreevent abort_;
    EventLogger logger_{abort_};
};

TEST_F(EventLoggerTest, WarningsErrorsAndCertificateSuccessesAreWrittenWithTheirTypeCode) {
    attributes_.set(L"Description", L"RENAME FAILED");
    for (const auto& [type, code] : std::initializer_list<std::pair<int, int>>{
             {1004, 2}, {1013, 2}, {1014, 1}, {1016, 1}, {1018, 1}, {1015, 4}, {1017, 4}}) {
        const CORE::PropertyBag request = written(event(type, &attributes_));
        ASSERT_EQ(request.size(), 4u) << type;
        EXPECT_EQ(request.getName(0) + L"," + request.getName(1) + L"=" + request.getValue(1) +
                      L"," + request.getName(2) + L"=" + request.getValue(2) + L"," +
                      request.getName(3),
                  L"wType,wCategory=0,wEventID=0,text");
        EXPECT_EQ(request.getInt64(L"wType"), code) << type;
    }
    EXPECT_EQ(text(event(1016, &attributes_)),
              "AGENT_CERTIFICATE_REFRESH_FAILED\n"
              "The agent on machine vm7 failed to refresh its certificates. Cause: RENAME FAILED\n"
              "\nAttributes:\n\tMachineName=vm7\n\tDescription=RENAME FAILED");

    // Other informational events are only published.
    for (int type : {1001, 1002, 1003, 1005, 1006, 1007, 1008, 1009, 1010, 1011, 1012}) {
        EXPECT_TRUE(logger_.RecordEvent(event(type, &attributes_))) << type;
    }
    EXPECT_FALSE(system_.nextMessage(0ms));
}

TEST_F(EventLoggerTest, MissingAndMalformedPartsOfTheText) {
    EXPECT_NE(text(event(1018, &attributes_)).find("swap its certificates. Cause: unknown\n"),
              std::string::npos);
    EXPECT_EQ(text(event(1014, nullptr)),
              "AGENT_LAUNCH_FAILED\nFailed to launch Machine unknown\n\nAttributes:\n");
    EXPECT_TRUE(log_->contains("Event 1014 has no attributes"));

    attributes_.set(L"Type", L"1016");
    attributes_.set(L"ModuleAndEventText", L"x");
    attributes_.setBag(L"Nested", CORE::PropertyBag());
    attributes_.set(L"UserDisplayName", L"Ann");
    EXPECT_EQ(text(event(1004, &attributes_)),
              "AGENT_PENDING_EXPIRED\nThe pending session on machine vm7 for user Ann has expired\n"
              "\nAttributes:\n\tMachineName=vm7\n\tUserDisplayName=Ann");
    EXPECT_TRUE(logged(CORE::kLogWarning,
                       "EventLogger::RecordEvent(): Property (Nested) is an unexpected bag."));

    EXPECT_EQ(EventLogger::FillTemplate("On ${MachineName}, cause ${Description", &attributes_),
              "On vm7, cause ${Description");
    EXPECT_TRUE(logged(CORE::kLogWarning,
                       "EventLogger::RecordEvent(): Invalid Event Viewer message format: On "
                       "${MachineName}, cause ${Description"));
}

TEST_F(EventLoggerTest, BadTypesAndAFailingWriterAreLoggedAndRefused) {
    EXPECT_FALSE(logger_.RecordEvent(CORE::PropertyBag()));
    EXPECT_FALSE(logger_.RecordEvent(event(0, &attributes_)));
    EXPECT_TRUE(logged(CORE::kLogError,
                       "EventLogger::RecordEvent(): Unable to record event without a type."));
    for (int type : {999, 1019}) {
        EXPECT_FALSE(logger_.RecordEvent(event(type, &attributes_)));
        EXPECT_TRUE(
            logged(CORE::kLogWarning,
                   "EventLogger::RecordEvent(): Unexpected event type: " + std::to_string(type)));
    }
    EXPECT_FALSE(system_.nextMessage(0ms));
    EXPECT_EQ(EventLogger::EventTypeName(1019), "MQTT_STATE_1019");

    CORE::MessageFrameWork::System().RemoveWorker(L"System", 0);
    EXPECT_FALSE(logger_.RecordEvent(event(1014, &attributes_)));
    EXPECT_TRUE(logged(CORE::kLogError, "EventLogger::SendEvent(): SendMsg failed: 1168."));
}

}  // namespace
}  // namespace ndpx
