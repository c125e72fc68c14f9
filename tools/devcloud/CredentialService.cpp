#include "CredentialService.h"

#include <mfw/corestring.h>
#include "LogText.h"
#include "OtpStore.h"

#include <httplib.h>
#include <json/json.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace ndpx::devcloud {

// httplib's stop() does nothing until the serving thread has marked the
// server running, so a stop right after start() could be lost. Closing the
// listening socket ourselves works at any moment: the accept loop ends as
// soon as it finds the socket gone, or before it ever waits on it.
class CredentialService::Server : public httplib::SSLServer {
public:
    using httplib::SSLServer::SSLServer;

    void closeListener() {
        const auto sock = svr_sock_.exchange(INVALID_SOCKET);
        if (sock != INVALID_SOCKET) {
            ::shutdown(sock, SHUT_RDWR);
            ::close(sock);
        }
    }
};

namespace {

namespace fs = std::filesystem;

constexpr auto kSilentHoldLimit = std::chrono::minutes(10);

// Counts a request while it is handled and keeps the highest count seen.
class InFlight {
public:
    InFlight(std::atomic<int>& now, std::atomic<int>& peak) : now_(now) {
        const int mine = ++now_;
        int seen = peak.load();
        while (mine > seen && !peak.compare_exchange_weak(seen, mine)) {
        }
    }
    ~InFlight() { --now_; }
    InFlight(const InFlight&) = delete;
    InFlight& operator=(const InFlight&) = delete;

private:
    std::atomic<int>& now_;
};

struct BioFree {
    void operator()(BIO* b) const { BIO_free_all(b); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

devca::X509Ptr certFromPem(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    devca::X509Ptr cert(bio ? PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr) : nullptr);
    ERR_clear_error();
    return cert;
}

devca::PkeyPtr keyFromPem(const std::string& pem) {
    BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    const auto noPassword = [](char*, int, int, void*) { return -1; };
    devca::PkeyPtr key(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassword, nullptr)
                           : nullptr);
    ERR_clear_error();
    return key;
}

std::string pemOf(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || PEM_write_bio_X509(bio.get(), cert) != 1) {
        throw std::runtime_error("devcloud: cannot write certificate PEM");
    }
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(n));
}

std::string derOf(X509* cert) {
    unsigned char* der = nullptr;
    const int n = i2d_X509(cert, &der);
    if (n <= 0) {
        throw std::runtime_error("devcloud: cannot encode a certificate");
    }
    std::string out(reinterpret_cast<const char*>(der), static_cast<std::size_t>(n));
    OPENSSL_free(der);
    return out;
}

// A stored service certificate is reused while it is still signed by the
// folder's CA, matches its key and has a day left; otherwise a new one is
// issued (and agents must pin the new thumbprint).
bool usable(X509* cert, EVP_PKEY* key, const devca::CertificateAuthority& ca) {
    std::time_t dayAhead = std::time(nullptr) + std::time_t{24} * 3600;
    const bool ok = cert != nullptr && key != nullptr &&
                    X509_verify(cert, X509_get0_pubkey(ca.cert())) == 1 &&
                    X509_check_private_key(cert, key) == 1 &&
                    X509_cmp_time(X509_get0_notAfter(cert), &dayAhead) > 0 &&
                    X509_cmp_current_time(X509_get0_notBefore(cert)) < 0;
    ERR_clear_error();
    return ok;
}

std::string compactJson(const Json::Value& v) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, v);
}

CredentialService::Answer errorAnswer(int status, const std::string& error,
                                      const std::string& message) {
    Json::Value v(Json::objectValue);
    v["error"] = error;
    v["status"] = std::to_string(status);
    v["message"] = message;
    return {status, compactJson(v), "application/json"};
}

std::string validUntil(X509* cert) {
    BioPtr bio(BIO_new(BIO_s_mem()));
    if (!bio || ASN1_TIME_print(bio.get(), X509_get0_notAfter(cert)) != 1) {
        return "?";
    }
    char* data = nullptr;
    const long n = BIO_get_mem_data(bio.get(), &data);
    return std::string(data, static_cast<std::size_t>(n));
}

}  // namespace

std::optional<Fault> parseFault(const std::string& name) {
    if (name == "none") {
        return Fault::None;
    }
    if (name == "500") {
        return Fault::Status500;
    }
    if (name == "garbage") {
        return Fault::Garbage;
    }
    if (name == "silent") {
        return Fault::Silent;
    }
    return std::nullopt;
}

