// Pairing against the development control plane as an agent does it: the
// operator provisions a desktop, the agent posts its one-time password and
// CSR over HTTPS and gets a client certificate for its identity, once. For a
// renewal the control plane hands the agent a fresh password over MQTT.

#include "support/Process.h"
#include "support/TempDir.h"

#include <certs/linux/OpenSslCertStore.h>
#include <devca/DevCa.h>
#include <devcloud/Home.h>
#include <devcloud/MqttClient.h>
#include <devcloud/Topics.h>
#include <mfw/corestring.h>

#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace ndpx::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kVmId = "VM9";
constexpr const char* kIdentity = "E1ST_VM9";

using BioPtr = std::unique_ptr<BIO, decltype(&BIO_free_all)>;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

Json::Value parseJson(const std::string& text, bool* ok = nullptr) {
    Json::Value v;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    const bool parsed = reader->parse(text.data(), text.data() + text.size(), &v, &errors);
    if (ok != nullptr) {
        *ok = parsed;
    }
    return v;
}

std::string decode64(const Json::Value& text) {
    const auto bytes = CORE::base64Decode(text.asString());
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
}

devca::X509Ptr certFromPem(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free_all);
    return devca::X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

// Whether the certificate expires between `low` and `high` seconds from now.
bool expiresWithin(X509* cert, std::time_t low, std::time_t high) {
    std::time_t lower = std::time(nullptr) + low;
    std::time_t upper = std::time(nullptr) + high;
    return X509_cmp_time(X509_get0_notAfter(cert), &lower) > 0 &&
           X509_cmp_time(X509_get0_notAfter(cert), &upper) < 0;
}

// Whether the agent under `root` takes `certPem` as a server's certificate
// with no pin, as its HTTPS client checks one: a chain to a root it trusts,
// for the name, and a CRL of the issuer that does not list it.
bool agentTrusts(const fs::path& root, const std::string& certPem) {
    certs::OpenSslCertStore::Options options;
    options.databaseFile = (root / "var/lib/Brasswick/certstore.sqlite").string();
    certs::OpenSslCertStore store(options);
    const auto memory = store.OpenMemoryStore();
    if (!store.ImportCertificate(certPem, memory, "", {}, "")) {
        return false;
    }
    const auto server = store.EnumerateCertificates(memory).at(0);
    const auto chain = store.BuildCertificateChain(&server, memory);
    std::uint32_t policy = 0;
    std::uint32_t revocation = 0;
    std::uint32_t info = 0;
    return chain && !chain->simpleChains.empty() &&
           store.VerifyCertChain(chain.get(), "localhost", false, false, policy) &&
           policy == certs::policy::kOk && chain->simpleChains.front().errorStatus == 0 &&
           store.VerifyCertRevocation(&server, {}, revocation, info) && revocation == 0;
}

// An agent's key pair and CSR (subject: `cn`).
struct Csr {
    devca::PkeyPtr key;
    std::string pem;
};

