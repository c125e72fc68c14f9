// The certificate monitor in virtual time, with a real certificate store and
// a host that plays the control plane (token answers) and the credential
// service (signing the CSR with the test CA).

#include "CertFixture.h"
#include "certs/CertMonitor.h"
#include "certs/CertificateUtil.h"
#include "certs/pairingConfig.h"
#include "config/MqttManagerUtil.h"
#include "config/mqttConfig.h"
#include "support/ManualTimeSource.h"
#include "support/WaitUntil.h"

#include <mfw/corestring.h>

#include <atomic>
#include <chrono>
#include <set>

namespace ndpx::certs::test {
namespace {

using namespace std::chrono_literals;
using ndpx::test::kNodeManagerKey;

constexpr const char* kIdentity = "e1t3_vm7";

// Plays the control plane and the credential service.
class FakeHost : public CertMonitorHost {
public:
    explicit FakeHost(devca::CertificateAuthority& ca) : ca_(ca) {}

    bool publishCredentialsRequest(const Json::Value& request) override {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
        changed_.notify_all();
        return true;
    }
    bool requestCredentials(const std::string&, const std::string&, const std::string& otp,
                            const std::string& csrBase64, std::string& response,
                            CORE::coreevent&) override {
        if (otp != "otp-1" || failExchange) {
            return false;
        }
        const auto csr = CORE::base64Decode(csrBase64);
        const auto signedCert =
            ca_.signCsr(std::string(csr->begin(), csr->end()), issuedTo.value_or(kIdentity),
                        {-1h, std::chrono::hours(24 * 90)});
        Json::Value r;
        r["agentBootstrapTopic"] = "desktop/bootstrap/renewed";
        r["mqttServerHost"] = "renewed.example";
        r["mqttServerPort"] = "8883";
        r["wsEnabled"] = false;
        r["caCrt"] = CORE::base64Encode(ca_.certPem());
        r["clientCrt"] = CORE::base64Encode(signedCert->certPem);
        response = MqttManagerUtil::writeCompact(r);
        return true;
    }
    bool brokerAccepts(const std::string&, const std::string&, CORE::coreevent&) override {
        return brokerAcceptsPending;
    }
    CORE::Mutex& pairingLock() override { return pairingLock_; }
    void certificateSwapped() override { ++swaps; }

    bool waitRequests(std::size_t n) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 10s, [&] { return requests_.size() >= n; });
    }
    Json::Value lastRequest() {
        std::lock_guard lock(mutex_);
        return requests_.back();
    }

    std::atomic<bool> brokerAcceptsPending{true};
    std::atomic<bool> failExchange{false};
    std::optional<std::string> issuedTo;
    std::atomic<int> swaps{0};

private:
    devca::CertificateAuthority& ca_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Json::Value> requests_;
    CORE::Mutex pairingLock_;
};

// The test's store, refusing to write the values named in `refuse` as a full
// disk refuses every write.
class RefusingStore : public platform::SettingsStore {
public:
    explicit RefusingStore(std::shared_ptr<platform::SettingsStore> inner)
        : inner_(std::move(inner)) {}
    void refuse(std::set<std::string> names) {
        std::lock_guard lock(mutex_);
        refused_ = std::move(names);
    }

    std::optional<platform::SettingValue> get(std::string_view key,
                                              std::string_view name) override {
        return inner_->get(key, name);
    }
    bool set(std::string_view key, std::string_view name,
             const platform::SettingValue& value) override {
        {
            std::lock_guard lock(mutex_);
            if (refused_.count(std::string(name)) != 0) {
                return false;
            }
        }
        return inner_->set(key, name, value);
    }
    bool remove(std::string_view key, std::string_view name) override {
        return inner_->remove(key, name);
    }
    bool removeKey(std::string_view key) override { return inner_->removeKey(key); }
    bool createKey(std::string_view key) override { return inner_->createKey(key); }
    bool keyExists(std::string_view key) override { return inner_->keyExists(key); }
    std::vector<std::pair<std::string, platform::SettingValue>> listValues(
        std::string_view key) override {
        return inner_->listValues(key);
    }
    std::vector<std::string> listSubkeys(std::string_view key) override {
        return inner_->listSubkeys(key);
    }
    std::string lastWriteError() override { return "disk full"; }
    std::uint64_t changeCounter() override { return inner_->changeCounter(); }

private:
    std::shared_ptr<platform::SettingsStore> inner_;
    std::mutex mutex_;
    std::set<std::string> refused_;
};