const char* faultName(Fault fault) {
    switch (fault) {
        case Fault::None:
            return "none";
        case Fault::Status500:
            return "500";
        case Fault::Garbage:
            return "garbage";
        case Fault::Silent:
            return "silent";
    }
    return "?";
}

std::string colonHexSha256(std::string_view bytes) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), md, &n, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("devcloud: SHA-256 failed");
    }
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned int i = 0; i < n; ++i) {
        if (i > 0) {
            out += ':';
        }
        out += kDigits[md[i] >> 4];
        out += kDigits[md[i] & 0x0f];
    }
    return out;
}

CredentialService::CredentialService(const Home& home, CredentialServiceOptions options,
                                     LogSink sink)
    : home_(home), options_(std::move(options)), log_(std::move(sink)), ca_(home.loadCa()) {
    const fs::path dir = home_.dir() / "credsvc";
    const fs::path certFile = dir / "server.pem";
    const fs::path keyFile = dir / "server.key";
    fs::create_directories(dir);
    ::chmod(dir.c_str(), 0700);
    serverCert_ = certFromPem(readFile(certFile));
    serverKey_ = keyFromPem(readFile(keyFile));
    if (!usable(serverCert_.get(), serverKey_.get(), ca_)) {
        const auto issued = ca_.issueServer("localhost", {"localhost"}, {"127.0.0.1", "::1"});
        // The key first: a certificate on disk always has its key.
        if (!devca::writePrivateFile(keyFile.string(), issued.keyPem) ||
            !devca::writePrivateFile(certFile.string(), issued.certPem)) {
            throw std::runtime_error("devcloud: cannot write the service certificate in " +
                                     dir.string());
        }
        serverCert_ = certFromPem(issued.certPem);
        serverKey_ = keyFromPem(issued.keyPem);
        log("credsvc: issued a new service certificate (agents must pin its thumbprint)");
    }
    thumbprint_ = colonHexSha256(pemOf(serverCert_.get()));
    derFingerprint_ = colonHexSha256(derOf(serverCert_.get()));
}

CredentialService::~CredentialService() {
    stop();
}

bool CredentialService::start() {
    if (server_) {
        return port_ > 0;
    }
    server_ = std::make_unique<Server>(serverCert_.get(), serverKey_.get());
    if (!server_->is_valid()) {
        throw std::runtime_error("devcloud: cannot set up TLS for the credential service");
    }
    SSL_CTX_set_min_proto_version(server_->ssl_context(), TLS1_2_VERSION);
    // One request per connection: an idle keep-alive connection would
    // otherwise hold a serving thread (and stop()) for seconds.
    server_->set_keep_alive_max_count(1);
    server_->set_read_timeout(std::chrono::seconds(10));
    server_->set_payload_max_length(std::size_t{64} * 1024);
    server_->Post(".*", [this](const httplib::Request& req, httplib::Response& res) {
        const InFlight counted(inFlight_, peakInFlight_);
        if (options_.fault == Fault::Silent) {
            log("credsvc: " + req.remote_addr + ": fault silent: holding the request unanswered");
            holdUnanswered();
            const Answer a = errorAnswer(503, "unavailable", "the service is stopping");
            res.status = a.status;
            res.set_content(a.body, a.contentType.c_str());
            return;
        }
        const Answer a = answer(req.body, req.remote_addr);
        res.status = a.status;
        res.set_content(a.body, a.contentType.c_str());
    });
    if (options_.port != 0) {
        port_ = server_->bind_to_port(options_.bindAddress, options_.port) ? options_.port : -1;
    } else {
        port_ = server_->bind_to_any_port(options_.bindAddress);
    }
    if (port_ <= 0) {
        return false;
    }
    listener_ = std::thread([this] { server_->listen_after_bind(); });
    return true;
}

void CredentialService::stop() {
    {
        std::lock_guard lock(stopMutex_);
        stopping_ = true;
    }
    stopCv_.notify_all();
    if (server_) {
        server_->closeListener();
    }
    // The serving thread joins the request threads before it returns.
    if (listener_.joinable()) {
        listener_.join();
    }
}

std::string CredentialService::url(const std::string& path) const {
    return "https://" + options_.bindAddress + ":" + std::to_string(port_) + path;
}

void CredentialService::holdUnanswered() {
    std::unique_lock lock(stopMutex_);
    stopCv_.wait_for(lock, kSilentHoldLimit, [this] { return stopping_; });
}

void CredentialService::log(const std::string& line) const {
    if (log_) {
        log_(line);
    }
}