Csr makeCsr(const std::string& cn) {
    Csr csr{devca::PkeyPtr(EVP_RSA_gen(2048)), {}};
    std::unique_ptr<X509_REQ, decltype(&X509_REQ_free)> req(X509_REQ_new(), X509_REQ_free);
    X509_NAME_add_entry_by_NID(X509_REQ_get_subject_name(req.get()), NID_commonName, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
    X509_REQ_set_pubkey(req.get(), csr.key.get());
    X509_REQ_sign(req.get(), csr.key.get(), EVP_sha256());
    BioPtr bio(BIO_new(BIO_s_mem()), BIO_free_all);
    PEM_write_bio_X509_REQ(bio.get(), req.get());
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    csr.pem.assign(data, static_cast<std::size_t>(n));
    return csr;
}

// The agent's request body.
std::string requestBody(const std::string& vmId, const std::string& otp,
                        const std::string& csrPem) {
    Json::Value v(Json::objectValue);
    v["vmId"] = vmId;
    v["otp"] = otp;
    v["clientCsr"] = CORE::base64Encode(csrPem);
    Json::StreamWriterBuilder w;
    w["indentation"] = "";
    return Json::writeString(w, v);
}

// `devcloud credsvc` as a child process; it prints its port, url and
// thumbprint, and last its fault mode.
struct CredSvc : Process {
    using Process::Process;
    std::string value(const std::string& key) const { return valueAfter(key); }
    int port() const { return std::atoi(value("port").c_str()); }
    std::optional<int> stop() {
        signal(SIGTERM);
        return wait(15s);
    }
};

struct Reply {
    int status = 0;  // 0: no answer (transport error)
    std::string body;
    httplib::Error error = httplib::Error::Success;
};

class CredentialServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        const auto init = run({DEVCLOUD_PATH, "ca", "init", "--dir", dir()});
        ASSERT_EQ(init.status, 0) << init.output;
    }

    std::string dir() const { return (tmp_.path() / "devcloud").string(); }
    fs::path agentRoot() const { return tmp_.path() / "agent"; }
    fs::path documentFile() const { return agentRoot() / "AzureData" / "CustomData.bin"; }
    std::string caFile() const { return dir() + "/ca.pem"; }

    std::unique_ptr<CredSvc> startService(std::vector<std::string> extra = {
                                              "--broker-host", "127.0.0.1", "--broker-port",
                                              "18883"}) {
        extra.insert(extra.begin(), {DEVCLOUD_PATH, "credsvc", "--dir", dir()});
        auto svc = std::make_unique<CredSvc>(extra);
        EXPECT_TRUE(svc->waitForLine("fault ")) << svc->output();
        return svc;
    }

    RunResult runProvision(const std::string& url, const std::string& vmId,
                           std::vector<std::string> extra) {
        extra.insert(extra.begin(), {DEVCLOUD_PATH, "provision", "--dir", dir(), "--url", url});
        extra.insert(extra.end(),
                     {"--vm-id", vmId, "--edge-id", "E1", "--short-template-id", "ST"});
        return run(extra);
    }

    // Provisions the desktop under the agent's root; returns the one-time
    // password the agent finds in its provisioning document.
    std::string provision(const CredSvc& svc, std::vector<std::string> extra = {}) {
        extra.insert(extra.end(), {"--root", agentRoot().string()});
        const auto result = runProvision(svc.value("url"), kVmId, extra);
        EXPECT_EQ(result.status, 0) << result.output;
        lastProvisionOutput_ = result.output;
        return parseJson(readFile(documentFile()))["nexHub"]["oneTimePassword"].asString();
    }

    Reply post(const CredSvc& svc, const std::string& body,
               std::chrono::seconds readTimeout = 10s) const {
        httplib::SSLClient client("127.0.0.1", svc.port());
        client.set_ca_cert_path(caFile());
        client.enable_server_certificate_verification(true);
        client.set_connection_timeout(10s);
        client.set_read_timeout(readTimeout);
        const auto res = client.Post("/api/v1/otp", body, "application/json");
        if (!res) {
            return {0, {}, res.error()};
        }
        return {res->status, res->body, httplib::Error::Success};
    }

    int postNew(const CredSvc& svc, const std::string& vmId, const std::string& otp) const {
        return post(svc, requestBody(vmId, otp, makeCsr(kIdentity).pem)).status;
    }

    TempDir tmp_;
    std::string lastProvisionOutput_;
};