Json::Value token(const char* otp = "otp-1", const char* url = "https://hub.example/otp") {
    Json::Value t(Json::objectValue);
    t["otp"] = otp;
    t["nexHubUrl"] = url;
    return t;
}

class CertMonitorTest : public CertTest {
protected:
    CertMonitorTest() {
        cfg_->setAgentIdentity(kIdentity);
        cfg_->setVmId("vm7");
        // Certificates are issued against the real clock: virtual time
        // starts there.
        clock_.setSystemTime(std::chrono::system_clock::now());
    }
    ~CertMonitorTest() override { monitor_.Stop(); }

    // A current client certificate with `left` of its validity to go.
    void current(std::chrono::seconds left) {
        const Client c = client(kIdentity, {-1h, 1h + left});
        ASSERT_TRUE(certificates_->StoreCertificates(false, c.issued.certPem,
                                                     pki().issuing.certPem(), c.blob, "current"));
    }
    // Moves virtual time by a whole check interval once the thread waits.
    void nextCheck() {
        ASSERT_TRUE(clock_.awaitWaiters(1));
        clock_.advance(24h);
    }
    bool logged(const std::string& line, std::size_t times = 1) {
        return reg_.log().waitFor(line, 10s, times);
    }
    std::string pendingCn() {
        ClientCredentials pending;
        if (!certificates_->RetrieveCertificates(true, "", pending)) {
            return {};
        }
        return cnOf(x509FromPem(pending.clientCertPem).get());
    }

    ndpx::test::ManualTimeSource clock_;
    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    std::shared_ptr<CertificateUtil> certificates_ = std::make_shared<CertificateUtil>(store_);
    FakeHost host_{pki().issuing};
    CertMonitor monitor_{host_, [this] { return cfg_; }, certificates_, clock_};
};

// With the defaults (a check a day, 30 days' notice) a certificate with 20
// days left gets a pending certificate at once, and is swapped only in the
// last day; a check with nothing to do leaves both alone.
TEST_F(CertMonitorTest, TwentyDaysLeftGetsAPendingCertificateSwappedInTheLastDay) {
    current(std::chrono::hours(24 * 20 - 1));  // an hour short: clear of second rounding
    ASSERT_TRUE(monitor_.Start());
    ASSERT_TRUE(host_.waitRequests(1));
    const Json::Value request = host_.lastRequest();
    EXPECT_EQ(request["agentIdentity"], kIdentity);
    EXPECT_EQ(request["vmId"], "vm7");
    EXPECT_EQ(request["reason"], "expiring");
    EXPECT_TRUE(request["certificateNotAfter"].isString());
    monitor_.HandleOTPTokenResponseMessage(token());
    ASSERT_TRUE(logged("Successfully generated a pending cert."));
    EXPECT_EQ(pendingCn(), kIdentity);
    ASSERT_TRUE(logged("Current certificate is valid, checks complete."));
    EXPECT_EQ(host_.swaps.load(), 0);
    EXPECT_EQ(cfg_->store().get(kNodeManagerKey, kPendingEndpointUrlValue)->text,
              "ssl://renewed.example:8883");

    int swapDay = 0;
    for (int day = 1; day <= 21 && swapDay == 0; ++day) {
        nextCheck();
        ASSERT_TRUE(reg_.log().waitFor("Will check certificate in", 10s, day + 1));
        swapDay = host_.swaps.load() > 0 ? day : 0;
    }
    // Day 19: 23 hours left, so it would lapse before the next check.
    EXPECT_EQ(swapDay, 19);
    EXPECT_EQ(host_.swaps.load(), 1);
    EXPECT_TRUE(logged("Client certificate will expire before next cert check."));
    EXPECT_TRUE(logged("Successfully swapped the current and pending certificates."));
    EXPECT_EQ(host_.waitRequests(1), true);  // no second request was needed
    // The renewed endpoint became current with the certificate.
    EXPECT_EQ(cfg_->store().get(kNodeManagerKey, kEndpointUrlValue)->text,
              "ssl://renewed.example:8883");
    EXPECT_EQ(pendingCn(), "");
    ASSERT_TRUE(monitor_.lastRenewal());
    EXPECT_EQ(monitor_.lastRenewal()->result, "swapped");
    const auto left = monitor_.secondsToExpiry();
    ASSERT_TRUE(left);
    EXPECT_GT(*left, 24 * 3600 * 60);  // 90 days, 19 of them gone
    // Counted down from what was read, and read again after the re-read time.
    clock_.advance(std::chrono::seconds(CertMonitor::kExpiryRereadSeconds - 1));
    EXPECT_EQ(monitor_.secondsToExpiry(), *left - (CertMonitor::kExpiryRereadSeconds - 1));
    clock_.advance(2s);
    EXPECT_EQ(monitor_.secondsToExpiry(), *left - (CertMonitor::kExpiryRereadSeconds + 1));
}

