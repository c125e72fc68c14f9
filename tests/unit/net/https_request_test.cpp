// The HTTPS client against real TLS servers on loopback: server checks made
// in the handshake (nothing reaches a refused server), answers and failures
// as the caller sees them, the time budget, cancel, bodies, query and headers.

#include "NetTestSupport.h"

#include "net/linux/CurlHttpRequest.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <map>
#include <mutex>
#include <thread>

namespace ndpx::net {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;
using test::pki;
using test::TestServer;
using Clock = std::chrono::steady_clock;
using Store = std::shared_ptr<certs::CertUtilityInterface>;

std::shared_ptr<CurlHttpRequest> makeRequest(Store store = pki().trusted,
                                             const std::string& pin = "") {
    auto request = std::make_shared<CurlHttpRequest>(std::move(store));
    // The machine's proxy environment must not steer the tests.
    request->setUserProxyConfig(std::make_shared<ProxyConfig>(
        [](const char*) -> std::optional<std::string> { return std::nullopt; }));
    if (!pin.empty()) {
        request->setPinnedThumbprint(pin);
    }
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

TEST(HttpsRequestTrust, PinAcceptsAnUnknownRootOnlyOnExactMatchATrustedChainSkipsIt) {
    LogCapture log;
    TestServer server = serverFor(pki().leaf, test::answer(200, "paired"));
    const std::string leafPin = test::expectedThumbprint(pki().leaf.certPem);
    ASSERT_EQ(leafPin.size(), 95u);

    auto good = makeRequest(pki().untrusted, leafPin);
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
        makeRequest(pki().machineStore("noroots.sqlite", "/nonexistent/roots.pem"),
                    test::expectedThumbprint(pki().inter.certPem()));
    EXPECT_TRUE(viaIntermediate->getSync(server.url(), response));
    EXPECT_EQ(viaIntermediate->getResponseCode(), 200u);
    EXPECT_EQ(server.requests(), 2);

    // A lower-case pin, the root's pin (the root was not sent) and a pin of
    // another certificate never match, and the server hears nothing.
    std::string lower = leafPin;
    std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
    for (const auto& pin : {lower, test::expectedThumbprint(pki().root.certPem()),
                            test::expectedThumbprint(pki().wrongName.certPem)}) {
        auto bad = makeRequest(pki().untrusted, pin);
        response = "untouched";
        EXPECT_FALSE(bad->getSync(server.url(), response));
        EXPECT_EQ(response, "");
        EXPECT_EQ(bad->getResponseCode(), 0u);
        EXPECT_FALSE(bad->isSuccess());
        EXPECT_FALSE(bad->chainVerified());
    }
    EXPECT_EQ(log.count("SendingRequest(): Thumbprints did not match"), 3u);
    EXPECT_EQ(server.requests(), 2);

    // A trusted chain passes without the pin being compared, and a second
    // request through the same object is not checked again.
    log.clear();
    auto trusted = makeRequest(pki().trusted, "00:11");
    EXPECT_TRUE(trusted->getSync(server.url(), response));
    EXPECT_TRUE(trusted->getSync(server.url(), response));
    EXPECT_EQ(response, "paired");
    EXPECT_FALSE(log.contains("Thumbprints did not match"));
    EXPECT_FALSE(log.contains("Received cert chain from server"));
    EXPECT_TRUE(log.contains(
        "SendingRequest(): Skip as server certificate chain has already been verified"));
    EXPECT_EQ(server.requests(), 4);
}

enum Options : unsigned { kRevocation = 1, kIgnoreName = 2, kIgnoreAll = 4 };

TEST(HttpsRequestTrust, RefusedServersHearNothingAndRelaxedChecksLetRequestsThrough) {
    struct Case {
        const devca::Issued* cert;
        Store trust;
        unsigned options;
        std::string pin;
        const char* refusal;  // the line logged, or nullptr when the request goes through
    };
    const auto& p = pki();
    const Case cases[] = {
        {&p.leaf, p.untrusted, 0, "", "Certificate Authority is unrecognized"},
        {&p.expired, p.trusted, 0, "", "Certificate is expired"},
        {&p.wrongName, p.trusted, 0, "", "Certificate Common Name is incorrect"},
        {&p.wrongName, p.trusted, 0, test::expectedThumbprint(p.wrongName.certPem),
         "Found a CN/SAN mismatch"},
        {&p.revoked, p.trustedWithCrls, kRevocation, "", "Certificate has been revoked"},
        {&p.revoked, p.trustedWithCrls, kRevocation, "unused",
         "Revocation check failed. Status: 0x4 Info: 0x0"},
        // Without CRLs the status is unknown, which fails too.
        {&p.leaf, p.trusted, kRevocation, "unused", "Revocation check failed. Status: 0x1000040"},
        {&p.leaf, p.trustedWithCrls, kRevocation, "", nullptr},
        {&p.wrongName, p.trusted, kIgnoreName, "", nullptr},
        {&p.wrongName, p.trusted, kIgnoreName, "unused", nullptr},
        {&p.wrongName, p.untrusted, kIgnoreAll, "", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
        LogCapture log;
        TestServer server = serverFor(*c.cert, test::answer(200, "ok"));
        auto request = makeRequest(c.trust, c.pin);
        if (c.options & kRevocation) {
            request->enableRevocationCheck();
        }
        if (c.options & kIgnoreName) {
            request->ignoreNameMismatch();
        }
        if (c.options & kIgnoreAll) {
            request->ignoreAllCertErrors();
        }
        std::string response;
        EXPECT_EQ(request->getSync(server.url(), response), c.refusal == nullptr);
        EXPECT_EQ(response, c.refusal ? "" : "ok");
        EXPECT_EQ(server.requests(), c.refusal ? 0 : 1);
        if (c.refusal) {
            EXPECT_TRUE(log.contains(c.refusal)) << log.all();
        }
    }
}

// Certificates that name where their CA publishes its CRL: a store without
// those CRLs fetches them once, keeps them, and judges by them; a CRL that
// cannot be fetched leaves the status unknown.
TEST(HttpsRequestTrust, MissingCrlsAreFetchedFromDistributionPointsAndKept) {
    std::map<std::string, std::string> published;  // path -> CRL, filled below
    std::mutex publishedMutex;
    std::atomic<bool> hold{false};
    TestServer crlServer([&](const httplib::Request& req, httplib::Response& res) {
        if (hold) {
            crlServer.holdUntilReleased();
        }
        std::lock_guard lock(publishedMutex);
        const auto found = published.find(req.path);
        res.status = found != published.end() ? 200 : 404;
        res.set_content(found != published.end() ? found->second : "", "application/pkix-crl");
    });
    auto root = devca::CertificateAuthority::createRoot("CDP Root");
    root.setCrlDistributionPoint(crlServer.url("/root.crl"));
    auto inter = root.createIntermediate("CDP Intermediate");
    inter.setCrlDistributionPoint(crlServer.url("/inter.crl"));
    const auto good = inter.issueServer("localhost", {"localhost"}, {"127.0.0.1"});
    const auto revoked = inter.issueServer("localhost", {"localhost"}, {"127.0.0.1"});
    inter.revoke(revoked.serialHex);
    test::TempDir dir;
    const auto rootFile = dir.path() / "root.pem";
    test::writeFile(rootFile, root.certPem());
    const auto storeAt = [&](const char* name) {
        certs::OpenSslCertStore::Options o;
        o.databaseFile = (dir.path() / name).string();
        o.systemRootsFile = rootFile.string();
        o.crlFetcher = crlFetcher();
        return std::make_shared<certs::OpenSslCertStore>(o);
    };
    const auto fetch = [&](const Store& store, const devca::Issued& leaf, std::string& response) {
        TestServer server(leaf.certPem + inter.certPem(), leaf.keyPem, test::answer(200, "ok"));
        auto request = makeRequest(store);
        request->enableRevocationCheck();
        return request->getSync(server.url(), response) && server.requests() == 1;
    };
    std::string response;
    {
        // Nothing published yet: the status stays unknown.
        LogCapture log;
        EXPECT_FALSE(fetch(storeAt("unpublished.sqlite"), good, response));
        EXPECT_TRUE(log.contains("Unable to fetch CRL from " + crlServer.url("/inter.crl")));
        EXPECT_TRUE(log.contains("RequestCallback(): Certificate revocation check failed"));
    }
    {
        std::lock_guard lock(publishedMutex);
        published = {{"/root.crl", root.crlPem()}, {"/inter.crl", inter.crlPem()}};
    }
    const int before = crlServer.requests();
    const auto store = storeAt("machine.sqlite");
    LogCapture log;
    EXPECT_TRUE(fetch(store, good, response));
    EXPECT_EQ(response, "ok");
    EXPECT_TRUE(log.contains("Fetched CRL from " + crlServer.url("/inter.crl")));
    EXPECT_TRUE(log.contains("Fetched CRL from " + crlServer.url("/root.crl")));
    EXPECT_EQ(crlServer.requests(), before + 2);
    // Kept: the revoked certificate is judged without fetching again.
    EXPECT_FALSE(fetch(store, revoked, response));
    EXPECT_TRUE(log.contains("RequestCallback(): Certificate has been revoked"));
    EXPECT_EQ(crlServer.requests(), before + 2);

    // A fetch made for a request's checks ends when the request is cancelled.
    hold = true;
    TestServer server(good.certPem + inter.certPem(), good.keyPem, test::answer(200, "ok"));
    auto request = makeRequest(storeAt("cancelled.sqlite"));
    request->enableRevocationCheck();
    std::atomic<int> calls{0};
    ASSERT_TRUE(request->getAsync(server.url(), [&](HttpRequest*, std::string) { ++calls; }));
    ASSERT_TRUE(crlServer.waitForRequests(before + 3));
    request->cancelRequest();
    EXPECT_FALSE(log.contains("cancelRequest(): Failed to wait for cancel event"))
        << "the CRL fetch outlived the cancel";
    crlServer.release();
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(server.requests(), 0);
}

// --- Answers and failures ---

TEST(HttpsRequestAnswers, StatusAndBodyReachTheCallerWhoMayStartTheNextRequest) {
    const std::string bytes("\0\x01\xff garbage \0", 13);
    TestServer server =
        serverFor(pki().leaf, [&](const httplib::Request& req, httplib::Response& res) {
            res.status = req.path == "/fail" ? 500 : 200;
            res.set_content(req.path == "/fail" ? "oops" : bytes, "application/octet-stream");
        });
    EXPECT_TRUE(isSuccessStatus(200) && isSuccessStatus(299));
    EXPECT_FALSE(isSuccessStatus(199) || isSuccessStatus(300));
    EXPECT_STREQ(contentTypeValue(ContentType::Zip), "application/zip");
    EXPECT_EQ(contentTypeValue(static_cast<ContentType>(9)), nullptr);

    auto request = makeRequest();
    std::string response;
    EXPECT_TRUE(request->getSync(server.url("/fail"), response));
    EXPECT_EQ(response, "oops");
    EXPECT_FALSE(request->isSuccess());
    EXPECT_NE(request->getResponseHeaders().find("HTTP/1.1 500"), std::string::npos);
    EXPECT_FALSE(request->postSync(ContentType::Json, server.url("/fail"), "{}", response));

    Completions done;
    auto second = done.callback();
    ASSERT_TRUE(request->getAsync(server.url("/bytes"), [&](HttpRequest* r, std::string body) {
        EXPECT_EQ(body, bytes);
        EXPECT_EQ(r->getResponseCode(), 200u);
        EXPECT_TRUE(r->isSuccess());
        EXPECT_TRUE(r->getAsync(server.url("/fail"), second));
    }));
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(done.body, "oops");
    EXPECT_EQ(done.status, 500u);
    EXPECT_EQ(server.requests(), 4);
}

TEST(HttpsRequestAnswers, BrokenRepliesEndTheRequestOnceWithWhatWasRead) {
    const std::tuple<std::string, std::string, const char*> cases[] = {
        {"certainly not HTTP\r\n\r\n", "", "RequestCallback(): ReceiveResponse failed: 0x"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nonly ten..", "only ten..",
         "RequestCallback(): ReadData failed: 0x"},
    };
    for (const auto& [reply, body, line] : cases) {
        LogCapture log;
        test::RawTlsServer server(pki().chainOf(pki().leaf), pki().leaf.keyPem, reply);
        auto request = makeRequest();
        Completions done;
        ASSERT_TRUE(request->getAsync(server.url(), done.callback()));
        ASSERT_TRUE(done.wait());
        EXPECT_EQ(done.calls, 1);
        EXPECT_EQ(done.body, body);
        EXPECT_TRUE(log.contains(line)) << log.all();
    }
}

// --- Time budget and cancel ---

TEST(HttpsRequestTime, BudgetIsSharedOutAndEnforcedAndCancelIsPrompt) {
    auto request = makeRequest();
    auto t = request->timeouts();
    EXPECT_EQ(std::vector<std::uint32_t>({t.resolveMs, t.connectMs, t.sendMs, t.receiveMs}),
              std::vector<std::uint32_t>({30000, 60000, 30000, 30000}));
    request->setTimeout(10);
    t = request->timeouts();
    EXPECT_EQ(
        std::vector<std::uint32_t>({t.resolveMs, t.connectMs, t.sendMs, t.receiveMs, t.totalMs}),
        std::vector<std::uint32_t>({2000, 4000, 2000, 2000, 10000}));

    // Fails a request with a one-second budget within `limit`, logging `lines`.
    const auto expectTimedOut = [](const std::string& url, std::chrono::milliseconds limit,
                                   std::vector<const char*> lines) {
        SCOPED_TRACE(url);
        LogCapture log;
        auto r = makeRequest();
        r->setTimeout(1);
        std::string response;
        const auto start = Clock::now();
        EXPECT_FALSE(r->getSync(url, response));
        EXPECT_LT(Clock::now() - start, limit);
        for (const char* line : lines) {
            EXPECT_TRUE(log.contains(line)) << line << "\n" << log.all();
        }
        return Clock::now() - start;
    };
    // Accepts the connection, never says a word: the connect share runs out.
    test::LoopbackListener silent;
    expectTimedOut("https://127.0.0.1:" + std::to_string(silent.port()) + "/", 1500ms,
                   {"RequestCallback(): SendRequest failed: 0x1c"});

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
    expectTimedOut(server.url("/silent"), 1500ms,
                   {"RequestCallback(): ReceiveResponse failed: 0x1c",
                    "RequestCallback(): No data moved for 200 ms"});
    EXPECT_GE(expectTimedOut(server.url("/trickle"), 2000ms,
                             {"performSync(): Waiting for http request failed"}),
              1000ms);

    // Cancel aborts at once, and the callback never runs.
    const int before = server.requests();
    Completions done;
    ASSERT_TRUE(request->getAsync(server.url(), done.callback()));
    ASSERT_TRUE(server.waitForRequests(before + 1));
    auto start = Clock::now();
    request->cancelRequest();
    EXPECT_LT(Clock::now() - start, 500ms);
    EXPECT_EQ(done.calls, 0);

    // The object serves the next request; destroying it mid-request cancels.
    ASSERT_TRUE(request->getAsync(server.url(), done.callback()));
    ASSERT_TRUE(server.waitForRequests(before + 2));
    start = Clock::now();
    request.reset();
    EXPECT_LT(Clock::now() - start, 500ms);
    EXPECT_EQ(done.calls, 0);
}

// At shutdown a caller cancels a synchronous request that another thread is
// waiting in: the waiting thread gets its answer at once.
TEST(HttpsRequestTime, CancelEndsASynchronousRequestRunningOnAnotherThread) {
    LogCapture log;
    TestServer server = serverFor(pki().leaf, [&](const httplib::Request&, httplib::Response& res) {
        server.holdUntilReleased();
        res.set_content("late", "application/json");
    });
    auto request = makeRequest();
    request->setTimeout(10);  // a cancel that misses still ends within seconds
    std::atomic<bool> ok{true};
    std::string response = "untouched";
    std::thread caller(
        [&] { ok = request->postSync(ContentType::Json, server.url("/otp"), "{}", response); });
    const bool arrived = server.waitForRequests(1);
    const auto start = Clock::now();
    request->cancelRequest();
    const auto cancelTook = Clock::now() - start;
    caller.join();
    const auto answerTook = Clock::now() - start;
    server.release();

    ASSERT_TRUE(arrived);
    EXPECT_LT(cancelTook, 500ms);
    EXPECT_LT(answerTook, 500ms);
    EXPECT_FALSE(ok);
    EXPECT_EQ(response, "");
    EXPECT_TRUE(log.contains("cancelRequest(): The request was cancelled"));
    EXPECT_FALSE(log.contains("cancelRequest(): Failed to wait for cancel event"));
}

// The completion callback may release the last owner of the request; the
// object goes at once and its completion thread is still joined.
TEST(HttpsRequestTime, ACallbackMayReleaseTheLastOwner) {
    TestServer server = serverFor(pki().leaf, test::answer(200, "ok"));
    for (int round = 0; round < 3; ++round) {
        Completions done;
        std::promise<void> released;
        auto request = makeRequest();
        auto* raw = request.get();
        auto report = done.callback();
        ASSERT_TRUE(raw->getAsync(server.url(), [&, owner = std::move(request)](
                                                    HttpRequest* r, std::string body) mutable {
            report(r, std::move(body));
            owner.reset();  // the object is destroyed on its own completion thread
            released.set_value();
        }));
        ASSERT_TRUE(done.wait());
        EXPECT_EQ(done.body, "ok");
        // The destruction hands the completion thread to the process's
        // reaper; the test (and the process) must not end before it has.
        ASSERT_EQ(released.get_future().wait_for(10s), std::future_status::ready);
    }
    EXPECT_EQ(server.requests(), 3);
}

// --- Completion rules, bodies, query and headers ---

TEST(HttpsRequestCalls, RefusedRequestsNeverCallBackAndSendNothing) {
    LogCapture log;
    TestServer server = serverFor(pki().leaf, [&](const httplib::Request&, httplib::Response& res) {
        server.holdUntilReleased();
        res.set_content("ok", "text/plain");
    });
    Completions done;
    auto request = makeRequest();
    const std::pair<std::string, const char*> refusedUrls[] = {
        {"http://127.0.0.1:" + std::to_string(server.port()) + "/",
         "performAsync(): Only https is supported"},
        {"", "performAsync(): Empty url"},
        {"https://exa mple/", "performAsync(): Unable to parse url"},
    };
    for (const auto& [url, line] : refusedUrls) {
        EXPECT_FALSE(request->getAsync(url, done.callback())) << url;
        EXPECT_TRUE(log.contains(line)) << line;
    }
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

TEST(HttpsRequestCalls, BodiesFilesMethodsQueryAndHeadersArriveAsSentWithinTheSizeLimit) {
    LogCapture log;
    TestServer server = serverFor(pki().leaf, test::answer(201, "stored"));
    auto request = makeRequest();
    request->setHeaders({{"X-Agent", "a1"}});
    request->setQueryParams({{"vm id", "v/1"}});
    std::string response;
    EXPECT_TRUE(
        request->postSync(ContentType::Json, server.url("/otp?b=2"), R"({"otp":"1"})", response));
    auto seen = server.last();
    ASSERT_TRUE(seen);
    EXPECT_EQ(seen->method + " " + seen->path + " " + seen->body, R"(POST /otp {"otp":"1"})");
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
    EXPECT_EQ(server.last()->method + " " + server.last()->body, "PUT abc");

    // A file body is streamed in chunks: 4 MiB, then 1 MiB.
    test::TempDir dir;
    const auto file = (dir.path() / "body.bin").string();
    std::string content(5u << 20, '\0');
    for (std::size_t i = 0; i < content.size(); ++i) {
        content[i] = static_cast<char>(i * 7 % 251);
    }
    test::writeFile(file, content);
    ASSERT_TRUE(request->putFileAsync(ContentType::OctetStream, server.url("/upload"), file,
                                      done.callback()));
    ASSERT_TRUE(done.wait(2, 30s));
    EXPECT_EQ(done.body, "stored");
    EXPECT_EQ(request->uploadChunksRead(), 2u);
    EXPECT_TRUE(server.last()->body == content);
    EXPECT_FALSE(request->putFileAsync(ContentType::OctetStream, server.url(),
                                       (dir.path() / "missing").string(), done.callback()));

    // The size limit: exactly the maximum goes, one byte more does not.
    request->setMaxRequestSize(3);
    ASSERT_TRUE(request->putStringAsync(ContentType::Text, server.url(), "xyz", done.callback()));
    ASSERT_TRUE(done.wait(3));
    EXPECT_FALSE(request->putStringAsync(ContentType::Text, server.url(), "wxyz", done.callback()));
    EXPECT_TRUE(log.contains("performAsync(): Request data size is too large"));
    EXPECT_EQ(server.requests(), 5);
    EXPECT_FALSE(log.contains("otp"));  // bodies (secrets) are never logged
}

}  // namespace
}  // namespace ndpx::net
