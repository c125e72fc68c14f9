// The HTTPS client against real TLS servers on loopback: server checks made
// in the handshake (nothing reaches a refused server), answers and failures
// as the caller sees them, the time budget, cancel, bodies, query and headers.

#include "NetTestSupport.h"

#include "net/linux/CurlHttpRequest.h"

#include <gtest/gtest.h>

namespace ndpx::net {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;
using test::pki;
using test::TestServer;
using Clock = std::chrono::steady_clock;

std::shared_ptr<CurlHttpRequest> makeRequest(std::shared_ptr<certs::CertUtilityInterface> store) {
    auto request = std::make_shared<CurlHttpRequest>(std::move(store));
    // The machine's proxy environment must not steer the tests.
    request->setUserProxyConfig(std::make_shared<ProxyConfig>(
        [](const char*) -> std::optional<std::string> { return std::nullopt; }));
    return request;
}

TestServer serverFor(const devca::Issued& issued, TestServer::Handler handler) {
    return TestServer(pki().chainOf(issued), issued.keyPem, std::move(handler));
}

// Collects the completions of asynchronous requests.
struct Completions {
    std::mutex mutex;
    std::condition_variable cv;
    int calls = 0;
    std::string body;
    std::uint32_t status = 0;

    HttpRequest::Callback callback() {
        return [this](HttpRequest* request, std::string b) {
            const auto code = request->getResponseCode();
            std::lock_guard lock(mutex);
            ++calls;
            body = std::move(b);
            status = code;
            cv.notify_all();
        };
    }
    bool wait(int n = 1, std::chrono::milliseconds limit = 10s) {
        std::unique_lock lock(mutex);
        return cv.wait_for(lock, limit, [&] { return calls >= n; });
    }
};

// --- Server checks ---

TEST(HttpsRequestTrust, PinnedThumbprintAcceptsUnknownRootOnlyOnExactMatch) {
    LogCapture log;
    TestServer server = serverFor(pki().leaf, test::answer(200, "paired"));
    const std::string leafPin = test::expectedThumbprint(pki().leaf.certPem);
    ASSERT_EQ(leafPin.size(), 95u);

    auto good = makeRequest(pki().untrusted());
    good->setPinnedThumbprint(leafPin);
    std::string response;
    EXPECT_TRUE(good->getSync(server.url("/otp"), response));
    EXPECT_EQ(response, "paired");
    EXPECT_EQ(good->getResponseCode(), 200u);
    EXPECT_TRUE(good->chainVerified());
    EXPECT_TRUE(log.contains("SendingRequest(): Matched using the following chain:\r\n" +
                             pki().leaf.certPem));
    EXPECT_TRUE(log.contains("Received cert chain from server:\r\n" + pki().leaf.certPem +
                             pki().inter.certPem()));
    // The intermediate the server sent counts as well, and a machine without
    // readable roots can still pin.
    auto viaIntermediate =
        makeRequest(pki().machineStore("noroots.sqlite", "/nonexistent/roots.pem"));
    viaIntermediate->setPinnedThumbprint(test::expectedThumbprint(pki().inter.certPem()));
    EXPECT_TRUE(viaIntermediate->getSync(server.url(), response));
    EXPECT_EQ(viaIntermediate->getResponseCode(), 200u);
    EXPECT_EQ(server.requests(), 2);

    // A lower-case pin, the root's pin (the root was not sent) and a pin of
    // another certificate never match, and the server hears nothing.
    std::string lower = leafPin;
    std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
    for (const auto& pin : {lower, test::expectedThumbprint(pki().root.certPem()),
                            test::expectedThumbprint(pki().wrongName.certPem)}) {
        auto bad = makeRequest(pki().untrusted());
        bad->setPinnedThumbprint(pin);
        response = "untouched";
        EXPECT_FALSE(bad->getSync(server.url(), response));
        EXPECT_EQ(response, "");
        EXPECT_EQ(bad->getResponseCode(), 0u);
        EXPECT_FALSE(bad->isSuccess());
        EXPECT_FALSE(bad->chainVerified());
    }
    EXPECT_EQ(log.count("SendingRequest(): Thumbprints did not match"), 3u);
    EXPECT_EQ(server.requests(), 2);
}

TEST(HttpsRequestTrust, TrustedChainPassesWithoutComparingThePin) {
    LogCapture log;
    TestServer server = serverFor(pki().leaf, test::answer(200, "ok"));
    auto request = makeRequest(pki().trusted());
    request->setPinnedThumbprint("00:11");
    std::string response;
    EXPECT_TRUE(request->getSync(server.url(), response));
    EXPECT_EQ(request->getResponseCode(), 200u);
    EXPECT_FALSE(log.contains("Thumbprints did not match"));
    EXPECT_FALSE(log.contains("Received cert chain from server"));
    // A second request through the same object is not checked again.
    EXPECT_TRUE(request->getSync(server.url(), response));
    EXPECT_TRUE(log.contains(
        "SendingRequest(): Skip as server certificate chain has already been verified"));
    EXPECT_EQ(server.requests(), 2);
}

TEST(HttpsRequestTrust, UntrustedExpiredOrMisnamedServersHearNothing) {
    struct Case {
        const devca::Issued* cert;
        std::shared_ptr<certs::CertUtilityInterface> trust;
        const char* line;
    };
    const Case cases[] = {
        {&pki().leaf, pki().untrusted(),
         "RequestCallback(): Certificate Authority is unrecognized"},
        {&pki().expired, pki().trusted(), "RequestCallback(): Certificate is expired"},
        {&pki().wrongName, pki().trusted(),
         "RequestCallback(): Certificate Common Name is incorrect"},
    };
    for (const auto& c : cases) {
        LogCapture log;
        TestServer server = serverFor(*c.cert, test::answer(200, "secret"));
        auto request = makeRequest(c.trust);
        std::string response;
        request->getSync(server.url(), response);
        EXPECT_TRUE(log.contains(c.line)) << c.line << "\n" << log.all();
        EXPECT_TRUE(log.contains("RequestCallback(): SendRequest failed: 0x"));
        EXPECT_EQ(response, "");
        EXPECT_EQ(server.requests(), 0) << c.line;
    }
}

TEST(HttpsRequestTrust, NameMismatchIsToleratedOnlyWhenAsked) {
    TestServer server = serverFor(pki().wrongName, test::answer(200, "ok"));
    std::string response;
    {
        LogCapture log;
        auto pinned = makeRequest(pki().trusted());
        pinned->setPinnedThumbprint(test::expectedThumbprint(pki().wrongName.certPem));
        pinned->getSync(server.url(), response);
        EXPECT_TRUE(log.contains("SendingRequest(): Found a CN/SAN mismatch"));
        EXPECT_EQ(server.requests(), 0);
    }
    for (bool pinned : {false, true}) {
        auto request = makeRequest(pki().trusted());
        request->ignoreNameMismatch();
        if (pinned) {
            request->setPinnedThumbprint("unused");
        }
        EXPECT_TRUE(request->getSync(server.url(), response));
        EXPECT_EQ(request->getResponseCode(), 200u);
    }
    // ignoreAllCertErrors lets even an unknown root through.
    auto anything = makeRequest(pki().untrusted());
    anything->ignoreAllCertErrors();
    EXPECT_TRUE(anything->getSync(server.url(), response));
    EXPECT_EQ(anything->getResponseCode(), 200u);
    EXPECT_EQ(server.requests(), 3);
}

TEST(HttpsRequestTrust, RevocationCheckUsesTheMachineStoresCrls) {
    TestServer revokedServer = serverFor(pki().revoked, test::answer(200, "ok"));
    TestServer goodServer = serverFor(pki().leaf, test::answer(200, "ok"));
    std::string response;
    {
        LogCapture log;
        auto request = makeRequest(pki().trusted(true));
        request->enableRevocationCheck();
        request->getSync(revokedServer.url(), response);
        EXPECT_TRUE(log.contains("RequestCallback(): Certificate has been revoked"));
    }
    {
        LogCapture log;
        auto pinned = makeRequest(pki().trusted(true));
        pinned->enableRevocationCheck();
        pinned->setPinnedThumbprint("unused");
        pinned->getSync(revokedServer.url(), response);
        EXPECT_TRUE(
            log.contains("SendingRequest(): Revocation check failed. Status: 0x4 Info: 0x0"))
            << log.all();
    }
    EXPECT_EQ(revokedServer.requests(), 0);
    {
        // Without CRLs the status is unknown, which fails too.
        LogCapture log;
        auto unknown = makeRequest(pki().trusted(false));
        unknown->enableRevocationCheck();
        unknown->setPinnedThumbprint("unused");
        unknown->getSync(goodServer.url(), response);
        EXPECT_TRUE(log.contains("Revocation check failed. Status: 0x1000040"));
        EXPECT_EQ(goodServer.requests(), 0);
    }
    auto fine = makeRequest(pki().trusted(true));
    fine->enableRevocationCheck();
    EXPECT_TRUE(fine->getSync(goodServer.url(), response));
    EXPECT_EQ(fine->getResponseCode(), 200u);
    EXPECT_EQ(goodServer.requests(), 1);
}

// --- Answers and failures ---

TEST(HttpsRequestAnswers, StatusAndBodyReachTheCaller) {
    TestServer server = serverFor(pki().leaf, [](const httplib::Request& req,
                                                 httplib::Response& res) {
        if (req.path == "/fail") {
            res.status = 500;
            res.set_content("oops", "text/plain");
        } else {
            res.status = 200;
            res.set_content(std::string("\0\x01\xff garbage \0", 13), "application/octet-stream");
        }
    });
    EXPECT_TRUE(isSuccessStatus(200) && isSuccessStatus(299));
    EXPECT_FALSE(isSuccessStatus(199) || isSuccessStatus(300));
    EXPECT_STREQ(contentTypeValue(ContentType::Json), "application/json");
    EXPECT_STREQ(contentTypeValue(ContentType::Zip), "application/zip");
    EXPECT_EQ(contentTypeValue(ContentType::None), nullptr);
    EXPECT_EQ(contentTypeValue(static_cast<ContentType>(9)), nullptr);

    auto request = makeRequest(pki().trusted());
    std::string response;
    EXPECT_TRUE(request->getSync(server.url("/fail"), response));
    EXPECT_EQ(response, "oops");
    EXPECT_EQ(request->getResponseCode(), 500u);
    EXPECT_FALSE(request->isSuccess());
    EXPECT_NE(request->getResponseHeaders().find("HTTP/1.1 500"), std::string::npos);
    EXPECT_FALSE(request->postSync(ContentType::Json, server.url("/fail"), "{}", response));

    Completions done;
    ASSERT_TRUE(request->getAsync(server.url("/bytes"), done.callback()));
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(done.body, std::string("\0\x01\xff garbage \0", 13));
    EXPECT_EQ(done.status, 200u);
    EXPECT_TRUE(request->isSuccess());
}

TEST(HttpsRequestAnswers, BrokenRepliesEndTheRequestWithWhatWasRead) {
    const auto& leaf = pki().leaf;
    {
        LogCapture log;
        test::RawTlsServer server(pki().chainOf(leaf), leaf.keyPem, "certainly not HTTP\r\n\r\n");
        auto request = makeRequest(pki().trusted());
        Completions done;
        ASSERT_TRUE(request->getAsync(server.url(), done.callback()));
        ASSERT_TRUE(done.wait());
        EXPECT_EQ(done.status, 0u);
        EXPECT_TRUE(log.contains("RequestCallback(): ReceiveResponse failed: 0x")) << log.all();
    }
    {
        LogCapture log;
        test::RawTlsServer server(pki().chainOf(leaf), leaf.keyPem,
                                  "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly ten..");
        auto request = makeRequest(pki().trusted());
        Completions done;
        ASSERT_TRUE(request->getAsync(server.url(), done.callback()));
        ASSERT_TRUE(done.wait());
        EXPECT_EQ(done.calls, 1);
        EXPECT_EQ(done.body, "only ten..");
        EXPECT_TRUE(log.contains("RequestCallback(): ReadData failed: 0x")) << log.all();
    }
}

// --- Time budget and cancel ---

TEST(HttpsRequestTime, BudgetIsSharedOutAndEnforced) {
    auto request = makeRequest(pki().trusted());
    auto t = request->timeouts();
    EXPECT_EQ(std::vector<std::uint32_t>({t.resolveMs, t.connectMs, t.sendMs, t.receiveMs}),
              std::vector<std::uint32_t>({30000, 60000, 30000, 30000}));
    request->setTimeout(10);
    t = request->timeouts();
    EXPECT_EQ(
        std::vector<std::uint32_t>({t.resolveMs, t.connectMs, t.sendMs, t.receiveMs, t.totalMs}),
        std::vector<std::uint32_t>({2000, 4000, 2000, 2000, 10000}));

    std::string response;
    {
        // Accepts the connection, never says a word: the connect share runs out.
        LogCapture log;
        test::LoopbackListener silent;
        auto r = makeRequest(pki().trusted());
        r->setTimeout(1);
        const auto start = Clock::now();
        r->getSync("https://127.0.0.1:" + std::to_string(silent.port()) + "/", response);
        EXPECT_LT(Clock::now() - start, 1500ms);
        EXPECT_TRUE(log.contains("RequestCallback(): SendRequest failed: 0x1c")) << log.all();
    }
    TestServer server = serverFor(pki().leaf, [&](const httplib::Request& req,
                                                  httplib::Response& res) {
        if (req.path == "/trickle") {
            // A byte every 100 ms: never idle for the receive share, always
            // too slow for the whole budget.
            res.set_chunked_content_provider("text/plain", [&](size_t, httplib::DataSink& sink) {
                sink.write("x", 1);
                return !server.holdUntilReleased(100ms);
            });
            return;
        }
        server.holdUntilReleased();
        res.set_content("late", "text/plain");
    });
    {
        LogCapture log;
        auto r = makeRequest(pki().trusted());
        r->setTimeout(1);
        const auto start = Clock::now();
        EXPECT_FALSE(r->getSync(server.url("/silent"), response));
        EXPECT_LT(Clock::now() - start, 1500ms);
        EXPECT_TRUE(log.contains("RequestCallback(): ReceiveResponse failed: 0x1c"));
        EXPECT_TRUE(log.contains("RequestCallback(): No data moved for 200 ms"));
    }
    {
        LogCapture log;
        auto r = makeRequest(pki().trusted());
        r->setTimeout(1);
        const auto start = Clock::now();
        EXPECT_FALSE(r->getSync(server.url("/trickle"), response));
        EXPECT_LT(Clock::now() - start, 2000ms);
        EXPECT_GE(Clock::now() - start, 1000ms);
        EXPECT_TRUE(log.contains("performSync(): Waiting for http request failed"));
    }
}

TEST(HttpsRequestTime, CancelAbortsPromptlyWithoutCallback) {
    TestServer server = serverFor(pki().leaf, [&](const httplib::Request&, httplib::Response& res) {
        server.holdUntilReleased();
        res.set_content("late", "text/plain");
    });
    Completions done;
    auto request = makeRequest(pki().trusted());
    ASSERT_TRUE(request->getAsync(server.url(), done.callback()));
    ASSERT_TRUE(server.waitForRequests(1));
    const auto start = Clock::now();
    request->cancelRequest();
    EXPECT_LT(Clock::now() - start, 500ms);
    EXPECT_EQ(done.calls, 0);

    // The object serves the next request; destroying it mid-request cancels.
    ASSERT_TRUE(request->getAsync(server.url(), done.callback()));
    ASSERT_TRUE(server.waitForRequests(2));
    const auto start2 = Clock::now();
    request.reset();
    EXPECT_LT(Clock::now() - start2, 500ms);
    EXPECT_EQ(done.calls, 0);
}

// --- Completion rules, bodies, query and headers ---

TEST(HttpsRequestCalls, RefusedRequestsNeverCallBackAndSendNothing) {
    LogCapture log;
    TestServer server = serverFor(pki().leaf, [&](const httplib::Request&, httplib::Response& res) {
        server.holdUntilReleased();
        res.set_content("ok", "text/plain");
    });
    Completions done;
    auto request = makeRequest(pki().trusted());
    EXPECT_FALSE(request->getAsync("http://127.0.0.1:" + std::to_string(server.port()) + "/",
                                   done.callback()));
    EXPECT_TRUE(log.contains("performAsync(): Only https is supported"));
    EXPECT_FALSE(request->getAsync("", done.callback()));
    EXPECT_TRUE(log.contains("performAsync(): Empty url"));
    EXPECT_FALSE(request->getAsync("https://exa mple/", done.callback()));
    EXPECT_TRUE(log.contains("performAsync(): Unable to parse url"));
    EXPECT_FALSE(request->getAsync(server.url(), nullptr));
    EXPECT_TRUE(log.contains("performAsync(): Invalid callback parameter"));
    EXPECT_FALSE(request->putAsync(ContentType::Text, server.url(), {1, 2, 3}, 4, done.callback()));
    EXPECT_TRUE(
        log.contains("putAsync(): Size of outgoing buffer is smaller than the given length"));
    request->setHeaders({{"X-Bad", "a\r\nInjected: yes"}});
    EXPECT_FALSE(request->getAsync(server.url(), done.callback()));
    request->setHeaders({});
    request->getResponseCode();
    EXPECT_TRUE(log.contains("getResponseCode(): Request did not complete"));

    // One request at a time per object.
    ASSERT_TRUE(request->getAsync(server.url(), done.callback()));
    EXPECT_FALSE(request->getAsync(server.url(), done.callback()));
    EXPECT_TRUE(log.contains("performAsync(): A request is already in progress"));
    server.release();
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(done.calls, 1);
    EXPECT_EQ(server.requests(), 1);
}

TEST(HttpsRequestCalls, CallbackMayStartTheNextRequest) {
    TestServer server =
        serverFor(pki().leaf, [](const httplib::Request& req, httplib::Response& res) {
            res.set_content(req.path, "text/plain");
        });
    auto request = makeRequest(pki().trusted());
    Completions done;
    auto second = done.callback();
    ASSERT_TRUE(request->getAsync(server.url("/first"), [&](HttpRequest* r, std::string body) {
        EXPECT_EQ(body, "/first");
        EXPECT_TRUE(r->getAsync(server.url("/second"), second));
    }));
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(done.body, "/second");
    EXPECT_EQ(server.requests(), 2);
}

TEST(HttpsRequestCalls, BodiesMethodsQueryAndHeadersArriveAsSent) {
    LogCapture log;
    TestServer server = serverFor(pki().leaf, test::answer(201, "stored"));
    auto request = makeRequest(pki().trusted());
    request->setHeaders({{"X-Agent", "a1"}});
    request->setQueryParams({{"vm id", "v/1"}});
    std::string response;
    EXPECT_TRUE(
        request->postSync(ContentType::Json, server.url("/otp?b=2"), R"({"otp":"1"})", response));
    auto seen = server.last();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->method, "POST");
    EXPECT_EQ(seen->path, "/otp");
    EXPECT_EQ(seen->body, R"({"otp":"1"})");
    EXPECT_EQ(seen->params.find("vm id")->second, "v/1");
    EXPECT_EQ(seen->params.find("b")->second, "2");
    EXPECT_EQ(request->queryString(), "?b=2&vm%20id=v%2F1&");
    EXPECT_EQ(seen->headers.find("Content-Type")->second, "application/json");
    EXPECT_EQ(seen->headers.find("X-Agent")->second, "a1");
    EXPECT_EQ(seen->headers.find("User-Agent")->second, "BWAgent");
    EXPECT_EQ(seen->headers.count("Expect"), 0u);

