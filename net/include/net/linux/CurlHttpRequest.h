#pragma once
// HttpRequest over libcurl with the OpenSSL backend.
//
// The server checks of HttpRequest.h replace OpenSSL's certificate
// verification for the connection (SSL_CTX_set_cert_verify_callback, set up
// through CURLOPT_SSL_CTX_FUNCTION): a failing check aborts the handshake,
// so no byte of the request is sent. Chains are built and judged by the
// machine's certificate store: its trusted roots, and for revocation checks
// the CRLs it holds, fetched from a certificate's distribution points when
// it holds none for it (and kept). A certificate whose CRL can be neither
// found nor fetched fails a revocation check as "status unknown".
//
// Each asynchronous request runs on a thread owned by the object; the
// synchronous forms run on the caller's thread. cancelRequest(), called from
// any thread, ends a running request of either form promptly. Redirects are
// not followed (a 3xx answer is reported as such). Proxy choice for each
// request: an explicit proxy without PAC URL; else the PAC script's answer
// (explicit PAC URL, then the user's auto-configuration URL) when it names a
// proxy; else the explicit proxy; else the user's proxy (the environment);
// else direct. HTTPS proxies are not used.

#include "certs/CertUtilityInterface.h"
#include "certs/linux/OpenSslCertStore.h"
#include "net/CancelToken.h"
#include "net/HttpRequest.h"
#include "net/ProxyConfig.h"

#include <curl/curl.h>
#include <mfw/corelock.h>
#include <openssl/x509.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace ndpx::net {

struct ParsedUrl;

class CurlHttpRequest final : public HttpRequest {
public:
    static constexpr std::uint64_t kDefaultMaxRequestSize = 0xFFFFFFFFull;
    static constexpr std::uint64_t kDefaultUploadChunkSize = 0x400000;  // 4 MiB
    static constexpr std::uint64_t kDefaultMaxResponseSize = 64ull << 20;

    // Checks against `machineStore`; null means the machine's own store.
    explicit CurlHttpRequest(std::shared_ptr<certs::CertUtilityInterface> machineStore = nullptr);
    ~CurlHttpRequest() override;
    CurlHttpRequest(const CurlHttpRequest&) = delete;
    CurlHttpRequest& operator=(const CurlHttpRequest&) = delete;

    bool getSync(const std::string& url, std::string& response) override;
    bool postSync(ContentType type, const std::string& url, const std::string& body,
                  std::string& response) override;
    bool putSync(ContentType type, const std::string& url, const std::string& body,
                 std::string& response) override;
    bool putSyncReversed(ContentType type, const std::string& url, std::string& response,
                         const std::string& body) override;
    bool deleteSync(const std::string& url, std::string& response) override;
    bool getAsync(const std::string& url, Callback callback) override;
    bool postAsync(ContentType type, const std::string& url, const std::string& body,
                   Callback callback) override;
    bool putAsync(ContentType type, const std::string& url, const std::vector<std::uint8_t>& buffer,
                  std::size_t length, Callback callback) override;
    bool putStringAsync(ContentType type, const std::string& url, const std::string& body,
                        Callback callback) override;
    bool putFileAsync(ContentType type, const std::string& url, const std::string& filePath,
                      Callback callback) override;

    void ignoreAllCertErrors() override;
    void ignoreNameMismatch() override;
    void setAdditionalStore(std::vector<std::string> certificatesPem) override;
    void enableRevocationCheck() override;
    void setHeaders(const HeaderMap& headers) override;
    void setQueryParams(const HeaderMap& params) override;
    void setPinnedThumbprint(const std::string& thumbprint) override;
    void setTimeout(std::uint32_t seconds) override;
    void setProxyServer(const std::string& server) override;
    void setProxyBypass(const std::string& bypass) override;
    void setProxyCredentials(const std::string& user, const std::string& password) override;
    void setPacUrl(const std::string& url) override;
    void cancelRequest() override;
    std::uint32_t getResponseCode() override;
    std::string getResponseHeaders() override;
    std::string getResponseBody() override;
    bool isSuccess() override;

    // Settings beyond the interface.
    void setMaxRequestSize(std::uint64_t bytes);
    void setUploadChunkSize(std::uint64_t bytes);
    void setMaxResponseSize(std::uint64_t bytes);
    void setPacLimits(const PacLimits& limits);
    // The user's proxy settings (default: this process's environment).
    void setUserProxyConfig(std::shared_ptr<ProxyConfig> config);

