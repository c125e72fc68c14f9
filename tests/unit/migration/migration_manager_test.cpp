// The migration commands against a fake session: every transition and
// refusal, bad input, the old agent's notification on commit, and the
// rollback's removal of the client certificate from the real store.

#include "certs/CertificateUtil.h"
#include "config/mqttConfig.h"
#include "migration/MigrationManager.h"
#include "support/StubWorker.h"
#include "unit/certs/CertFixture.h"

#include <mfw/MessageFrameWork.h>
#include <mfw/corestring.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <utility>
#include <vector>

namespace ndpx::migration {
namespace {

using test::kNodeManagerKey;

struct FakeSession : MigrationSession {
    bool started = false;
    bool connected = true;
    bool stopOk = true;
    bool registerOk = true;
    int starts = 0, stops = 0, registrations = 0, reverts = 0, wakes = 0;

    bool Start() override { return ++starts, started = true; }
    bool Stop() override {
        ++stops;
        started = started && !stopOk;
        return stopOk;
    }
    bool IsStarted() override { return started; }
    bool IsConnected() override { return connected; }
    void BootstrapWritten() override { ++wakes; }
    bool RegisterMessageTransport() override { return ++registrations, registerOk; }
    void RevertToRequireBootstrap() override { ++reverts; }
};

class MigrationTest : public certs::test::CertTest {
protected:
    struct Answer {
        int result;
        int code;
        std::wstring text;
        std::wstring status;
    };
    Answer send(const std::wstring& type, const std::wstring& bootstrap = {}) {
        CORE::PropertyBag request, reply;
        request.set(L"type", type);
        if (!bootstrap.empty()) {
            request.set(L"bootstrap", bootstrap);
        }
        const int result = migration_.ProcessMigrationMessage(request, reply);
        return {result, static_cast<int>(reply.getInt64(CORE::kReplyErrorCode).value_or(0)),
                reply.get(CORE::kReplyErrorText, L""), reply.get(L"status", L"")};
    }
    void setStatus(MigrationStatus s) { cfg_->setMigrationStatus(static_cast<int>(s)); }
    // Each status refuses `type` with `code` and its text, and stays.
    void expectRefused(const wchar_t* type, int code,
                       std::vector<std::pair<MigrationStatus, std::wstring>> cases) {
        for (const auto& [from, text] : cases) {
            setStatus(from);
            const Answer a = send(type);
            EXPECT_EQ(a.result, 0);
            EXPECT_EQ(a.code, code);
            EXPECT_EQ(a.text, text);
            EXPECT_EQ(status(), static_cast<int>(from));
        }
    }
    int status() { return cfg_->getMigrationStatus(); }

