#pragma once
// The development credential service: agents post {"vmId", "otp",
// "clientCsr"} over HTTPS and get a client certificate for their identity,
// signed by the devcloud CA, with the CA certificate and the broker's address.
// Each one-time password (see OtpStore) is good for one certificate.
//
// The service's own TLS certificate is kept in the folder (credsvc/), so its
// thumbprint, which agents pin, survives restarts.

#include "BrokerEndpoint.h"
#include "devcloud/Home.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace ndpx::devcloud {

// The path agents are provisioned with (any path is served).
inline constexpr const char* kOtpPath = "/api/v1/otp";

// Misbehaviour on purpose, to test how agents cope.
enum class Fault {
    None,
    Status500,  // every request answered with status 500
    Garbage,    // status 200 with a body that is not JSON
    Silent,     // the request is read and never answered
};
std::optional<Fault> parseFault(const std::string& name);  // none|500|garbage|silent
const char* faultName(Fault fault);

struct CredentialServiceOptions {
    std::string bindAddress = "127.0.0.1";
    int port = 0;  // 0: an ephemeral port
    // nullopt: the folder's broker.json, read at every request so that a
    // broker (re)started later is found.
    std::optional<BrokerEndpoint> broker;
    std::chrono::seconds validity = std::chrono::hours(24 * 30);
    bool webSocket = false;
    Fault fault = Fault::None;
};

class CredentialService {
public:
    // One line per request and per notable event; never a password or key.
    using LogSink = std::function<void(const std::string&)>;

    // Loads the CA and the service certificate (issued on first use); throws
    // std::runtime_error when the folder has no usable CA.
    CredentialService(const Home& home, CredentialServiceOptions options, LogSink sink);
    ~CredentialService();  // stop()
    CredentialService(const CredentialService&) = delete;
    CredentialService& operator=(const CredentialService&) = delete;

    // Binds and serves on a thread of its own. False when the address or
    // port cannot be bound.
    bool start();
    // Answers requests held by the silent fault, closes the listener and
    // joins the serving threads. Idempotent.
    void stop();

    int port() const { return port_; }
    std::string url(const std::string& path = kOtpPath) const;
    // SHA-256 of the service certificate's PEM text, upper-case hex pairs
    // joined by ':' (what agents pin).
    const std::string& thumbprint() const { return thumbprint_; }
    // SHA-256 of its DER form (what `openssl x509 -fingerprint` shows).
    const std::string& derFingerprint() const { return derFingerprint_; }
    // The most requests ever handled at once (from the request read to its
    // answer), to see how a pairing storm meets the serving threads.
    int peakInFlight() const { return peakInFlight_.load(); }

    struct Answer {
        int status;
        std::string body;
        std::string contentType;
    };
    // The answer to one credential request (HTTP aside); `peer` only for the
    // log.
    Answer answer(const std::string& body, const std::string& peer);

private:
    class Server;

    Answer issue(const std::string& vmId, const std::string& otp, const std::string& csrPem,
                 const std::string& peer);
    void holdUnanswered();
    void log(const std::string& line) const;

    Home home_;
    CredentialServiceOptions options_;
    LogSink log_;
    std::mutex caMutex_;  // signing advances the CA's serial counter
    devca::CertificateAuthority ca_;
    devca::X509Ptr serverCert_;
    devca::PkeyPtr serverKey_;
    std::string thumbprint_;
    std::string derFingerprint_;

    std::atomic<int> inFlight_{0};
    std::atomic<int> peakInFlight_{0};

    std::unique_ptr<Server> server_;
    std::thread listener_;
    int port_ = 0;

    std::mutex stopMutex_;
    std::condition_variable stopCv_;
    bool stopping_ = false;
};

// SHA-256 of `bytes` as upper-case hexadecimal pairs joined by ':'.
std::string colonHexSha256(std::string_view bytes);

}  // namespace ndpx::devcloud
