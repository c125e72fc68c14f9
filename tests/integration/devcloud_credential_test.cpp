// Pairing against the development control plane as an agent does it: the
// operator provisions a desktop, the agent posts its one-time password and
// CSR over HTTPS and gets a client certificate for its identity, once.

#include "support/Process.h"
#include "support/TempDir.h"

#include <devca/DevCa.h>
#include <mfw/corestring.h>

#include <gtest/gtest.h>
#include <httplib.h>
#include <json/json.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace ndpx::test {
namespace {

std::optional<std::string> decode64(const std::string& text) {
    auto bytes = CORE::base64Decode(text);
    return bytes ? std::optional(std::string(bytes->begin(), bytes->end())) : std::nullopt;
}

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kVmId = "VM9";
constexpr const char* kIdentity = "E1ST_VM9";

struct BioFree {
    void operator()(BIO* b) const { BIO_free_all(b); }
};
struct ReqFree {
    void operator()(X509_REQ* r) const { X509_REQ_free(r); }
};
struct CtxFree {
    void operator()(SSL_CTX* c) const { SSL_CTX_free(c); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

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

std::string compact(const Json::Value& v) {
    Json::StreamWriterBuilder w;
    w["indentation"] = "";
    return Json::writeString(w, v);
}

devca::X509Ptr certFromPem(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    return devca::X509Ptr(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
}

std::string pemOf(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509(bio.get(), cert);
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(n));
}

std::string commonName(X509* cert) {
    char cn[256] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(cert), NID_commonName, cn, sizeof cn);
    return cn;
}

// What the agent pins: SHA-256 of the certificate's PEM text, upper-case hex
// pairs joined by ':'.
std::string pinOf(X509* cert) {
    const std::string pem = pemOf(cert);
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EVP_Digest(pem.data(), pem.size(), md, &n, EVP_sha256(), nullptr);
    std::string out;
    char pair[4];
    for (unsigned int i = 0; i < n; ++i) {
        std::snprintf(pair, sizeof pair, "%02X", md[i]);
        out += (i > 0 ? ":" : "") + std::string(pair);
    }
    return out;
}

// An agent's key pair and CSR (subject: its identity).
struct Csr {
    devca::PkeyPtr key;
    std::string pem;
};

Csr makeCsr(const std::string& cn) {
    Csr csr;
    csr.key.reset(EVP_RSA_gen(2048));
    std::unique_ptr<X509_REQ, ReqFree> req(X509_REQ_new());
    X509_NAME* name = X509_REQ_get_subject_name(req.get());
    X509_NAME_add_entry_by_NID(name, NID_commonName, MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(cn.c_str()), -1, -1, 0);
    X509_REQ_set_pubkey(req.get(), csr.key.get());
    X509_REQ_sign(req.get(), csr.key.get(), EVP_sha256());
    BioPtr bio(BIO_new(BIO_s_mem()));
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
    return compact(v);
}

// The value after "`key` " on the first output line that starts with it.
std::string lineValue(const std::string& output, const std::string& key) {
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key + " ", 0) == 0) {
            return line.substr(key.size() + 1);
        }
    }
    return {};
}

// `devcloud credsvc` as a child process.
class CredSvc {
public:
    CredSvc(const std::string& dir, std::vector<std::string> extra) {
        std::vector<std::string> argv{DEVCLOUD_PATH, "credsvc", "--dir", dir};
        argv.insert(argv.end(), extra.begin(), extra.end());
        process_ = std::make_unique<Process>(argv);
        ready_ = process_->waitForLine("fault ");
        if (ready_) {
            port_ = std::stoi(lineValue(process_->output(), "port"));
        }
    }
    ~CredSvc() { stop(); }

    bool ready() const { return ready_; }
    int port() const { return port_; }
    std::string url() const { return lineValue(process_->output(), "url"); }
    std::string thumbprint() const { return lineValue(process_->output(), "thumbprint"); }
    std::string output() const { return process_->output(); }
    Process& process() { return *process_; }