// Neither a malformed request (400) nor a wrong password or machine (403)
// uses the password up; the first good request does, for good.
TEST_F(CredentialServiceTest, IssuesAClientCertificateForTheIdentityToTheCsrsKeyOnce) {
    auto svc = startService();
    const std::string thumbprint = svc->value("thumbprint");
    ASSERT_EQ(thumbprint.size(), 95u) << svc->output();
    const std::string otp = provision(*svc);
    ASSERT_EQ(otp.size(), 32u);
    const Csr csr = makeCsr("whatever-the-agent-put");
    std::string tampered = csr.pem;
    tampered[tampered.size() / 2] = tampered[tampered.size() / 2] == 'A' ? 'B' : 'A';
    const std::pair<std::string, int> refusals[] = {
        {"this is not JSON", 400},
        {"[1, 2]", 400},
        {R"({"vmId":"VM9","otp":")" + otp + R"("})", 400},
        {R"({"vmId":"VM9","otp":")" + otp + R"(","clientCsr":"***not base64***"})", 400},
        {requestBody(kVmId, otp, "-----BEGIN CERTIFICATE REQUEST-----\nbroken\n"), 400},
        {requestBody(kVmId, otp, tampered), 400},
        {requestBody(kVmId, "0123456789abcdef0123456789abcdef", csr.pem), 403},
        {requestBody("VM8", otp, csr.pem), 403},  // another machine's password
    };
    for (const auto& [body, status] : refusals) {
        const Reply r = post(*svc, body);
        EXPECT_EQ(r.status, status) << body << " -> " << r.body;
        const Json::Value error = parseJson(r.body)["error"];
        EXPECT_TRUE(status == 400 ? error.isString() : error.asString() == "invalid otp") << r.body;
    }

    const Reply first = post(*svc, requestBody(kVmId, otp, csr.pem));
    ASSERT_EQ(first.status, 200) << first.body << svc->output();
    const Json::Value answer = parseJson(first.body);
    EXPECT_EQ(answer["agentBootstrapTopic"].asString(),
              std::string("desktop/bootstrap/") + kIdentity);
    EXPECT_EQ(answer["mqttServerHost"].asString(), "127.0.0.1");
    EXPECT_EQ(answer["mqttServerPort"], Json::Value("18883"));  // a string, not a number
    EXPECT_EQ(answer["wsEnabled"], Json::Value(false));
    EXPECT_FALSE(answer.isMember("error"));

    const std::string caPem = decode64(answer["caCrt"]);
    EXPECT_EQ(caPem, readFile(caFile()));
    const auto ca = certFromPem(caPem);
    const auto cert = certFromPem(decode64(answer["clientCrt"]));
    ASSERT_TRUE(ca && cert);
    char subject[256] = "";
    EXPECT_STREQ(X509_NAME_oneline(X509_get_subject_name(cert.get()), subject, sizeof subject),
                 "/CN=E1ST_VM9");
    EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert.get()), csr.key.get()), 1);
    EXPECT_EQ(X509_verify(cert.get(), X509_get0_pubkey(ca.get())), 1);
    EXPECT_EQ(X509_check_purpose(cert.get(), X509_PURPOSE_SSL_CLIENT, 0), 1);
    EXPECT_TRUE(expiresWithin(cert.get(), 29 * 24 * 3600, 31 * 24 * 3600));  // 30 days by default

    const Reply again = post(*svc, requestBody(kVmId, otp, makeCsr(kIdentity).pem));
    EXPECT_EQ(again.status, 403) << again.body;
    const Json::Value refusal = parseJson(again.body);
    EXPECT_EQ(refusal["error"].asString(), "invalid otp");
    EXPECT_EQ(refusal["status"].asString(), "403");
    EXPECT_FALSE(refusal["message"].asString().empty());

    EXPECT_EQ(svc->stop(), 0);
    EXPECT_NE(svc->output().find("vmId=VM9: 200"), std::string::npos) << svc->output();
    EXPECT_NE(svc->output().find("vmId=VM9: 403"), std::string::npos) << svc->output();
    // The password is in the agent's document and nowhere else.
    EXPECT_EQ(svc->output().find(otp), std::string::npos);
    EXPECT_EQ(lastProvisionOutput_.find(otp), std::string::npos);
    EXPECT_EQ(readFile(fs::path(dir()) / "otp-store.json").find(otp), std::string::npos);

    // Restarted, it serves the same certificate (whose pin the agent is
    // given) and still knows the password as used.
    svc = startService();
    EXPECT_EQ(svc->value("thumbprint"), thumbprint);
    EXPECT_EQ(postNew(*svc, kVmId, otp), 403);
}

TEST_F(CredentialServiceTest, LifetimeAndWebSocketFlagsShapeWhatIsIssued) {
    auto svc = startService(
        {"--broker-host", "localhost", "--broker-port", "8443", "--client-validity", "2m", "--ws"});
    const std::string otp = provision(*svc, {"--bootstrap-topic", "custom/topic"});
    const Reply r = post(*svc, requestBody(kVmId, otp, makeCsr(kIdentity).pem));
    ASSERT_EQ(r.status, 200) << r.body;
    const Json::Value answer = parseJson(r.body);
    EXPECT_TRUE(answer["wsEnabled"].asBool());
    EXPECT_EQ(answer["mqttServerHost"].asString(), "localhost");
    EXPECT_EQ(answer["mqttServerPort"].asString(), "8443");
    EXPECT_EQ(answer["agentBootstrapTopic"].asString(), "custom/topic");
    const auto cert = certFromPem(decode64(answer["clientCrt"]));
    ASSERT_TRUE(cert);
    EXPECT_TRUE(expiresWithin(cert.get(), 100, 140));
    EXPECT_EQ(X509_cmp_current_time(X509_get0_notBefore(cert.get())), -1);

    // Certificates issued by hand take the same lifetimes.
    const std::string prefix = (tmp_.path() / "short").string();
    const auto issue = [&](const char* lifetime) {
        return run({DEVCLOUD_PATH, "client-cert", "--dir", dir(), "--cn", "short", "--out", prefix,
                    "--validity", lifetime});
    };
    ASSERT_EQ(issue("90s").status, 0);
    const auto shortLived = certFromPem(readFile(prefix + ".pem"));
    ASSERT_TRUE(shortLived);
    EXPECT_TRUE(expiresWithin(shortLived.get(), 70, 110));
    EXPECT_NE(issue("90x").status, 0);
}