// A failed check (no certificate at all) checks again after a tenth of the
// interval: 2.16 to 2.4 hours with the defaults.
TEST_F(CertMonitorTest, AFailedCheckShortensTheNextWaitToATenth) {
    ASSERT_TRUE(monitor_.Start());
    ASSERT_TRUE(logged("Failed to do certificate check, will retry"));
    ASSERT_TRUE(logged("Will check certificate in"));
    const std::string line = reg_.log().lines().back();
    const auto seconds = std::stoul(line.substr(line.find(" in ") + 4));
    EXPECT_GE(seconds, 7776u);
    EXPECT_LE(seconds, 8640u);
}

// A stop while the monitor waits for its token ends the wait at once and is
// not reported as a failed renewal.
TEST_F(CertMonitorTest, AStopWhileWaitingForTheTokenIsNoFailedRenewal) {
    current(20 * 24h);
    ASSERT_TRUE(monitor_.Start());
    ASSERT_TRUE(host_.waitRequests(1));
    EXPECT_TRUE(monitor_.Stop());
    EXPECT_TRUE(logged("CertMonitor::IssueOTPTokenRequest(): Stopping"));
    EXPECT_FALSE(monitor_.lastRenewal());
}

// Token answers: a second within the repeat interval is ignored; missing or
// empty fields fail the refresh; a trigger while the thread is busy (here:
// waiting for the answer) is dropped with its line; the credential service
// failing leaves the current certificate and reports the refresh failed.
TEST_F(CertMonitorTest, TokensRepeatsBadFieldsBusyTriggersAndServiceFailures) {
    current(std::chrono::hours(24 * 20));
    host_.failExchange = true;
    ASSERT_TRUE(monitor_.Start());
    ASSERT_TRUE(host_.waitRequests(1));
    monitor_.TriggerRefresh(true);
    EXPECT_TRUE(logged("CertMonitor::TriggerRefresh(): Certificate monitor thread not running."));
    monitor_.HandleOTPTokenResponseMessage(token());
    monitor_.HandleOTPTokenResponseMessage(token());
    EXPECT_TRUE(logged("Recently processed OTP token, ignoring"));
    ASSERT_TRUE(logged("Failed to request new credentials from hub."));
    ASSERT_TRUE(logged("Unable to generate a pending certificate."));
    EXPECT_EQ(pendingCn(), "");
    ASSERT_TRUE(monitor_.lastRenewal());
    EXPECT_EQ(monitor_.lastRenewal()->result, "credential service error");

    clock_.advance(61s);  // past the repeat interval
    Json::Value bad(Json::objectValue);
    bad["otp"] = 7;
    bad["nexHubUrl"] = "";
    monitor_.HandleOTPTokenResponseMessage(bad);
    EXPECT_TRUE(logged("OTP field is empty."));
    EXPECT_TRUE(logged("OTP NexHub URL field is empty."));
    EXPECT_TRUE(logged("forceCertSwap not present."));
}

