// The metrics file: the latest record of every key, a value that is JSON
// written as JSON (the module's metric is an object that grows fields) and
// any other text as a string, even when it only starts like JSON or nests
// deeper than the JSON reader goes.

#include "host/MetricsFile.h"
#include "support/TempDir.h"

#include <json/reader.h>

#include <gtest/gtest.h>

#include <fstream>

namespace ndpx::host {
namespace {

constexpr int kDataTypeJson = 4;
constexpr int kDataTypeText = 1;

class MetricsFileTest : public ::testing::Test {
protected:
    void send(const std::string& key, const std::string& value, int dataType = kDataTypeText) {
        EXPECT_TRUE(sink_.sendData({key, "ndpx_mqtt", "MQTTMetrics", dataType, value}));
    }

    Json::Value written() const {
        std::ifstream in(file_);
        Json::Value root;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &root, nullptr));
        return root;
    }

    test::TempDir dir_;
    const std::filesystem::path file_ = dir_.path() / "run" / "metrics.json";
    MetricsFile sink_{file_};
};

TEST_F(MetricsFileTest, TheModulesMetricIsAnObjectWithItsCertificateFields) {
    send("MQTTMetrics", R"({"mqttState":{"state":"MQTT_STATE_CONNECTING"}})", kDataTypeJson);
    send("MQTTMetrics",
         R"({"mqttState":{"state":"MQTT_STATE_CONNECTED"},"clientCertificate":)"
         R"({"secondsToExpiry":2591940,"lastRenewal":"2024-05-01T12:00:00Z",)"
         R"("lastRenewalResult":"OK"}})",
         kDataTypeJson);
    const Json::Value root = written();
    ASSERT_EQ(root.size(), 1u) << root.toStyledString();
    const Json::Value& entry = root["MQTTMetrics"];
    EXPECT_EQ(entry["source"].asString(), "ndpx_mqtt");
    EXPECT_EQ(entry["category"].asString(), "MQTTMetrics");
    EXPECT_EQ(entry["dataType"].asInt(), kDataTypeJson);
    ASSERT_TRUE(entry["value"].isObject()) << root.toStyledString();
    EXPECT_EQ(entry["value"]["mqttState"]["state"].asString(), "MQTT_STATE_CONNECTED");
    const Json::Value& cert = entry["value"]["clientCertificate"];
    EXPECT_EQ(cert["secondsToExpiry"].asInt64(), 2591940);
    EXPECT_EQ(cert["lastRenewal"].asString(), "2024-05-01T12:00:00Z");
    EXPECT_EQ(cert["lastRenewalResult"].asString(), "OK");
}

TEST_F(MetricsFileTest, TextThatIsNotJsonAsAWholeStaysAString) {
    const std::vector<std::string> texts = {"MQTT_STATE_CONNECTED",
                                            "2024-05-01T12:00:00Z",
                                            "1.2.3",
                                            R"({"a":1} and more)",
                                            "true story",
                                            "// a note",
                                            "",
                                            std::string(2000, '[')};
    for (std::size_t i = 0; i < texts.size(); ++i) {
        send("text" + std::to_string(i), texts[i]);
    }
    send("count", "42");
    const Json::Value root = written();
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const Json::Value& value = root["text" + std::to_string(i)]["value"];
        EXPECT_TRUE(value.isString()) << texts[i] << ": " << value.toStyledString();
        EXPECT_EQ(value.asString(), texts[i]);
    }
    EXPECT_TRUE(root["count"]["value"].isInt()) << root.toStyledString();
    EXPECT_EQ(root["count"]["value"].asInt(), 42);
}

}  // namespace
}  // namespace ndpx::host