    // SIGTERM; the exit status (nullopt if it did not end in time).
    std::optional<int> stop() {
        process_->signal(SIGTERM);
        return process_->wait(15s);
    }

private:
    std::unique_ptr<Process> process_;
    bool ready_ = false;
    int port_ = 0;
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
    fs::path specFile() const { return agentRoot() / "AzureData" / "CustomData.bin"; }
    std::string caFile() const { return dir() + "/ca.pem"; }

    std::unique_ptr<CredSvc> startService(std::vector<std::string> extra = {
                                              "--broker-host", "127.0.0.1", "--broker-port",
                                              "18883"}) {
        auto svc = std::make_unique<CredSvc>(dir(), std::move(extra));
        EXPECT_TRUE(svc->ready()) << svc->output();
        return svc;
    }

    // Provisions the desktop; returns the one-time password the agent finds
    // in its provisioning document.
    std::string provision(const CredSvc& svc, const std::string& vmId = kVmId,
                          std::vector<std::string> extra = {}) {
        std::vector<std::string> argv{DEVCLOUD_PATH,
                                      "provision",
                                      "--dir",
                                      dir(),
                                      "--root",
                                      agentRoot().string(),
                                      "--url",
                                      svc.url(),
                                      "--vm-id",
                                      vmId,
                                      "--edge-id",
                                      "E1",
                                      "--short-template-id",
                                      "ST"};
        argv.insert(argv.end(), extra.begin(), extra.end());
        const auto result = run(argv);
        EXPECT_EQ(result.status, 0) << result.output;
        lastProvisionOutput_ = result.output;
        const auto spec = parseJson(readFile(specFile()));
        return spec["nexHub"]["oneTimePassword"].asString();
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

    TempDir tmp_;
    std::string lastProvisionOutput_;
};

TEST_F(CredentialServiceTest, IssuesAClientCertificateForTheIdentityToTheCsrsKeyOnce) {
    auto svc = startService();
    const std::string otp = provision(*svc);
    ASSERT_EQ(otp.size(), 32u);
    const Csr csr = makeCsr("whatever-the-agent-put");

    const Reply first = post(*svc, requestBody(kVmId, otp, csr.pem));
    ASSERT_EQ(first.status, 200) << first.body << svc->output();
    const Json::Value answer = parseJson(first.body);
    EXPECT_EQ(answer["agentBootstrapTopic"].asString(),
              std::string("desktop/bootstrap/") + kIdentity);
    EXPECT_EQ(answer["mqttServerHost"].asString(), "127.0.0.1");
    ASSERT_TRUE(answer["mqttServerPort"].isString());
    EXPECT_EQ(answer["mqttServerPort"].asString(), "18883");
    ASSERT_TRUE(answer["wsEnabled"].isBool());
    EXPECT_FALSE(answer["wsEnabled"].asBool());
    EXPECT_FALSE(answer.isMember("error"));

    const auto caPem = decode64(answer["caCrt"].asString());
    ASSERT_TRUE(caPem);
    EXPECT_EQ(*caPem, readFile(caFile()));
    const auto clientPem = decode64(answer["clientCrt"].asString());
    ASSERT_TRUE(clientPem);
    const auto cert = certFromPem(*clientPem);
    ASSERT_TRUE(cert);
    EXPECT_EQ(commonName(cert.get()), kIdentity);
    EXPECT_EQ(EVP_PKEY_eq(X509_get0_pubkey(cert.get()), csr.key.get()), 1);
    const auto ca = certFromPem(*caPem);
    EXPECT_EQ(X509_verify(cert.get(), X509_get0_pubkey(ca.get())), 1);
    EXPECT_EQ(X509_check_purpose(cert.get(), X509_PURPOSE_SSL_CLIENT, 0), 1);
    // 30 days by default.
    std::time_t in29Days = std::time(nullptr) + 29 * 24 * 3600;
    std::time_t in31Days = std::time(nullptr) + 31 * 24 * 3600;
    EXPECT_GT(X509_cmp_time(X509_get0_notAfter(cert.get()), &in29Days), 0);
    EXPECT_LT(X509_cmp_time(X509_get0_notAfter(cert.get()), &in31Days), 0);

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
}

TEST_F(CredentialServiceTest, AnotherMachinesVmIdIsRefusedWithoutUsingUpThePassword) {
    auto svc = startService();
    const std::string otp = provision(*svc);
    const Csr csr = makeCsr(kIdentity);

    const Reply wrong = post(*svc, requestBody("VM8", otp, csr.pem));
    EXPECT_EQ(wrong.status, 403) << wrong.body;
    EXPECT_EQ(parseJson(wrong.body)["error"].asString(), "invalid otp");

    EXPECT_EQ(post(*svc, requestBody(kVmId, otp, csr.pem)).status, 200);
}

TEST_F(CredentialServiceTest, AUsedPasswordStaysUsedAfterARestart) {
    std::string otp;
    {
        auto svc = startService();
        otp = provision(*svc);
        ASSERT_EQ(post(*svc, requestBody(kVmId, otp, makeCsr(kIdentity).pem)).status, 200);
        EXPECT_EQ(svc->stop(), 0);
    }
    auto svc = startService();
    EXPECT_EQ(post(*svc, requestBody(kVmId, otp, makeCsr(kIdentity).pem)).status, 403);
}

TEST_F(CredentialServiceTest, MalformedRequestsAre400AndUnknownPasswords403) {
    auto svc = startService();
    const std::string otp = provision(*svc);
    const std::string csr = makeCsr(kIdentity).pem;

    const auto expect400 = [&](const std::string& body) {
        const Reply r = post(*svc, body);
        EXPECT_EQ(r.status, 400) << body << " -> " << r.body;
        EXPECT_TRUE(parseJson(r.body).isMember("error")) << r.body;
    };
    expect400("this is not JSON");
    expect400("[1, 2]");
    expect400(R"({"vmId":"VM9","otp":")" + otp + R"("})");
    expect400(R"({"vmId":"VM9","otp":")" + otp + R"(","clientCsr":"***not base64***"})");
    expect400(requestBody(kVmId, otp, "-----BEGIN CERTIFICATE REQUEST-----\nbroken\n"));
    std::string tampered = csr;
    tampered[tampered.size() / 2] = tampered[tampered.size() / 2] == 'A' ? 'B' : 'A';
    expect400(requestBody(kVmId, otp, tampered));

    EXPECT_EQ(post(*svc, requestBody(kVmId, "0123456789abcdef0123456789abcdef", csr)).status, 403);
    // None of that used the password up.
    EXPECT_EQ(post(*svc, requestBody(kVmId, otp, csr)).status, 200);
}

TEST_F(CredentialServiceTest, ValidityAndWebSocketFlagsShapeTheAnswer) {
    auto svc = startService({"--broker-host", "localhost", "--broker-port", "8443",
                             "--validity-seconds", "120", "--ws"});
    const std::string otp = provision(*svc, kVmId, {"--bootstrap-topic", "custom/topic"});
    const Reply r = post(*svc, requestBody(kVmId, otp, makeCsr(kIdentity).pem));
    ASSERT_EQ(r.status, 200) << r.body;
    const Json::Value answer = parseJson(r.body);
    EXPECT_TRUE(answer["wsEnabled"].asBool());
    EXPECT_EQ(answer["mqttServerHost"].asString(), "localhost");
    EXPECT_EQ(answer["mqttServerPort"].asString(), "8443");
    EXPECT_EQ(answer["agentBootstrapTopic"].asString(), "custom/topic");
    const auto cert = certFromPem(*decode64(answer["clientCrt"].asString()));
    ASSERT_TRUE(cert);
    std::time_t lower = std::time(nullptr) + 100;
    std::time_t upper = std::time(nullptr) + 140;
    EXPECT_GT(X509_cmp_time(X509_get0_notAfter(cert.get()), &lower), 0);
    EXPECT_LT(X509_cmp_time(X509_get0_notAfter(cert.get()), &upper), 0);
    EXPECT_EQ(X509_cmp_current_time(X509_get0_notBefore(cert.get())), -1);
}

TEST_F(CredentialServiceTest, Fault500AnswersStatus500) {
    auto svc = startService({"--broker-port", "18883", "--fault", "500"});
    const std::string otp = provision(*svc);
    const Reply r = post(*svc, requestBody(kVmId, otp, makeCsr(kIdentity).pem));
    EXPECT_EQ(r.status, 500) << r.body;
}

TEST_F(CredentialServiceTest, FaultGarbageAnswers200WithABodyThatIsNotJson) {
    auto svc = startService({"--broker-port", "18883", "--fault", "garbage"});
    const std::string otp = provision(*svc);
    const Reply r = post(*svc, requestBody(kVmId, otp, makeCsr(kIdentity).pem));
    EXPECT_EQ(r.status, 200);
    bool parsed = true;
    parseJson(r.body, &parsed);
    EXPECT_FALSE(parsed) << r.body;
}

TEST_F(CredentialServiceTest, FaultSilentNeverAnswersYetStopsCleanly) {
    auto svc = startService({"--broker-port", "18883", "--fault", "silent"});
    const std::string otp = provision(*svc);
    const Reply r = post(*svc, requestBody(kVmId, otp, makeCsr(kIdentity).pem), 1s);
    EXPECT_EQ(r.status, 0) << r.body;
    EXPECT_EQ(r.error, httplib::Error::Read);
    EXPECT_TRUE(svc->process().waitForLine("fault silent: holding")) << svc->output();
    EXPECT_EQ(svc->stop(), 0) << svc->output();
}

TEST_F(CredentialServiceTest, PrintedThumbprintIsTheServedCertificatesAndSurvivesRestarts) {
    auto svc = startService();
    const std::string printed = svc->thumbprint();
    ASSERT_EQ(printed.size(), 95u) << svc->output();

    std::unique_ptr<SSL_CTX, CtxFree> ctx(SSL_CTX_new(TLS_client_method()));
    ASSERT_EQ(SSL_CTX_load_verify_locations(ctx.get(), caFile().c_str(), nullptr), 1);
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);
    BioPtr bio(BIO_new_ssl_connect(ctx.get()));
    const std::string target = "127.0.0.1:" + std::to_string(svc->port());
    BIO_set_conn_hostname(bio.get(), target.c_str());
    ASSERT_EQ(BIO_do_connect(bio.get()), 1);
    ASSERT_EQ(BIO_do_handshake(bio.get()), 1);
    SSL* ssl = nullptr;
    BIO_get_ssl(bio.get(), &ssl);
    const devca::X509Ptr served(SSL_get1_peer_certificate(ssl));
    ASSERT_TRUE(served);
    EXPECT_EQ(pinOf(served.get()), printed);
    EXPECT_EQ(X509_check_ip_asc(served.get(), "127.0.0.1", 0), 1);
    EXPECT_EQ(X509_check_host(served.get(), "localhost", 0, 0, nullptr), 1);
    bio.reset();