// A pending certificate the broker refuses is not swapped in: the current
// one stays and the swap is reported failed; the next check tries again.
TEST_F(CertMonitorTest, APendingCertificateIsSwappedOnlyWhenTheBrokerAcceptsIt) {
    current(std::chrono::hours(12));
    host_.brokerAcceptsPending = false;
    ASSERT_TRUE(monitor_.Start());
    ASSERT_TRUE(host_.waitRequests(1));
    monitor_.HandleOTPTokenResponseMessage(token());
    ASSERT_TRUE(logged("The broker does not accept the pending certificate"));
    EXPECT_EQ(host_.swaps.load(), 0);
    EXPECT_EQ(pendingCn(), kIdentity);
    // Recorded just after the line is logged.
    EXPECT_TRUE(ndpx::test::waitUntil([&] {
        const auto last = monitor_.lastRenewal();
        return last && last->result == "pending certificate refused by the broker";
    }));

    host_.brokerAcceptsPending = true;
    nextCheck();
    EXPECT_TRUE(ndpx::test::waitUntil([&] { return host_.swaps.load() == 1; }));
    EXPECT_EQ(pendingCn(), "");
}

// A pending certificate issued to another identity is replaced.
TEST_F(CertMonitorTest, APendingCertificateOfAnotherIdentityIsReplaced) {
    current(std::chrono::hours(24 * 20));
    const Client other = client("someone-else");
    ASSERT_TRUE(certificates_->StoreCertificates(true, other.issued.certPem,
                                                 pki().issuing.certPem(), other.blob, "other"));
    ASSERT_TRUE(monitor_.Start());
    ASSERT_TRUE(logged("Pending Cert CN no longer matches Agent Identity."));
    ASSERT_TRUE(host_.waitRequests(1));
    EXPECT_EQ(host_.lastRequest()["reason"], "pending certificate unusable");
    monitor_.HandleOTPTokenResponseMessage(token());
    ASSERT_TRUE(logged("Successfully generated a pending cert."));
    EXPECT_EQ(pendingCn(), kIdentity);
}

// New IDs: the pending certificate of the old identity is replaced by one
// for the new identity (the request names both), which is swapped in at once
// and makes the new IDs current with it. The token comes within a minute of
// the previous one and is still taken: it answers the move's own request.
TEST_F(CertMonitorTest, ANewIdentityGetsItsCertificateAndBecomesCurrentWithIt) {
    current(std::chrono::hours(24 * 20));
    ASSERT_TRUE(monitor_.Start());
    ASSERT_TRUE(host_.waitRequests(1));
    monitor_.HandleOTPTokenResponseMessage(token());
    ASSERT_TRUE(logged("Current certificate is valid, checks complete."));
    EXPECT_EQ(pendingCn(), kIdentity);

    host_.issuedTo = cfg_->beginIdentityMove("e2", "t9");
    monitor_.IdentityMoved();
    ASSERT_TRUE(host_.waitRequests(2));
    const Json::Value request = host_.lastRequest();
    EXPECT_EQ(request["agentIdentity"], kIdentity);
    EXPECT_EQ(request["pendingAgentIdentity"], "e2t9_vm7");
    EXPECT_EQ(request["reason"], "identity change");
    monitor_.HandleOTPTokenResponseMessage(token());
    ASSERT_TRUE(ndpx::test::waitUntil([&] { return host_.swaps.load() == 1; }));
    EXPECT_EQ(cfg_->getAgentIdentity(), "e2t9_vm7");
    EXPECT_EQ(cfg_->getEdgeId(), "e2");
    EXPECT_EQ(cfg_->getShortTemplateId(), "t9");
    EXPECT_EQ(cfg_->getVmId(), "vm7");
    EXPECT_FALSE(cfg_->movingToIdentity());
    ClientCredentials now;
    ASSERT_TRUE(certificates_->RetrieveCertificates(false, "e2t9_vm7", now));
}