TEST_F(CredentialServiceTest, FaultsBreakTheAnswerAsAskedAndTheServiceStillStopsCleanly) {
    struct Case {
        const char* fault;
        int status;  // 0: no answer at all
        httplib::Error error;
    };
    for (const Case c :
         {Case{"500", 500, httplib::Error::Success}, Case{"garbage", 200, httplib::Error::Success},
          Case{"silent", 0, httplib::Error::Read}}) {
        SCOPED_TRACE(c.fault);
        auto svc = startService({"--broker-port", "18883", "--fault", c.fault});
        const std::string otp = provision(*svc);
        const Reply r = post(*svc, requestBody(kVmId, otp, makeCsr(kIdentity).pem), 1s);
        EXPECT_EQ(r.status, c.status) << r.body;
        EXPECT_EQ(r.error, c.error);
        bool parsed = false;
        parseJson(r.body, &parsed);
        EXPECT_FALSE(c.status == 200 && parsed) << "a 200 answer that is not JSON: " << r.body;
        EXPECT_EQ(svc->stop(), 0) << svc->output();
    }
}

TEST_F(CredentialServiceTest, BrokerAddressComesFromTheRunningBroker) {
    auto svc = startService({});
    const std::string otp = provision(*svc);
    const Csr csr = makeCsr(kIdentity);

    // No broker yet: nothing to hand out, and the password is kept.
    const Reply early = post(*svc, requestBody(kVmId, otp, csr.pem));
    EXPECT_EQ(early.status, 503) << early.body;

    Process broker({DEVCLOUD_PATH, "broker", "--dir", dir()});
    ASSERT_TRUE(broker.waitForLine("devcloud: broker ready")) << broker.output();
    const std::string port = broker.valueAfter("port");
    EXPECT_EQ(parseJson(readFile(fs::path(dir()) / "broker.json"))["port"].asString(), port);

    const Reply r = post(*svc, requestBody(kVmId, otp, csr.pem));
    ASSERT_EQ(r.status, 200) << r.body;
    EXPECT_EQ(parseJson(r.body)["mqttServerPort"].asString(), port);
    EXPECT_EQ(parseJson(r.body)["mqttServerHost"].asString(), "127.0.0.1");

    broker.signal(SIGTERM);
    EXPECT_EQ(broker.wait(), 0) << broker.output();
    EXPECT_FALSE(fs::exists(fs::path(dir()) / "broker.json"));
}