CredentialService::Answer CredentialService::answer(const std::string& body,
                                                    const std::string& peer) {
    const std::string who = "credsvc: " + printable(peer);
    if (options_.fault == Fault::Status500) {
        log(who + ": fault 500: answered 500");
        return errorAnswer(500, "internal error", "fault injected");
    }
    if (options_.fault == Fault::Garbage) {
        log(who + ": fault garbage: answered 200 with a body that is not JSON");
        return {200, "<html><body>502 Bad Gateway</body></html>\n\x01\x02 not json {", "text/html"};
    }

    Json::Value request;
    std::string errors;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!reader->parse(body.data(), body.data() + body.size(), &request, &errors) ||
        !request.isObject()) {
        log(who + ": 400 the body is not a JSON object");
        return errorAnswer(400, "bad request", "the body is not a JSON object");
    }
    const auto text = [&](const char* name) {
        const Json::Value& v = request[name];
        return v.isString() ? v.asString() : std::string();
    };
    const std::string vmId = text("vmId");
    const std::string otp = text("otp");
    const std::string csrBase64 = text("clientCsr");
    const std::string whoVm = who + " vmId=" + printable(vmId);
    if (vmId.empty() || otp.empty() || csrBase64.empty()) {
        log(whoVm + ": 400 vmId, otp or clientCsr missing");
        return errorAnswer(400, "bad request", "vmId, otp and clientCsr are required strings");
    }
    const auto csrBytes = CORE::base64Decode(csrBase64);
    if (!csrBytes) {
        log(whoVm + ": 400 clientCsr is not base64");
        return errorAnswer(400, "bad request", "clientCsr is not base64");
    }
    return issue(vmId, otp, std::string(csrBytes->begin(), csrBytes->end()), whoVm);
}

CredentialService::Answer CredentialService::issue(const std::string& vmId, const std::string& otp,
                                                   const std::string& csrPem,
                                                   const std::string& whoVm) {
    const auto broker = options_.broker ? options_.broker : readBrokerEndpoint(home_.dir());
    if (!broker) {
        log(whoVm + ": 503 no broker known (no --broker-host/--broker-port, no " +
            brokerEndpointFile(home_.dir()).string() + ")");
        return errorAnswer(503, "unavailable", "no MQTT broker is known to the service");
    }
    std::optional<devca::Issued> issued;
    OtpGrant granted;
    RedeemResult result = RedeemResult::Unknown;
    try {
        result = OtpStore(home_.dir()).redeem(otp, vmId, [&](const OtpGrant& grant) {
            std::lock_guard lock(caMutex_);
            issued =
                ca_.signCsr(csrPem, grant.agentIdentity, devca::validForNext(options_.validity));
            granted = grant;
            return issued.has_value();
        });
    } catch (const std::exception& e) {
        log(whoVm + ": 500 " + e.what());
        return errorAnswer(500, "internal error", "the one-time password store failed");
    }

    // One message for every refusal: the caller learns nothing about which
    // passwords exist.
    const auto refused = [&](const std::string& why) {
        log(whoVm + ": 403 " + why);
        return errorAnswer(403, "invalid otp",
                           "the one-time password is not valid for this machine");
    };
    switch (result) {
        case RedeemResult::Unknown:
            return refused("unknown one-time password");
        case RedeemResult::Used:
            return refused("one-time password already used");
        case RedeemResult::WrongVmId:
            return refused("one-time password issued for another vmId");
        case RedeemResult::Declined:
            log(whoVm + ": 400 clientCsr is not a valid CSR");
            return errorAnswer(400, "bad request",
                               "clientCsr is not a valid certificate signing request");
        case RedeemResult::Accepted:
            break;
    }

    Json::Value v(Json::objectValue);
    v["agentBootstrapTopic"] = granted.bootstrapTopic;
    v["mqttServerHost"] = broker->host;
    v["mqttServerPort"] = std::to_string(broker->port);
    v["wsEnabled"] = options_.webSocket;
    v["caCrt"] = CORE::base64Encode(ca_.chainPem());
    v["clientCrt"] = CORE::base64Encode(issued->certPem);
    log(whoVm + ": 200 issued CN=" + granted.agentIdentity + " serial " + issued->serialHex +
        " valid until " + validUntil(issued->cert.get()) + ", broker " + broker->host + ":" +
        std::to_string(broker->port));
    return {200, compactJson(v), "application/json"};
}

}  // namespace ndpx::devcloud