    // Observations.
    struct Timeouts {
        std::uint32_t resolveMs;
        std::uint32_t connectMs;
        std::uint32_t sendMs;
        std::uint32_t receiveMs;
        std::uint32_t totalMs;
    };
    Timeouts timeouts() const;
    bool chainVerified() const;
    // File chunks read for the last file upload.
    std::uint64_t uploadChunksRead() const { return uploadChunks_.load(); }
    // 0 when the last request reached its end without a transport or TLS
    // failure, else libcurl's error code.
    int transportError() const;
    // The proxy URL the last request used; empty when it went direct.
    std::string lastProxy() const;
    // The query text ("?a=1&b=2&") the last request was built with.
    std::string queryString() const;

private:
    struct Transfer;
    struct Query;
    enum class State { Idle, Running, Completing };
    // Survives the object, so a completion thread that outlives it (the
    // callback released the last owner) can still finish safely. Its mutex
    // guards the object's state as well.
    struct Shared {
        CORE::Mutex mutex;
        std::condition_variable changed;
        State state MFW_GUARDED_BY(mutex) = State::Idle;
        std::uint64_t generation MFW_GUARDED_BY(mutex) = 0;
        std::thread::id completingThread MFW_GUARDED_BY(mutex);
    };
    // What the setters configure; each request starts from a copy.
    struct Config {
        std::shared_ptr<ProxyConfig> userProxy;
        std::string proxyServer;
        std::string proxyBypass;
        std::string proxyUser;
        std::string proxyPassword;
        std::string pacUrl;
        std::string requestBody;
        std::string uploadFilePath;
        HeaderMap headers;
        HeaderMap queryParams;
        std::vector<std::string> additionalPems;
        PacLimits pacLimits;
        bool ignoreAllCertErrors = false;
        bool ignoreNameMismatch = false;
        bool checkRevocation = false;
        std::string pinnedThumbprint;
        std::uint32_t timeoutMs = kDefaultTimeoutMs;
        std::uint64_t maxRequestSize = kDefaultMaxRequestSize;
        std::uint64_t uploadChunkSize = kDefaultUploadChunkSize;
        std::uint64_t maxResponseSize = kDefaultMaxResponseSize;
    };
    struct Outcome {
        bool cancelled = false;
        bool timedOut = false;  // the overall budget of a synchronous request
        CURLcode error = CURLE_OK;
        std::string body;
    };

    // Sets the content type (None leaves the header as it is) and the body.
    void stageBody(ContentType type, std::string body, std::string filePath)
        MFW_EXCLUDES(shared_->mutex);
    bool performAsync(HttpMethod method, const std::string& url, Callback callback)
        MFW_EXCLUDES(shared_->mutex);
    bool performSync(HttpMethod method, const std::string& url, const std::string& body,
                     std::string& response) MFW_EXCLUDES(shared_->mutex);
    // A transfer ready to run, with the object marked as running it; null
    // (logged) when the request cannot start.
    std::unique_ptr<Transfer> prepare(HttpMethod method, const std::string& url)
        MFW_EXCLUDES(shared_->mutex);
    bool busy() const MFW_REQUIRES(shared_->mutex);
    // Everything but the object's state; `query` is set once it is built.
    std::unique_ptr<Transfer> makeTransfer(HttpMethod method, const std::string& url,
                                           const ParsedUrl& parsed, Config config, Query& query);
    static bool setUpTransfer(Transfer& t);
    Outcome run(Transfer& t, bool async) MFW_EXCLUDES(shared_->mutex);
    static std::string getProxyURL(Transfer& t);
    static void logRequestError(const Transfer& t, CURLcode rc);
    void joinWorkers(bool all) MFW_EXCLUDES(shared_->mutex);
    static Timeouts computeTimeouts(std::uint32_t totalMs);

    // Server checks, in the TLS handshake.
    static int verifyCallback(X509_STORE_CTX* ctx, void* arg);
    static CURLcode sslContextCallback(CURL* curl, void* sslCtx, void* userptr);
    static std::size_t readCallback(char* buffer, std::size_t size, std::size_t count, void* user);
    static std::size_t writeCallback(char* data, std::size_t size, std::size_t count, void* user);
    static std::size_t headerCallback(char* data, std::size_t size, std::size_t count, void* user);
    bool verifyServer(Transfer& t, X509_STORE_CTX* ctx) MFW_EXCLUDES(shared_->mutex);
    bool SendingRequest(Transfer& t, const certs::CertContext& server) MFW_EXCLUDES(shared_->mutex);
    static bool checkAsPlatform(Transfer& t, const certs::CertContext& server);

    const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
    const std::shared_ptr<certs::CertUtilityInterface> machineStore_;
    Config config_ MFW_GUARDED_BY(shared_->mutex);

    // The current (or last) request.
    std::string queryString_ MFW_GUARDED_BY(shared_->mutex);
    bool chainVerified_ MFW_GUARDED_BY(shared_->mutex) = false;
    std::uint32_t statusCode_ MFW_GUARDED_BY(shared_->mutex) = 0;
    std::string responseHeaders_ MFW_GUARDED_BY(shared_->mutex);
    std::string responseBody_ MFW_GUARDED_BY(shared_->mutex);
    bool requestComplete_ MFW_GUARDED_BY(shared_->mutex) = false;
    std::string lastProxy_ MFW_GUARDED_BY(shared_->mutex);
    CURLcode transportError_ MFW_GUARDED_BY(shared_->mutex) = CURLE_OK;
    std::shared_ptr<CancelToken> cancel_ MFW_GUARDED_BY(shared_->mutex);
    std::atomic<std::uint64_t> uploadChunks_{0};

    // Completion threads: the current one and earlier ones not yet joined.
    std::thread worker_ MFW_GUARDED_BY(shared_->mutex);
    std::vector<std::thread> retired_ MFW_GUARDED_BY(shared_->mutex);
};

// Requests checked against the machine's trusted roots.
HttpRequestFactory curlHttpRequestFactory();
// Requests checked against the given certificate store.
HttpRequestFactory curlHttpRequestFactory(std::shared_ptr<certs::CertUtilityInterface> store);

// Fetches CRLs from their distribution points for the certificate store's
// revocation checks: http, directly (no proxy), within 15 s and 16 MiB. A
// fetch made for a request's server checks ends when that request is
// cancelled.
certs::OpenSslCertStore::CrlFetcher crlFetcher();

}  // namespace ndpx::net
