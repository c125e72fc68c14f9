#pragma once
// Real servers on loopback for the network tests: an HTTPS server (with a
// certificate chain from the dev CA), a plain HTTP server, a TLS server that
// answers with raw bytes and a listener that never answers. All
// listen on ephemeral ports; every wait is bounded.

#include "certs/OpenSslUtil.h"
#include "certs/linux/OpenSslCertStore.h"
#include "net/Handles.h"
#include "support/TempDir.h"
#include "support/Tinyproxy.h"

#include <devca/DevCa.h>
#include <httplib.h>
#include <mfw/log.h>
#include <platform/UniqueFd.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ndpx::test {

using namespace std::chrono_literals;

inline void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// SHA-256 of a PEM text as "AB:CD:...", computed here independently of the
// code under test.
inline std::string expectedThumbprint(const std::string& pem) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    EVP_Digest(pem.data(), pem.size(), md, &len, EVP_sha256(), nullptr);
    std::string out;
    char hex[4];
    for (unsigned i = 0; i < len; ++i) {
        std::snprintf(hex, sizeof hex, i + 1 < len ? "%02X:" : "%02X", md[i]);
        out += hex;
    }
    return out;
}

// Certificates shared by every test of the binary (RSA keys are slow).
struct TestPki {
    devca::CertificateAuthority root = devca::CertificateAuthority::createRoot("Net Test Root");
    devca::CertificateAuthority inter = root.createIntermediate("Net Test Intermediate");
    devca::Issued leaf = inter.issueServer("localhost", {"localhost"}, {"127.0.0.1"});
    devca::Issued wrongName = inter.issueServer("elsewhere.test", {"elsewhere.test"}, {});
    devca::Issued expired =
        inter.issueServer("localhost", {"localhost"}, {"127.0.0.1"},
                          devca::Validity{-std::chrono::hours(48), std::chrono::hours(24)});
    devca::Issued revoked = inter.issueServer("localhost", {"localhost"}, {"127.0.0.1"});
    TempDir dir;
    std::string rootFile = (dir.path() / "root.pem").string();
    // Machine stores: one trusting the test root, one also holding the CRLs
    // of both CAs, and one with only the system's roots.
    std::shared_ptr<certs::OpenSslCertStore> trusted;
    std::shared_ptr<certs::OpenSslCertStore> trustedWithCrls;
    std::shared_ptr<certs::OpenSslCertStore> untrusted;

    TestPki() {
        inter.revoke(revoked.serialHex);
        writeFile(rootFile, root.certPem());
        trusted = machineStore("trusted.sqlite", rootFile);
        trustedWithCrls = machineStore("crl.sqlite", rootFile);
        trustedWithCrls->AddCrl("CA", inter.crlPem());
        trustedWithCrls->AddCrl("Root", root.crlPem());
        untrusted =
            machineStore("untrusted.sqlite", certs::OpenSslCertStore::kDefaultSystemRootsFile);
    }
    // What a server sends: its certificate, then the intermediate.
    std::string chainOf(const devca::Issued& issued) const {
        return issued.certPem + inter.certPem();
    }
    // A machine store whose system roots are read from `roots`.
    std::shared_ptr<certs::OpenSslCertStore> machineStore(const char* file,
                                                          const std::string& roots) const {
        certs::OpenSslCertStore::Options o;
        o.databaseFile = (dir.path() / file).string();
        o.systemRootsFile = roots;
        return std::make_shared<certs::OpenSslCertStore>(o);
    }
};

inline const TestPki& pki() {
    static const TestPki instance;
    return instance;
}

// Captures the module log at the most verbose level for one test.
class LogCapture {
public:
    LogCapture() {
        CORE::setLogLevel(CORE::kLogVerbose);
        CORE::addLogSink(sink_);
    }
    ~LogCapture() { CORE::removeLogSink(sink_); }
    bool contains(const std::string& text) const { return sink_->contains(text); }
    std::size_t count(const std::string& text) const { return sink_->count(text); }
    void clear() { sink_->clear(); }
    std::string all() const {
        std::string out;
        for (const auto& line : sink_->lines()) {
            out += line + "\n";
        }
        return out;
    }

private:
    std::shared_ptr<CORE::CaptureSink> sink_ = std::make_shared<CORE::CaptureSink>();
};

// Loads a server's chain (its certificate first) and key into `ctx`.
inline bool useIdentity(SSL_CTX& ctx, const std::string& chainPem, const std::string& keyPem) {
    auto chain = certs::x509sFromPemBundle(chainPem);
    net::BioPtr bio(BIO_new_mem_buf(keyPem.data(), static_cast<int>(keyPem.size())));
    EVP_PKEY* key = PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr);
    bool ok = key != nullptr && !chain.empty() &&
              SSL_CTX_use_certificate(&ctx, chain[0].get()) == 1 &&
              SSL_CTX_use_PrivateKey(&ctx, key) == 1;
    for (std::size_t i = 1; ok && i < chain.size(); ++i) {
        ok = SSL_CTX_add1_chain_cert(&ctx, chain[i].get()) == 1;
    }
    EVP_PKEY_free(key);
    return ok;
}

// An HTTP(S) server on 127.0.0.1 answering every method and path through one
// handler. It counts the requests that reached it.
class TestServer {
public:
    using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

