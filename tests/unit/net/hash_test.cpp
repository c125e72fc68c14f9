// HashGenerator against published test vectors (FIPS 180-2, RFC 1321,
// RFC 4231, RFC 2202), its two output formats and its refusals.

#include "net/HashGenerator.h"

#include <gtest/gtest.h>

namespace ndpx::net {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

// "ba7816bf" -> "BA:78:16:BF"
std::string colonUpper(const std::string& hex) {
    std::string out;
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        out += (i > 0 ? ":" : "") + hex.substr(i, 2);
    }
    for (auto& c : out) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return out;
}

TEST(HashTest, KnownAnswers) {
    struct Case {
        std::uint32_t algorithm;
        bool hmac;
        Bytes key;
        Bytes data;
        std::string hex;
    };
    const std::string bigKeyText = "Test Using Larger Than Block-Size Key - Hash Key First";
    const Case cases[] = {
        {HashGenerator::kSha256,
         false,
         {},
         text("abc"),
         "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
        {HashGenerator::kSha256,
         false,
         {},
         text("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
         "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
        {HashGenerator::kMd5, false, {}, {}, "d41d8cd98f00b204e9800998ecf8427e"},
        {HashGenerator::kMd5,
         false,
         {},
         text("message digest"),
         "f96b697d7cb7938d525a2f31aaf161d0"},
        {HashGenerator::kSha256, true, Bytes(20, 0x0b), text("Hi There"),
         "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
        {HashGenerator::kSha256, true, text("Jefe"), text("what do ya want for nothing?"),
         "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
        // Keys longer than a block are hashed first.
        {HashGenerator::kSha256, true, Bytes(131, 0xaa), text(bigKeyText),
         "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
        {HashGenerator::kMd5, true, text("Jefe"), text("what do ya want for nothing?"),
         "750c783e6ab0b503eaa86e310a5db738"},
        {HashGenerator::kMd5, true, Bytes(80, 0xaa), text(bigKeyText),
         "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd"},
    };
    for (const auto& c : cases) {
        HashGenerator gen;
        gen.SetAlgorithm(c.algorithm, c.hmac);
        std::string result;
        ASSERT_TRUE(gen.GenerateHash(c.data, c.key, HashGenerator::kHexColon, result)) << c.hex;
        EXPECT_EQ(result, colonUpper(c.hex));
    }

    HashGenerator gen;
    gen.SetAlgorithm(HashGenerator::kSha256, false);
    std::string b64;
    ASSERT_TRUE(gen.GenerateHash("abc", "", HashGenerator::kBase64, b64));
    EXPECT_EQ(b64, "ungWv48Bz+pBQUDeXa4iI7ADYaOWF3qctBD/YfIAFa0=");
}

TEST(HashTest, AlgorithmSelectionAndReuse) {
    const std::string abcSha256 =
        colonUpper("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    HashGenerator gen;
    EXPECT_FALSE(gen.isOpen());
    gen.SetAlgorithm(0, false);  // the default
    EXPECT_EQ(gen.openAlgorithm(), HashGenerator::kSha256);
    gen.SetAlgorithm(HashGenerator::kSha256, false);  // already open: not reopened
    EXPECT_EQ(gen.openCount(), 1u);
    gen.SetAlgorithm(HashGenerator::kSha256, true);  // a different mode reopens
    EXPECT_EQ(gen.openCount(), 2u);
    EXPECT_TRUE(gen.isHmac());
    gen.SetAlgorithm(42, false);  // unknown codes mean SHA-256
    EXPECT_EQ(gen.openAlgorithm(), HashGenerator::kSha256);
    std::string result;
    ASSERT_TRUE(gen.GenerateHash("abc", "", HashGenerator::kHexColon, result));
    EXPECT_EQ(result, abcSha256);

    // Without a chosen algorithm the default opens in the mode the key implies.
    HashGenerator plain;
    ASSERT_TRUE(plain.GenerateHash("abc", "", HashGenerator::kHexColon, result));
    EXPECT_FALSE(plain.isHmac());
    EXPECT_EQ(result, abcSha256);
    HashGenerator keyed;
    ASSERT_TRUE(keyed.GenerateHash("what do ya want for nothing?", "Jefe", HashGenerator::kHexColon,
                                   result));
    EXPECT_TRUE(keyed.isHmac());
    EXPECT_EQ(result,
              colonUpper("5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"));
}

TEST(HashTest, RefusalsLeaveTheResultEmpty) {
    HashGenerator gen;
    gen.SetAlgorithm(HashGenerator::kSha256, false);
    std::string result = "stale";
    EXPECT_FALSE(gen.GenerateHash("abc", "", 2, result));  // unknown output format
    EXPECT_TRUE(result.empty());

    gen.SetAlgorithm(HashGenerator::kSha256, true);
    result = "stale";
    EXPECT_FALSE(gen.GenerateHash("abc", "", HashGenerator::kHexColon, result));  // HMAC, no key
    EXPECT_TRUE(result.empty());
    // The refusal does not close the algorithm: the next keyed call works.
    EXPECT_TRUE(gen.GenerateHash("abc", "k", HashGenerator::kHexColon, result));
    EXPECT_EQ(gen.openCount(), 2u);
}

}  // namespace
}  // namespace ndpx::net
