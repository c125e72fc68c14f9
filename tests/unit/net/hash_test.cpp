// HashGenerator against published test vectors (FIPS 180-2, RFC 1321,
// RFC 4231, RFC 2202), its two output formats and its refusals.

#include "net/HashGenerator.h"

#include <mfw/log.h>

#include <gtest/gtest.h>

namespace ndpx::net {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes repeat(std::uint8_t byte, std::size_t n) {
    return Bytes(n, byte);
}
Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}
Bytes counting(std::uint8_t from, std::uint8_t to) {
    Bytes out;
    for (unsigned b = from; b <= to; ++b) {
        out.push_back(static_cast<std::uint8_t>(b));
    }
    return out;
}

// "ba7816bf" -> "BA:78:16:BF"
std::string colonUpper(const std::string& hex) {
    std::string out;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        if (i > 0) {
            out += ':';
        }
        out += static_cast<char>(std::toupper(static_cast<unsigned char>(hex[i])));
        out += static_cast<char>(std::toupper(static_cast<unsigned char>(hex[i + 1])));
    }
    return out;
}

class HashTest : public ::testing::Test {
protected:
    void SetUp() override {
        CORE::setLogLevel(CORE::kLogVerbose);
        CORE::addLogSink(log_);
    }
    void TearDown() override { CORE::removeLogSink(log_); }

    std::string hash(std::uint32_t algorithm, bool hmac, const Bytes& data, const Bytes& key = {},
                     int format = HashGenerator::kHexColon) {
        HashGenerator gen;
        gen.SetAlgorithm(algorithm, hmac);
        std::string result;
        EXPECT_TRUE(gen.GenerateHash(data, key, format, result));
        return result;
    }

    std::shared_ptr<CORE::CaptureSink> log_ = std::make_shared<CORE::CaptureSink>();
};