    std::shared_ptr<mqttConfig> cfg_ = std::make_shared<mqttConfig>(reg_.shared());
    std::shared_ptr<certs::CertificateUtil> certificates_ =
        std::make_shared<certs::CertificateUtil>(store_);
    FakeSession session_;
    MigrationManager migration_{session_, [this] { return cfg_; }, certificates_};
};

const std::wstring kSpec = LR"({"shortTemplateId":"st","vmId":"vm1"})";

TEST_F(MigrationTest, BootstrapWritesTheSpecStartsTheSessionAndIsAcceptedOnlyOnce) {
    reg_.setString(kNodeManagerKey, "MS Transport", "JMS");
    EXPECT_EQ(send(L"getstatus").status, L"notstarted");

    EXPECT_EQ(send(L"bootstrap", kSpec).result, 1);
    EXPECT_EQ(session_.starts, 1);
    EXPECT_EQ(certs::test::readFile(mqttConfig::lcmSpecFilePath()), CORE::toUtf8(kSpec));
    EXPECT_EQ(send(L"getstatus").status, L"bootstrap");
    expectRefused(L"bootstrap", kErrorBootstrap,
                  {{MigrationStatus::Bootstrap,
                    L"Migration has already started, unable to "
                    L"bootstrap"}});

    // After a rollback a bootstrap is taken again; a started session is not restarted.
    ASSERT_EQ(send(L"rollback").result, 1);
    session_.started = true;
    EXPECT_EQ(send(L"bootstrap", kSpec).result, 1);
    EXPECT_EQ(session_.starts, 1);
    EXPECT_EQ(session_.wakes, 1);
}

TEST_F(MigrationTest, BadBootstrapsAreRefusedWithTheirCodesAndStatuses) {
    EXPECT_EQ(send(L"bootstrap").code, kErrorInvalidBootstrap);
    EXPECT_EQ(status(), 6);
    EXPECT_EQ(send(L"bootstrap", kSpec).code, kErrorBootstrap);  // 6 is left only by rollback

    setStatus(MigrationStatus::NotStarted);
    const Answer huge = send(L"bootstrap", std::wstring(kMaxBootstrapBytes + 1, L'x'));
    EXPECT_EQ(huge.code, kErrorBootstrap);
    EXPECT_TRUE(reg_.log().contains("is larger than 1048576 bytes"));
    EXPECT_EQ(status(), 0);
    EXPECT_FALSE(std::filesystem::exists(mqttConfig::lcmSpecFilePath()));

    // A directory where the provisioning file belongs: the write fails.
    std::filesystem::create_directories(mqttConfig::lcmSpecFilePath());
    EXPECT_EQ(send(L"bootstrap", kSpec).code, kErrorBootstrap);
    EXPECT_EQ(status(), 7);
    EXPECT_EQ(session_.starts, 0);
}

TEST_F(MigrationTest, UnknownTypesAndAnAgentAlreadyOnMqttAreRefusedWithCodeFive) {
    for (const wchar_t* type : {L"GETSTATUS", L"", L"migrate\nnow"}) {
        const Answer a = send(type);
        EXPECT_EQ(a.code, kErrorRefused) << CORE::toUtf8(type);
        EXPECT_EQ(a.text, L"Unknown migration command type");
    }
    EXPECT_TRUE(reg_.log().contains("Unknown migration command type 'migrate\\x0anow'"));

    reg_.setString(kNodeManagerKey, "MS Transport", "mqtt");
    setStatus(MigrationStatus::Connected);
    for (const wchar_t* type : {L"bootstrap", L"commit", L"rollback", L"GETSTATUS"}) {
        const Answer a = send(type, kSpec);
        EXPECT_EQ(a.code, kErrorRefused) << CORE::toUtf8(type);
        EXPECT_EQ(a.text, L"Already using MQTT as message transport");
    }
    EXPECT_EQ(send(L"getstatus").status, L"connected");
    EXPECT_EQ(status(), 2);
    EXPECT_EQ(session_.starts + session_.stops + session_.registrations, 0);
}

TEST_F(MigrationTest, CommitIsRefusedInEveryStatusButConnectedAndLeavesTheStatus) {
    const std::wstring incomplete = L"Migration not complete. Unable to commit at this time";
    expectRefused(L"commit", kErrorCommit,
                  {{MigrationStatus::CommitFailed, L"Commit failed"},
                   {MigrationStatus::Commit, L"Commit in progress, cannot perform commit"},
                   {MigrationStatus::NotStarted, L"Migration not started, cannot perform commit"},
                   {MigrationStatus::Rollback, L"Rollback in progress, cannot perform commit"},
                   {MigrationStatus::RollbackFailed, L"Rollback failed, cannot perform commit"},
                   {MigrationStatus::Bootstrap, incomplete},
                   {MigrationStatus::BootstrapInvalid, incomplete},
                   {MigrationStatus::BootstrapFailed, incomplete}});
    setStatus(MigrationStatus::CommitComplete);
    EXPECT_EQ(send(L"commit").result, 1);  // already done: success, nothing changes
    EXPECT_EQ(status(), 5);
    EXPECT_EQ(session_.registrations, 0);
}

TEST_F(MigrationTest, CommitRegistersTheTransportAndTellsTheOldAgentWhenItIsInstalled) {
    setStatus(MigrationStatus::Connected);
    session_.connected = false;
    Answer a = send(L"commit");
    EXPECT_EQ(a.text, L"Migration not complete. MQTT is not connected.");
    EXPECT_EQ(status(), 9);
    EXPECT_EQ(session_.registrations, 0);

    setStatus(MigrationStatus::Connected);
    session_.connected = true;
    session_.registerOk = false;
    a = send(L"commit");
    EXPECT_EQ(a.text, L"Migration not complete. Unable to register MQTT as message transport");
    EXPECT_EQ(status(), 9);

    // Without "DaasAgent" the commit completes without a notification.
    setStatus(MigrationStatus::Connected);
    session_.registerOk = true;
    EXPECT_EQ(send(L"commit").result, 1);
    EXPECT_EQ(status(), 5);
    EXPECT_FALSE(reg_.log().contains("Sending ShutdownNotify"));

    ndpx::test::StubWorker daas(L"DaasAgent");
    setStatus(MigrationStatus::Connected);
    EXPECT_EQ(send(L"commit").result, 1);
    const auto sent = daas.nextMessage();
    ASSERT_TRUE(sent);
    EXPECT_EQ(sent->operation, L"ShutdownNotify");
    EXPECT_EQ(sent->request.get(L"DISABLE", L""), L"1");
}

TEST_F(MigrationTest, RollbackRefusalsAndAFailedStopThatMayBeRetried) {
    expectRefused(L"rollback", kErrorRollback,
                  {{MigrationStatus::CommitComplete, L"Already committed, unable to rollback"},
                   {MigrationStatus::NotStarted, L"Migration not started, cannot perform rollback"},
                   {MigrationStatus::Rollback, L"Rollback already in progress"}});
    EXPECT_EQ(session_.stops, 0);

    setStatus(MigrationStatus::CommitFailed);
    session_.stopOk = false;
    EXPECT_EQ(send(L"rollback").text, L"Failed to stop MQTT, unable to rollback");
    EXPECT_EQ(status(), 8);
    EXPECT_EQ(session_.reverts, 0);
    session_.stopOk = true;
    EXPECT_EQ(send(L"rollback").result, 1);
    EXPECT_EQ(status(), 0);
    EXPECT_EQ(session_.reverts, 1);
}

TEST_F(MigrationTest, RollbackRemovesTheClientCertificateButNotAPendingOne) {
    const auto current = client("agent-current");
    const auto pending = client("agent-pending");
    ASSERT_TRUE(certificates_->StoreCertificates(false, current.issued.certPem,
                                                 pki().issuing.certPem(), current.blob, "{C}"));
    ASSERT_TRUE(certificates_->StoreCertificates(true, pending.issued.certPem,
                                                 pki().issuing.certPem(), pending.blob, "{P}"));
    setStatus(MigrationStatus::Connected);
    ASSERT_EQ(send(L"rollback").result, 1);

    certs::CertChainPtr chain;
    EXPECT_FALSE(certificates_->RetrieveClientCertificateContext(false, &chain));
    EXPECT_FALSE(store_->KeyExists("{C}"));
    EXPECT_TRUE(certificates_->RetrieveClientCertificateContext(true, &chain));
    EXPECT_TRUE(store_->KeyExists("{P}"));
}

}  // namespace
}  // namespace ndpx::migration
