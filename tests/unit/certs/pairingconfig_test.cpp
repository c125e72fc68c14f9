// Pairing data: the credentials response checked member by member in its
// order, the endpoint URL forms, the endpoint and topic in a real settings
// store, and certificates through a real certificate store.

#include "certs/pairingConfig.h"
#include "certs/CertificateUtil.h"
#include "config/MqttManagerUtil.h"
#include "config/mqttConfig.h"
#include "devca/DevCa.h"
#include "support/TestRegistry.h"

#include <mfw/corestring.h>

#include <gtest/gtest.h>

namespace ndpx {
namespace {

using test::kNodeManagerKey;
using test::TestRegistry;

constexpr const char* kCaPem = "-----BEGIN CERTIFICATE-----\nCA\n-----END CERTIFICATE-----\n";
constexpr const char* kClientPem =
    "-----BEGIN CERTIFICATE-----\nCLIENT\n-----END CERTIFICATE-----\n";

Json::Value goodResponse(bool webSocket = false) {
    Json::Value r;
    r["agentBootstrapTopic"] = "desktop/E1ST_VM9/bootstrap";
    r["mqttServerHost"] = "h";
    r["mqttServerPort"] = "8443";
    r["wsEnabled"] = webSocket;
    r["caCrt"] = CORE::base64Encode(kCaPem);
    r["clientCrt"] = CORE::base64Encode(kClientPem);
    return r;
}

class PairingConfigTest : public ::testing::Test {
protected:
    CredentialsStatus init(const Json::Value& response) {
        return pairing_.InitCredentialsFromJSON(MqttManagerUtil::writeCompact(response));
    }
    std::string value(const char* name) {
        const auto v = reg_.store().get(kNodeManagerKey, name);
        return v ? v->asText() : std::string();
    }
    // Lines of pairingConfig, given without the class prefix.
    std::size_t logged(const std::string& line) {
        return reg_.log().count("pairingConfig::" + line);
    }
    TestRegistry reg_;
    mqttConfig cfg_{reg_.shared()};
    pairingConfig pairing_{cfg_};
};

TEST_F(PairingConfigTest, ResponseGivesEndpointInBothFormsTopicAndDecodedCertificates) {
    ASSERT_EQ(init(goodResponse(false)), CredentialsStatus::Success);
    EXPECT_EQ(pairing_.endpointUrl(), "ssl://h:8443");
    EXPECT_EQ(pairing_.bootstrapTopic(), "desktop/E1ST_VM9/bootstrap");
    EXPECT_EQ(pairing_.caCert() + pairing_.clientCert(), std::string(kCaPem) + kClientPem);
    ASSERT_EQ(init(goodResponse(true)), CredentialsStatus::Success);
    EXPECT_EQ(pairing_.endpointUrl(), "wss://h:8443/mqtt");

    // Bad base64 in either certificate fails and keeps the earlier data.
    for (const char* key : {"caCrt", "clientCrt"}) {
        Json::Value bad = goodResponse();
        bad[key] = "%%% not base64 %%%";
        EXPECT_EQ(init(bad), CredentialsStatus::BadCertificate) << key;
        EXPECT_EQ(pairing_.endpointUrl(), "wss://h:8443/mqtt");
        EXPECT_EQ(pairing_.clientCert(), kClientPem);
    }
}

TEST_F(PairingConfigTest, ResponseMembersAreCheckedInOrderAndTheFirstMissingOneIsReported) {
    Json::Value error = goodResponse();
    error["error"] = "Forbidden";
    error["status"] = "403";
    error["message"] = "otp already used";
    EXPECT_EQ(init(error), CredentialsStatus::ErrorResponse);  // even with every member present
    EXPECT_EQ(logged("InitCredentialsFromJSON(): Error response found in credentials response. "
                     "Status:403, Error:Forbidden, Message:otp already used"),
              1u);

    // With all of them missing, add them back one at a time: each time the
    // next one in order is the one reported.
    const Json::Value full = goodResponse();
    Json::Value partial(Json::objectValue);
    for (const char* key : {"agentBootstrapTopic", "mqttServerHost", "mqttServerPort", "wsEnabled",
                            "caCrt", "clientCrt"}) {
        reg_.log().clear();
        EXPECT_EQ(init(partial), CredentialsStatus::MissingProperty);
        const char* verb = std::string(key) == "wsEnabled" ? " not set" : " not found";
        EXPECT_EQ(logged(std::string("InitCredentialsFromJSON(): ") + key + " property" + verb +
                         " in JSON"),
                  1u)
            << key;
        partial[key] = full[key];
    }
    Json::Value textFlag = goodResponse();
    textFlag["wsEnabled"] = "true";  // must be a JSON boolean
    EXPECT_EQ(init(textFlag), CredentialsStatus::MissingProperty);
    EXPECT_EQ(pairing_.endpointUrl(), "");  // no failure leaves parsed values behind
    EXPECT_EQ(pairing_.InitCredentialsFromJSON("not json"), CredentialsStatus::NotJson);
}

TEST_F(PairingConfigTest, EndpointDetailsComeFromTheStoredUrl) {
    Json::Value out;
    EXPECT_FALSE(pairing_.populateEndpointDetails(out));  // nothing stored yet
    cfg_.setAgentIdentity("E1ST_VM9");
    reg_.setString(kNodeManagerKey, kEndpointUrlValue, "ssl://h:8883");
    ASSERT_TRUE(pairing_.populateEndpointDetails(out));
    EXPECT_EQ(out["hostname"], "h");
    EXPECT_EQ(out["port"], "8883");
    EXPECT_EQ(out["wsEnabled"], false);
    EXPECT_EQ(out["agentIdentity"], "E1ST_VM9");
    reg_.setString(kNodeManagerKey, kEndpointUrlValue, "wss://[fd00::1]:443/mqtt");
    ASSERT_TRUE(pairing_.populateEndpointDetails(out));
    EXPECT_EQ(out["hostname"], "fd00::1");
    EXPECT_EQ(out["port"], "443");
    EXPECT_EQ(out["wsEnabled"], true);
    for (const char* bad : {"h:8883", "ssl://h", "ssl://:1", "ssl://h:99999", "ssl://fd00::1:1",
                            "ssl://user@h:1", "ssl://[[9[]:8"}) {
        reg_.setString(kNodeManagerKey, kEndpointUrlValue, bad);
        EXPECT_FALSE(pairing_.populateEndpointDetails(out)) << bad;
    }
}

TEST_F(PairingConfigTest, PendingEndpointAndTopicAreActivatedOnce) {
    reg_.setString(kNodeManagerKey, kEndpointUrlValue, "ssl://old:8883");
    reg_.setString(kNodeManagerKey, kPendingEndpointUrlValue, "ssl://new:8883");
    EXPECT_FALSE(pairing_.activatePendingConfig());  // no pending topic: nothing changes
    EXPECT_EQ(value(kEndpointUrlValue), "ssl://old:8883");
    reg_.setString(kNodeManagerKey, kPendingBootstrapTopicValue, "new/topic");
    ASSERT_TRUE(pairing_.activatePendingConfig());
    EXPECT_EQ(value(kEndpointUrlValue), "ssl://new:8883");
    EXPECT_EQ(value(kBootstrapTopicValue), "new/topic");
    EXPECT_FALSE(reg_.store().get(kNodeManagerKey, kPendingEndpointUrlValue));
    EXPECT_FALSE(pairing_.activatePendingConfig());  // nothing pending any more
    EXPECT_EQ(value(kEndpointUrlValue), "ssl://new:8883");
}

// Certificates made by a real CA, kept in the real certificate store under
// the test's root.
class PairingStoreTest : public PairingConfigTest {
protected:
    struct Issued {
        std::string container;
        std::vector<std::uint8_t> keyBlob;
        std::string certPem;
    };
    Issued issue(const std::string& commonName, const std::string& container) {
        Issued out{container, {}, {}};
        std::string keyPem, csrPem;
        EXPECT_TRUE(certs_.GenerateKeyAndCSR(commonName, container, out.keyBlob, keyPem, csrPem));
        const auto signedCert = ca_.signCsr(csrPem);
        EXPECT_TRUE(signedCert);
        out.certPem = signedCert ? signedCert->certPem : "";
        return out;
    }
    Json::Value responseFor(const Issued& issued, const std::string& host) {
        Json::Value r = goodResponse();
        r["mqttServerHost"] = host;
        r["caCrt"] = CORE::base64Encode(ca_.certPem());
        r["clientCrt"] = CORE::base64Encode(issued.certPem);
        return r;
    }
    devca::CertificateAuthority ca_ = devca::CertificateAuthority::createRoot("Pairing Test CA");
    certs::CertificateUtil certs_;
};

TEST_F(PairingStoreTest, CurrentAndPendingPairingDataAreStoredRetrievedAndActivated) {
    // Nothing parsed yet: nothing is stored.
    EXPECT_FALSE(pairing_.StorePairingData(certs_, false, "{C0}", {}));

    const Issued current = issue("E1ST_VM9", "{C1}");
    ASSERT_EQ(init(responseFor(current, "old")), CredentialsStatus::Success);
    ASSERT_TRUE(pairing_.StorePairingData(certs_, false, current.container, current.keyBlob));
    EXPECT_EQ(value(kEndpointUrlValue), "ssl://old:8443");
    EXPECT_EQ(value(kBootstrapTopicValue), "desktop/E1ST_VM9/bootstrap");

    pairingConfig reader(cfg_);  // as after a restart: everything from the stores
    ASSERT_TRUE(reader.RetrievePairingData(certs_, "E1ST_VM9"));
    EXPECT_EQ(reader.clientCert(), current.certPem);
    EXPECT_NE(reader.caCert().find(ca_.certPem()), std::string::npos);
    EXPECT_EQ(reader.endpointUrl(), "ssl://old:8443");
    EXPECT_EQ(reader.bootstrapTopic(), "desktop/E1ST_VM9/bootstrap");
    std::string keyPem;
    ASSERT_TRUE(reader.getSecureClientPrivateKey(certs_, "E1ST_VM9", false, keyPem));
    EXPECT_NE(keyPem.find("PRIVATE KEY-----"), std::string::npos);

    EXPECT_FALSE(reader.RetrievePairingData(certs_, "OTHER_ID"));

    // A renewal arrives as pending data and leaves the current data alone.
    const Issued renewed = issue("E1ST_VM9", "{C2}");
    ASSERT_EQ(init(responseFor(renewed, "new")), CredentialsStatus::Success);
    ASSERT_TRUE(pairing_.StorePairingData(certs_, true, renewed.container, renewed.keyBlob));
    EXPECT_EQ(value(kPendingEndpointUrlValue), "ssl://new:8443");
    ASSERT_TRUE(reader.RetrievePairingData(certs_, "E1ST_VM9"));
    EXPECT_EQ(reader.clientCert(), current.certPem);
    ASSERT_TRUE(reader.RetrievePairingData(certs_, "E1ST_VM9", true));
    EXPECT_EQ(reader.clientCert(), renewed.certPem);

    ASSERT_TRUE(certs_.ActivatePendingCertificate());
    ASSERT_TRUE(pairing_.activatePendingConfig());
    ASSERT_TRUE(reader.RetrievePairingData(certs_, "E1ST_VM9"));
    EXPECT_EQ(reader.clientCert(), renewed.certPem);
    EXPECT_EQ(reader.endpointUrl(), "ssl://new:8443");

    // Endpoint details missing: the certificates alone are not pairing data.
    reg_.store().remove(kNodeManagerKey, kBootstrapTopicValue);
    EXPECT_FALSE(reader.RetrievePairingData(certs_, "E1ST_VM9"));
    for (const auto& line : reg_.log().lines()) {
        EXPECT_EQ(line.find("PRIVATE KEY"), std::string::npos) << line;
    }
}

}  // namespace
}  // namespace ndpx