    EXPECT_TRUE(request->deleteSync(server.url("/x"), response));
    EXPECT_EQ(server.last()->method, "DELETE");
    Completions done;
    ASSERT_TRUE(request->putAsync(ContentType::OctetStream, server.url(), {'a', 'b', 'c', 'd'}, 3,
                                  done.callback()));
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(server.last()->method, "PUT");
    EXPECT_EQ(server.last()->body, "abc");

    // The size limit: exactly the maximum goes, one byte more does not.
    request->setMaxRequestSize(3);
    ASSERT_TRUE(request->putStringAsync(ContentType::Text, server.url(), "xyz", done.callback()));
    ASSERT_TRUE(done.wait(2));
    EXPECT_FALSE(request->putStringAsync(ContentType::Text, server.url(), "wxyz", done.callback()));
    EXPECT_TRUE(log.contains("performAsync(): Request data size is too large"));
    EXPECT_EQ(server.requests(), 4);
    EXPECT_FALSE(log.contains("otp"));  // bodies (secrets) are never logged
}

TEST(HttpsRequestCalls, FileBodyIsStreamedInChunks) {
    TestServer server = serverFor(pki().leaf, test::answer(200, "got it"));
    test::TempDir dir;
    const auto file = (dir.path() / "body.bin").string();
    std::string content(5u << 20, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i * 7 % 251);
    }
    test::writeFile(file, content);
    auto request = makeRequest(pki().trusted());
    Completions done;
    ASSERT_TRUE(request->putFileAsync(ContentType::OctetStream, server.url("/upload"), file,
                                      done.callback()));
    ASSERT_TRUE(done.wait(1, 30s));
    EXPECT_EQ(done.body, "got it");
    EXPECT_EQ(request->uploadChunksRead(), 2u);  // 4 MiB, then 1 MiB
    EXPECT_TRUE(server.last()->body == content);

    LogCapture log;
    EXPECT_FALSE(request->putFileAsync(ContentType::OctetStream, server.url(),
                                       (dir.path() / "missing").string(), done.callback()));
    EXPECT_EQ(server.requests(), 1);
}

}  // namespace
}  // namespace ndpx::net