TEST_F(CredentialServiceTest, ProvisioningWritesAPrivateDocumentOverHttpsOnly) {
    // A plain HTTP address would hand the password to anyone on the path.
    EXPECT_NE(runProvision("http://127.0.0.1:1/api/v1/otp", kVmId, {"--root", agentRoot().string()})
                  .status,
              0);
    EXPECT_FALSE(fs::exists(documentFile()));

    auto svc = startService();
    const std::string first = provision(*svc, {"--name", "desk-9"});
    EXPECT_EQ(fs::status(documentFile()).permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(fs::status(documentFile().parent_path()).permissions(), fs::perms::owner_all);
    // Only the document itself is left in the directory (no temp files).
    EXPECT_EQ(std::distance(fs::directory_iterator(documentFile().parent_path()), {}), 1);

    const Json::Value doc = parseJson(readFile(documentFile()));
    EXPECT_EQ(doc["name"].asString(), "desk-9");
    EXPECT_EQ(doc["shortTemplateId"].asString(), "ST");
    EXPECT_EQ(doc["vmId"].asString(), kVmId);
    EXPECT_EQ(doc["edgeGateway"]["id"].asString(), "E1");
    EXPECT_EQ(doc["nexHub"]["url"].asString(), svc->value("url"));
    EXPECT_NE(lastProvisionOutput_.find(std::string("identity ") + kIdentity), std::string::npos)
        << lastProvisionOutput_;
    EXPECT_NE(lastProvisionOutput_.find(documentFile().string()), std::string::npos);
    // The desktop trusts the service's certificate without its pin (after
    // pairing, renewal needs that).
    EXPECT_TRUE(agentTrusts(agentRoot(), readFile(fs::path(dir()) / "credsvc" / "server.pem")));

    // A second provisioning replaces the document with a new password; a
    // document may also be written elsewhere. Every password stays valid.
    const std::string second = provision(*svc);
    EXPECT_NE(first, second);
    const fs::path other = tmp_.path() / "elsewhere" / "provisioning.json";
    ASSERT_EQ(runProvision(svc->value("url"), "VM7", {"--spec-file", other.string()}).status, 0);
    const std::string third = parseJson(readFile(other))["nexHub"]["oneTimePassword"].asString();
    EXPECT_EQ(postNew(*svc, "VM7", third), 200);
    EXPECT_EQ(postNew(*svc, kVmId, second), 200);
    EXPECT_EQ(postNew(*svc, kVmId, first), 200);
}

// A paired desktop E1/VM9 (an MQTT client with its certificate) on the
// devcloud broker, with the credential service that paired it.
class RenewalTest : public CredentialServiceTest {
protected:
    static constexpr const char* kDesktop = "E1/VM9";
    static constexpr const char* kBootstrap = "custom/E1ST_VM9";

    void SetUp() override {
        CredentialServiceTest::SetUp();
        broker_ = std::make_unique<Process>(
            std::vector<std::string>{DEVCLOUD_PATH, "broker", "--dir", dir()});
        ASSERT_TRUE(broker_->waitForLine("devcloud: broker ready")) << broker_->output();
        port_ = broker_->valueAfter("port");
        svc_ = startService({});
        const std::string otp = provision(*svc_, {"--bootstrap-topic", kBootstrap});
        ASSERT_EQ(postNew(*svc_, kVmId, otp), 200);

        devcloud::ClientOptions o;
        o.port = std::stoi(port_);
        o.clientId = kIdentity;
        o.tls = devcloud::Home(dir()).clientFiles(kIdentity);
        desktop_ = std::make_unique<devcloud::MqttClient>(o);
        ASSERT_TRUE(desktop_->connect()) << desktop_->lastError();
        // Every desktop's tokens: none may go astray.
        for (const char* filter :
             {"desktop/+/agent/credentials/token", "desktop/+/+/agent/credentials/token"}) {
            ASSERT_TRUE(desktop_->subscribe(filter, 1)) << desktop_->lastError();
        }
    }
    void TearDown() override {
        desktop_.reset();
        // Stopped, not killed, so that its mosquitto goes too.
        if (broker_) {
            broker_->signal(SIGTERM);
            EXPECT_EQ(broker_->wait(), 0) << broker_->output();
        }
    }

    // DEVCLOUD_PATH, a subcommand and its options, with the broker's and the
    // service's.
    std::vector<std::string> withBroker(std::vector<std::string> argv) const {
        argv.insert(argv.begin() + 2,
                    {"--dir", dir(), "--port", port_, "--url", svc_->value("url")});
        return argv;
    }

    // The token on `desktop`'s topic: a fresh password the service takes for
    // a new certificate of the desktop's identity, with what pairing gave.
    std::string expectWorkingToken(const std::string& desktop, bool forceSwap) {
        const auto token = desktop_->waitForMessage(devcloud::credentialsTokenTopic(desktop), 10s);
        if (!token) {
            ADD_FAILURE() << "no token for " << desktop;
            return {};
        }
        const Json::Value v = parseJson(token->payload);
        EXPECT_EQ(v["nexHubUrl"].asString(), svc_->value("url"));
        EXPECT_EQ(v["forceCertSwap"], Json::Value(forceSwap));
        const std::string otp = v["otp"].asString();
        const Reply r = post(*svc_, requestBody(kVmId, otp, makeCsr(kIdentity).pem));
        EXPECT_EQ(r.status, 200) << r.body;
        const Json::Value answer = parseJson(r.body);
        EXPECT_EQ(answer["agentBootstrapTopic"].asString(), kBootstrap);
        const auto cert = certFromPem(decode64(answer["clientCrt"]));
        char subject[256] = "";
        if (cert) {
            X509_NAME_oneline(X509_get_subject_name(cert.get()), subject, sizeof subject);
        }
        EXPECT_STREQ(subject, "/CN=E1ST_VM9");
        return otp;
    }

    std::unique_ptr<Process> broker_;
    std::string port_;
    std::unique_ptr<CredSvc> svc_;
    std::unique_ptr<devcloud::MqttClient> desktop_;
};

std::string renewalRequest(const std::string& identity, const std::string& vmId,
                           const std::string& notAfter = "2031-01-02T03:04:05Z") {
    return R"({"agentIdentity":")" + identity + R"(","vmId":")" + vmId +
           R"(","reason":"expires soon","certificateNotAfter":")" + notAfter + R"("})";
}

