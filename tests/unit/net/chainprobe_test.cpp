// The chain probe against real TLS servers: it returns what the server sent,
// trusting nothing, and reports unreachable or silent servers.

#include "NetTestSupport.h"

#include "net/ChainProbe.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace ndpx::net