    EXPECT_EQ(svc->stop(), 0);
    auto again = startService();
    EXPECT_EQ(again->thumbprint(), printed);
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
    const std::string port = lineValue(broker.output(), "port");
    const Json::Value file = parseJson(readFile(fs::path(dir()) / "broker.json"));
    EXPECT_EQ(file["port"].asString(), port);

    const Reply r = post(*svc, requestBody(kVmId, otp, csr.pem));
    ASSERT_EQ(r.status, 200) << r.body;
    EXPECT_EQ(parseJson(r.body)["mqttServerPort"].asString(), port);
    EXPECT_EQ(parseJson(r.body)["mqttServerHost"].asString(), "127.0.0.1");

    broker.signal(SIGTERM);
    EXPECT_EQ(broker.wait(), 0) << broker.output();
    EXPECT_FALSE(fs::exists(fs::path(dir()) / "broker.json"));
}

TEST_F(CredentialServiceTest, ProvisioningWritesAPrivateDocumentForTheAgent) {
    auto svc = startService();
    const std::string first = provision(*svc, kVmId, {"--name", "desk-9"});
    struct stat st {};
    ASSERT_EQ(::stat(specFile().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_uid, ::geteuid());
    ASSERT_EQ(::stat(specFile().parent_path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0700u);
    // Only the document itself is left in the directory (no temp files).
    EXPECT_EQ(
        std::distance(fs::directory_iterator(specFile().parent_path()), fs::directory_iterator()),
        1);

    const Json::Value spec = parseJson(readFile(specFile()));
    EXPECT_EQ(spec["name"].asString(), "desk-9");
    EXPECT_EQ(spec["shortTemplateId"].asString(), "ST");
    EXPECT_EQ(spec["vmId"].asString(), kVmId);
    EXPECT_EQ(spec["edgeGateway"]["id"].asString(), "E1");
    EXPECT_EQ(spec["nexHub"]["url"].asString(), svc->url());
    EXPECT_NE(lastProvisionOutput_.find(std::string("identity ") + kIdentity), std::string::npos)
        << lastProvisionOutput_;
    EXPECT_NE(lastProvisionOutput_.find(specFile().string()), std::string::npos);

    // A second provisioning replaces the document with a new password.
    const std::string second = provision(*svc);
    EXPECT_NE(first, second);

    // Elsewhere on request.
    const fs::path other = tmp_.path() / "elsewhere" / "lcm-spec.json";
    const auto result =
        run({DEVCLOUD_PATH, "provision", "--dir", dir(), "--spec-file", other.string(), "--url",
             svc->url(), "--vm-id", "VM7", "--edge-id", "E1", "--short-template-id", "ST"});
    ASSERT_EQ(result.status, 0) << result.output;
    const std::string third = parseJson(readFile(other))["nexHub"]["oneTimePassword"].asString();
    EXPECT_EQ(post(*svc, requestBody("VM7", third, makeCsr("x").pem)).status, 200);
    EXPECT_EQ(post(*svc, requestBody(kVmId, second, makeCsr("x").pem)).status, 200);
    EXPECT_EQ(post(*svc, requestBody(kVmId, first, makeCsr("x").pem)).status, 200);
}

TEST_F(CredentialServiceTest, ProvisioningRefusesAPlainHttpUrl) {
    const auto result = run({DEVCLOUD_PATH, "provision", "--dir", dir(), "--root",
                             agentRoot().string(), "--url", "http://127.0.0.1:1/api/v1/otp",
                             "--vm-id", kVmId, "--edge-id", "E1", "--short-template-id", "ST"});
    EXPECT_NE(result.status, 0);
    EXPECT_FALSE(fs::exists(specFile()));
}

TEST(DevCaLoad, ALoadedCaSignsForItsChain) {
    auto root = devca::CertificateAuthority::createRoot("root");
    auto loaded = devca::CertificateAuthority::load(root.certPem(), root.keyPem());
    EXPECT_EQ(loaded.certPem(), root.certPem());
    const auto issued = loaded.issueClient("agent");
    EXPECT_EQ(X509_verify(issued.cert.get(), X509_get0_pubkey(root.cert())), 1);

    // An intermediate with its chain behind it keeps the chain.
    auto inter = root.createIntermediate("inter");
    auto loadedInter = devca::CertificateAuthority::load(inter.chainPem(), inter.keyPem());
    EXPECT_EQ(loadedInter.chainPem(), inter.chainPem());
}

TEST(DevCaLoad, BadInputThrows) {
    auto root = devca::CertificateAuthority::createRoot("root");
    auto other = devca::CertificateAuthority::createRoot("other");
    const auto leaf = root.issueClient("leaf");
    using devca::CertificateAuthority;
    EXPECT_THROW(CertificateAuthority::load("garbage", root.keyPem()), std::runtime_error);
    EXPECT_THROW(CertificateAuthority::load(root.certPem(), "garbage"), std::runtime_error);
    EXPECT_THROW(CertificateAuthority::load(root.certPem(), other.keyPem()), std::runtime_error);
    EXPECT_THROW(CertificateAuthority::load(leaf.certPem, leaf.keyPem), std::runtime_error);
    EXPECT_EQ(ERR_peek_error(), 0u);
}

}  // namespace
}  // namespace ndpx::test