// A swap the settings store cannot record does not happen: the current
// certificate stays. One whose pairing values cannot be written after the
// certificate store swapped keeps its record, and the next start completes it.
TEST_F(CertMonitorTest, ASwapThatCannotBeRecordedWaitsAndOneCutShortIsCompletedAtStart) {
    auto refusing = std::make_shared<RefusingStore>(reg_.shared());
    refusing->refuse({"mqtt_CertSwapIntent"});
    cfg_ = std::make_shared<mqttConfig>(refusing);
    current(std::chrono::hours(12));
    ClientCredentials before;
    ASSERT_TRUE(certificates_->RetrieveCertificates(false, kIdentity, before));
    ASSERT_TRUE(monitor_.Start());
    ASSERT_TRUE(host_.waitRequests(1));
    monitor_.HandleOTPTokenResponseMessage(token());
    ASSERT_TRUE(logged("Unable to record the swap in the settings store: disk full"));
    ASSERT_TRUE(logged("Failed to activate pending certificate"));
    EXPECT_EQ(host_.swaps.load(), 0);
    EXPECT_EQ(pendingCn(), kIdentity);
    ClientCredentials still;
    ASSERT_TRUE(certificates_->RetrieveCertificates(false, kIdentity, still));
    EXPECT_EQ(still.clientCertPem, before.clientCertPem);

    refusing->refuse({kEndpointUrlValue});
    nextCheck();
    ASSERT_TRUE(ndpx::test::waitUntil([&] { return host_.swaps.load() == 1; }));
    EXPECT_EQ(pendingCn(), "");
    EXPECT_TRUE(cfg_->store().get(kNodeManagerKey, "mqtt_CertSwapIntent"));
    EXPECT_FALSE(cfg_->store().get(kNodeManagerKey, kEndpointUrlValue));

    refusing->refuse({});
    monitor_.RepairInterruptedSwap();
    EXPECT_TRUE(logged("Completed a certificate swap that was interrupted"));
    EXPECT_EQ(cfg_->store().get(kNodeManagerKey, kEndpointUrlValue)->text,
              "ssl://renewed.example:8883");
    EXPECT_FALSE(cfg_->store().get(kNodeManagerKey, "mqtt_CertSwapIntent"));
}

// A crash between the certificate store's swap and the pairing values': the
// next start completes it, and with it a move to new IDs. A swap that never
// began is forgotten.
TEST_F(CertMonitorTest, AnInterruptedSwapIsCompletedOrForgottenAtStart) {
    current(std::chrono::hours(24 * 20));
    const std::string moved = cfg_->beginIdentityMove("e2", "t9");
    const Client renewed = client(moved);
    ASSERT_TRUE(certificates_->StoreCertificates(true, renewed.issued.certPem,
                                                 pki().issuing.certPem(), renewed.blob, "renewed"));
    cfg_->store().set(kNodeManagerKey, kPendingEndpointUrlValue,
                      platform::SettingValue::ofString("ssl://renewed.example:8883"));
    cfg_->store().set(kNodeManagerKey, kPendingBootstrapTopicValue,
                      platform::SettingValue::ofString("desktop/bootstrap/renewed"));
    cfg_->store().set(kNodeManagerKey, "mqtt_CertSwapIntent",
                      platform::SettingValue::ofString("no such certificate"));
    monitor_.RepairInterruptedSwap();
    EXPECT_TRUE(logged("A certificate swap was interrupted before it began"));
    EXPECT_FALSE(cfg_->store().get(kNodeManagerKey, kEndpointUrlValue));
    EXPECT_EQ(cfg_->getAgentIdentity(), kIdentity);

    cfg_->store().set(kNodeManagerKey, "mqtt_CertSwapIntent",
                      platform::SettingValue::ofString(thumbprintOf(renewed.issued.cert.get())));
    ASSERT_TRUE(certificates_->ActivatePendingCertificate());  // the crash came after this
    monitor_.RepairInterruptedSwap();
    EXPECT_TRUE(logged("Completed a certificate swap that was interrupted"));
    EXPECT_EQ(cfg_->store().get(kNodeManagerKey, kEndpointUrlValue)->text,
              "ssl://renewed.example:8883");
    EXPECT_FALSE(cfg_->store().get(kNodeManagerKey, kPendingEndpointUrlValue));
    EXPECT_FALSE(cfg_->store().get(kNodeManagerKey, "mqtt_CertSwapIntent"));
    EXPECT_EQ(cfg_->getAgentIdentity(), moved);
}

}  // namespace
}  // namespace ndpx::certs::test