    // HTTPS with the given chain (server certificate first) and key.
    TestServer(const std::string& chainPem, const std::string& keyPem, Handler handler)
        : handler_(std::move(handler)) {
        server_ = std::make_unique<httplib::SSLServer>(
            [&](SSL_CTX& ctx) { return useIdentity(ctx, chainPem, keyPem); });
        start();
    }
    // Plain HTTP.
    explicit TestServer(Handler handler) : handler_(std::move(handler)) {
        server_ = std::make_unique<httplib::Server>();
        start();
    }
    ~TestServer() {
        release();
        server_->stop();
        if (thread_.joinable()) {
            thread_.join();
        }
    }
    TestServer(const TestServer&) = delete;
    TestServer& operator=(const TestServer&) = delete;

    int port() const { return port_; }
    std::string url(const std::string& path = "/") const {
        return std::string(tls_ ? "https" : "http") + "://127.0.0.1:" + std::to_string(port_) +
               path;
    }
    int requests() const { return requests_.load(); }
    std::optional<httplib::Request> last() const {
        std::lock_guard lock(mutex_);
        return last_;
    }
    bool waitForRequests(int n, std::chrono::milliseconds limit = 10s) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, limit, [&] { return requests_.load() >= n; });
    }
    // Lets handlers that wait in holdUntilReleased() go on.
    void release() {
        std::lock_guard lock(mutex_);
        released_ = true;
        cv_.notify_all();
    }
    // For handlers: waits (bounded) until the test releases the server.
    bool holdUntilReleased(std::chrono::milliseconds limit = 10s) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, limit, [&] { return released_; });
    }

private:
    void start() {
        tls_ = dynamic_cast<httplib::SSLServer*>(server_.get()) != nullptr;
        auto handle = [this](const httplib::Request& req, httplib::Response& res) {
            {
                std::lock_guard lock(mutex_);
                last_ = req;
                ++requests_;
                cv_.notify_all();
            }
            handler_(req, res);
        };
        server_->Get(".*", handle);
        server_->Post(".*", handle);
        server_->Put(".*", handle);
        server_->Delete(".*", handle);
        port_ = server_->bind_to_any_port("127.0.0.1");
        if (port_ > 0) {
            thread_ = std::thread([this] { server_->listen_after_bind(); });
        }
    }

    Handler handler_;
    std::unique_ptr<httplib::Server> server_;
    bool tls_ = false;
    int port_ = -1;
    std::thread thread_;
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::atomic<int> requests_{0};
    std::optional<httplib::Request> last_;
    bool released_ = false;
};

inline TestServer::Handler answer(int status, std::string body) {
    return [status, body](const httplib::Request&, httplib::Response& res) {
        res.status = status;
        res.set_content(body, "application/octet-stream");
    };
}

// A listening socket on 127.0.0.1. Left alone it never accepts: connections
// complete in the kernel and then hear nothing.
class LoopbackListener {
public:
    LoopbackListener() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        ::bind(fd_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        ::listen(fd_.get(), 16);
        ::getsockname(fd_.get(), reinterpret_cast<sockaddr*>(&addr), &len);
        port_ = ntohs(addr.sin_port);
    }
    int port() const { return port_; }
    int fd() const { return fd_.get(); }

private:
    platform::UniqueFd fd_;
    int port_ = 0;
};

// A free port on 127.0.0.1 (closed again; a caller that fails to bind it
// retries with another).
inline int freePort() {
    LoopbackListener probe;
    return probe.port();
}

// A TLS server that reads one request head and answers with raw bytes (not
// necessarily HTTP), then closes.
class RawTlsServer {
public:
    RawTlsServer(const std::string& chainPem, const std::string& keyPem, std::string reply)
        : reply_(std::move(reply)), ctx_(SSL_CTX_new(TLS_server_method())) {
        useIdentity(*ctx_, chainPem, keyPem);
        thread_ = std::thread([this] { serve(); });
    }
    ~RawTlsServer() {
        ::shutdown(listener_.fd(), SHUT_RDWR);  // ends the blocked accept()
        thread_.join();
    }
    std::string url() const {
        return "https://127.0.0.1:" + std::to_string(listener_.port()) + "/";
    }

private:
    void serve() {
        for (;;) {
            const platform::UniqueFd fd(::accept(listener_.fd(), nullptr, nullptr));
            if (!fd) {
                break;
            }
            timeval tv{5, 0};
            ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            net::SslPtr ssl(SSL_new(ctx_.get()));
            SSL_set_fd(ssl.get(), fd.get());
            if (SSL_accept(ssl.get()) != 1) {
                continue;
            }
            std::string head;
            char buf[1024];
            for (int n = 0; head.find("\r\n\r\n") == std::string::npos &&
                            (n = SSL_read(ssl.get(), buf, sizeof buf)) > 0;) {
                head.append(buf, static_cast<std::size_t>(n));
            }
            SSL_write(ssl.get(), reply_.data(), static_cast<int>(reply_.size()));
            SSL_shutdown(ssl.get());
        }
    }

    LoopbackListener listener_;
    std::string reply_;
    net::SslCtxPtr ctx_;
    std::thread thread_;
};

}  // namespace ndpx::test