// The desktop asks by either of its identifiers (edge/vm, or its identity
// when it has no edge id); a bad request, or one for a desktop never paired
// here, is refused with a line and answered with nothing.
TEST_F(RenewalTest, TheRenewerAnswersGoodRequestsWithWorkingTokensAndRefusesBadOnes) {
    Process renewer(withBroker({DEVCLOUD_PATH, "renewer"}));
    ASSERT_TRUE(renewer.waitForLine("devcloud: renewer ready")) << renewer.output();
    const std::pair<std::string, const char*> refused[] = {
        {"not json {", "refused: the request is not a JSON object"},
        {R"({"agentIdentity":"E1ST_VM9","vmId":"VM9","reason":"r"})",
         "refused: certificateNotAfter is missing"},
        {renewalRequest(kIdentity, kVmId, "2031-13-02T03:04:05Z"),
         R"(refused: certificateNotAfter "2031-13-02T03:04:05Z" is not an RFC 3339 UTC time)"},
        {renewalRequest("E1ST_VM8", "VM8"), "refused: the request names E1ST_VM8 (vmId VM8)"},
        {std::string(5000, ' '), "refused: the request has 5000 bytes"},
    };
    const auto ask = [&](const std::string& desktop, const std::string& body) {
        EXPECT_TRUE(desktop_->publish(devcloud::credentialsRequestTopic(desktop), body, 2))
            << desktop_->lastError();
    };
    for (const auto& [body, line] : refused) {
        ask(kDesktop, body);
    }
    ask("E1/VM5", renewalRequest("E1ST_VM5", "VM5"));
    ask(kDesktop, renewalRequest(kIdentity, kVmId));
    ask(kIdentity, renewalRequest(kIdentity, kVmId));

    const std::string otps[] = {expectWorkingToken(kDesktop, false),
                                expectWorkingToken(kIdentity, false)};
    for (const auto& [body, line] : refused) {
        EXPECT_TRUE(renewer.waitForLine(std::string("renewer: E1/VM9: ") + line)) << line;
    }
    EXPECT_TRUE(renewer.waitForLine("renewer: E1/VM5: refused: no pairing of E1ST_VM5 (vmId VM5)"));
    EXPECT_TRUE(renewer.waitForLine(
        "renewer: E1/VM9: token sent for E1ST_VM9 (vmId VM9, reason \"expires soon\", "
        "certificate valid until 2031-01-02T03:04:05Z)"));
    EXPECT_EQ(renewer.countLines("token sent"), 2u);
    EXPECT_FALSE(desktop_->waitForMessage("#", 0ms)) << "a token for a refused request";
    for (const auto& otp : otps) {
        EXPECT_EQ(renewer.output().find(otp), std::string::npos);
    }
}

TEST_F(RenewalTest, RenewPushesATokenToADesktopPairedHere) {
    const auto sent =
        run(withBroker({DEVCLOUD_PATH, "renew", "--desktop", kDesktop, "--force-swap"}));
    ASSERT_EQ(sent.status, 0) << sent.output;
    EXPECT_NE(sent.output.find("devcloud: token sent to E1/VM9 for E1ST_VM9 (vmId VM9)"),
              std::string::npos)
        << sent.output;
    const std::string otp = expectWorkingToken(kDesktop, true);
    EXPECT_EQ(sent.output.find(otp), std::string::npos);

    const auto unknown = run(withBroker({DEVCLOUD_PATH, "renew", "--desktop", "E1/VM5"}));
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.output.find("no pairing of desktop E1/VM5"), std::string::npos)
        << unknown.output;
}

}  // namespace
}  // namespace ndpx::test