TEST_F(HashTest, Sha256MatchesFips180Vectors) {
    const std::string abc = hash(HashGenerator::kSha256, false, text("abc"));
    EXPECT_EQ(abc,
              "BA:78:16:BF:8F:01:CF:EA:41:41:40:DE:5D:AE:22:23:B0:03:61:A3:96:17:7A:9C:B4:10:FF:61:"
              "F2:00:15:AD");
    EXPECT_EQ(abc.size(), 95u);
    EXPECT_EQ(hash(HashGenerator::kSha256, false,
                   text("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
              colonUpper("248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"));
    // One million 'a', the third FIPS 180-2 example.
    EXPECT_EQ(hash(HashGenerator::kSha256, false, repeat('a', 1000000)),
              colonUpper("cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"));

    const std::string b64 =
        hash(HashGenerator::kSha256, false, text("abc"), {}, HashGenerator::kBase64);
    EXPECT_EQ(b64, "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=");
    EXPECT_EQ(b64.size(), 44u);
}

TEST_F(HashTest, Md5MatchesTheRfc1321Suite) {
    const std::pair<std::string, std::string> suite[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"1234567890123456789012345678901234567890123456789012345678901234567890123456789"
         "0",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    HashGenerator gen;
    gen.SetAlgorithm(HashGenerator::kMd5, false);
    for (const auto& [input, expected] : suite) {
        std::string result;
        ASSERT_TRUE(gen.GenerateHash(input, "", HashGenerator::kHexColon, result)) << input;
        EXPECT_EQ(result, colonUpper(expected)) << input;
    }
    // One object serves every call: the algorithm is opened once.
    EXPECT_EQ(gen.openCount(), 1u);
}

TEST_F(HashTest, HmacSha256MatchesRfc4231) {
    struct Case {
        Bytes key;
        Bytes data;
        std::string mac;
    };
    const Case cases[] = {
        {repeat(0x0b, 20), text("Hi There"),
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {text("Jefe"), text("what do ya want for nothing?"),
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        {repeat(0xaa, 20), repeat(0xdd, 50),
         "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
        {counting(0x01, 0x19), repeat(0xcd, 50),
         "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
        {repeat(0xaa, 131), text("Test Using Larger Than Block-Size Key - Hash Key First"),
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(hash(HashGenerator::kSha256, true, c.data, c.key), colonUpper(c.mac));
    }
}

TEST_F(HashTest, HmacMd5MatchesRfc2202) {
    struct Case {
        Bytes key;
        Bytes data;
        std::string mac;
    };
    const Case cases[] = {
        {repeat(0x0b, 16), text("Hi There"), "9294727a3638bb1c13f48ef8158bfc9d"},
        {text("Jefe"), text("what do ya want for nothing?"), "750c783e6ab0b503eaa86e310a5db738"},
        {repeat(0xaa, 16), repeat(0xdd, 50), "56be34521d144c88dbb8c733f0e8b3f6"},
        {counting(0x01, 0x19), repeat(0xcd, 50), "697eaf0aca3a3aea3a75164746ffaa79"},
        {repeat(0xaa, 80), text("Test Using Larger Than Block-Size Key - Hash Key First"),
         "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
        {repeat(0xaa, 80),
         text("Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data"),
         "6f630fad67cda0ee1fb1f562db3aa53e"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(hash(HashGenerator::kMd5, true, c.data, c.key), colonUpper(c.mac));
    }
}

TEST_F(HashTest, AlgorithmCodesResolveAndAreNotReopened) {
    HashGenerator gen;
    EXPECT_FALSE(gen.isOpen());
    gen.SetAlgorithm(0, false);  // the default
    EXPECT_EQ(gen.openAlgorithm(), HashGenerator::kSha256);
    gen.SetAlgorithm(HashGenerator::kSha256, false);
    EXPECT_EQ(gen.openCount(), 1u);
    EXPECT_TRUE(
        log_->contains("HashGenerator::SetAlgorithm(): Already opened the algorithm provider"));
    gen.SetAlgorithm(HashGenerator::kSha256, true);  // a different mode reopens
    EXPECT_EQ(gen.openCount(), 2u);
    EXPECT_TRUE(gen.isHmac());
    gen.SetAlgorithm(42, false);  // unknown codes mean SHA-256
    EXPECT_EQ(gen.openAlgorithm(), HashGenerator::kSha256);
    std::string result;
    ASSERT_TRUE(gen.GenerateHash("abc", "", HashGenerator::kHexColon, result));
    EXPECT_EQ(result.substr(0, 11), "BA:78:16:BF");
}

TEST_F(HashTest, WithoutAChosenAlgorithmTheDefaultOpensInTheModeTheKeyImplies) {
    HashGenerator plain;
    std::string result;
    ASSERT_TRUE(plain.GenerateHash("abc", "", HashGenerator::kHexColon, result));
    EXPECT_FALSE(plain.isHmac());
    EXPECT_TRUE(
        log_->contains("HashGenerator::GenerateHash(): Hash algorithm not chosen, using defaults"));

    HashGenerator keyed;
    ASSERT_TRUE(keyed.GenerateHash("what do ya want for nothing?", "Jefe", HashGenerator::kHexColon,
                                   result));
    EXPECT_TRUE(keyed.isHmac());
    EXPECT_EQ(result,
              colonUpper("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"));
}

TEST_F(HashTest, RefusalsLeaveTheResultEmpty) {
    HashGenerator gen;
    gen.SetAlgorithm(HashGenerator::kSha256, false);
    std::string result = "stale";
    EXPECT_FALSE(gen.GenerateHash("abc", "", 2, result));
    EXPECT_TRUE(result.empty());
    EXPECT_TRUE(log_->contains("HashGenerator::GenerateHash(): Unrecognized output format"));

    gen.SetAlgorithm(HashGenerator::kSha256, true);
    result = "stale";
    EXPECT_FALSE(gen.GenerateHash("abc", "", HashGenerator::kHexColon, result));
    EXPECT_TRUE(result.empty());
    EXPECT_TRUE(
        log_->contains("HashGenerator::GenerateHash(): Unable to perform HMAC without a key"));
    // The refusal does not close the algorithm: the next keyed call works.
    EXPECT_TRUE(gen.GenerateHash("abc", "k", HashGenerator::kHexColon, result));
    EXPECT_EQ(gen.openCount(), 2u);
}

}  // namespace
}  // namespace ndpx::net
