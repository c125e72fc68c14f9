// The chain probe and the connect helper under it, against real TLS
// servers: the probe returns what the server sent, trusting nothing; the
// helper applies the caller's TLS set-up; both end at their bounds.

#include "NetTestSupport.h"

#include "net/ChainProbe.h"
#include "net/TlsConnect.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <future>

namespace ndpx::net {
namespace {

using namespace std::chrono_literals;
using test::LogCapture;
using test::pki;

TEST(ChainProbeTest, ReturnsTheChainTheServerSentWithoutTrustingIt) {
    LogCapture log;
    test::TestServer server(pki().chainOf(pki().leaf), pki().leaf.keyPem, test::answer(200, ""));
    SSLHandler probe;
    std::vector<std::string> pems;
    ASSERT_TRUE(probe.GetCertChainStr(server.url(), pems));
    EXPECT_EQ(pems, (std::vector<std::string>{pki().leaf.certPem, pki().inter.certPem()}));
    EXPECT_TRUE(
        log.contains("SSLHandler::GetServerCertChain(): Retrieved 2 certificates from the "
                     "server"));
    EXPECT_TRUE(log.contains("SSLHandler::SSLConnect(): Connected via SSL to the server"));
    EXPECT_TRUE(log.contains("SSLHandler::ConnectToServer(): Connected to host: 127.0.0.1, port: " +
                             std::to_string(server.port())));

    // The chain built for the server certificate from what was probed.
    std::vector<std::string> chain;
    ASSERT_TRUE(probe.GetCertChainCtx(server.url(), pki().leaf.cert.get(), chain));
    EXPECT_EQ(chain, pems);

    // A server that sends only its own certificate yields just that one.
    test::TestServer lone(pki().leaf.certPem, pki().leaf.keyPem, test::answer(200, ""));
    ASSERT_TRUE(probe.GetCertChainStr(lone.url(), pems));
    EXPECT_EQ(pems, std::vector<std::string>{pki().leaf.certPem});
    EXPECT_EQ(server.requests() + lone.requests(), 0);
}

TEST(ChainProbeTest, UnreachableOrSilentServersFail) {
    LogCapture log;
    SSLHandler probe(300ms);
    std::vector<std::string> pems;
    const int closed = test::freePort();
    EXPECT_FALSE(probe.GetCertChainStr("https://127.0.0.1:" + std::to_string(closed) + "/", pems));
    EXPECT_TRUE(
        log.contains("SSLHandler::ConnectToServer(): Failed to connect to hostname: "
                     "127.0.0.1, port: " +
                     std::to_string(closed)));
    EXPECT_TRUE(log.contains("SSLHandler::GetCertChainStr(): Failed to connect to server"));

    EXPECT_FALSE(probe.GetCertChainStr("not a url", pems));
    EXPECT_TRUE(log.contains("SSLHandler::ConnectToServer(): Unable to parse full URL"));

    test::LoopbackListener silent;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(probe.GetCertChainStr("https://127.0.0.1:" + std::to_string(silent.port()), pems));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    EXPECT_TRUE(
        log.contains("SSLHandler::SSLConnect(): SSL_connect failed with SSL_get_error code"));
    EXPECT_TRUE(log.contains("SSLHandler::GetCertChainStr(): Failed to connect via SSL"));
    EXPECT_TRUE(pems.empty());

    std::vector<std::string> chain;
    EXPECT_FALSE(probe.GetCertChainCtx("https://127.0.0.1:" + std::to_string(closed) + "/",
                                       pki().leaf.cert.get(), chain));
    EXPECT_TRUE(
        log.contains("SSLHandler::GetCertChainCtx(): Failed to retrieve server certificate chain"));
}

TEST(TlsConnectTest, HandshakesWithTheCallersSetUpOverTheFirstAddressThatAccepts) {
    test::TestServer server(pki().chainOf(pki().leaf), pki().leaf.keyPem, test::answer(200, ""));
    SslCtxPtr trusting(SSL_CTX_new(TLS_client_method()));
    ASSERT_EQ(SSL_CTX_load_verify_locations(trusting.get(), pki().rootFile.c_str(), nullptr), 1);
    TlsSetup setup;
    setup.serverName = "localhost";
    TlsConnectResult tls = connectTls("localhost", server.port(), *trusting, setup);
    ASSERT_FALSE(tls.failure) << tls.failure.reason;
    EXPECT_EQ(SSL_get_verify_result(tls.connection.ssl()), X509_V_OK);
    char byte = 0;  // the server waits for a request
    EXPECT_EQ(tls.connection.read(&byte, 1, 100ms).end, TlsConnection::ReadEnd::TimedOut);

    // The verify mode is the caller's: an unknown CA fails the handshake only when verifying.
    SslCtxPtr bare(SSL_CTX_new(TLS_client_method()));
    const TlsConnectResult refused = connectTls("127.0.0.1", server.port(), *bare, setup);
    EXPECT_EQ(refused.failure.step, ConnectStep::Handshake);
    EXPECT_FALSE(refused.connection.valid());
    setup.verifyMode = SSL_VERIFY_NONE;
    EXPECT_FALSE(connectTls("127.0.0.1", server.port(), *bare, setup).failure);

    EXPECT_EQ(connectTcp("127.0.0.1", test::freePort()).failure.step, ConnectStep::Connect);
    EXPECT_EQ(connectTcp("", 443).failure.step, ConnectStep::Resolve);
    EXPECT_EQ(server.requests(), 0);
}

TEST(TlsConnectTest, AHandshakeNobodyAnswersEndsAtItsBoundOrWhenCancelled) {
    SslCtxPtr ctx(SSL_CTX_new(TLS_client_method()));
    ConnectLimits limits;
    limits.handshake = 200ms;
    test::LoopbackListener silent;
    const auto start = std::chrono::steady_clock::now();
    const TlsConnectResult timedOut = connectTls("127.0.0.1", silent.port(), *ctx, {}, limits);
    EXPECT_EQ(timedOut.failure.step, ConnectStep::Handshake);
    EXPECT_FALSE(timedOut.failure.cancelled);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 200ms);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);

    // A long bound, cut short by the token once the connection is made.
    CancelToken cancel;
    limits.handshake = 60s;
    limits.cancel = &cancel;
    test::LoopbackListener other;
    auto pending = std::async(std::launch::async, [&] {
        return connectTls("127.0.0.1", other.port(), *ctx, {}, limits);
    });
    pollfd queued{other.fd(), POLLIN, 0};
    ASSERT_EQ(::poll(&queued, 1, 10000), 1);
    const auto cancelledAt = std::chrono::steady_clock::now();
    cancel.cancel();
    ASSERT_EQ(pending.wait_for(10s), std::future_status::ready);
    EXPECT_LT(std::chrono::steady_clock::now() - cancelledAt, 2s);
    EXPECT_TRUE(pending.get().failure.cancelled);
}

}  // namespace
}  // namespace ndpx::net
