#pragma once
// Digests and keyed digests (HMAC) of byte strings, returned as text. The
// HTTPS client uses it for certificate thumbprints: SHA-256, no key, colon-
// joined upper-case hexadecimal.

#include <openssl/evp.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ndpx::net {

class HashGenerator {
public:
    // Algorithm codes; any other code is treated as SHA-256.
    static constexpr std::uint32_t kSha256 = 1;
    static constexpr std::uint32_t kMd5 = 2;
    // Output formats.
    static constexpr int kBase64 = 0;
    static constexpr int kHexColon = 1;  // "BA:78:16:..."

    HashGenerator();
    ~HashGenerator();
    HashGenerator(const HashGenerator&) = delete;
    HashGenerator& operator=(const HashGenerator&) = delete;

    // Opens the algorithm (0 means the default, SHA-256), plain or HMAC. The
    // same algorithm and mode as the one open is not opened again.
    void SetAlgorithm(std::uint32_t code, bool hmac);

    // Digest of `data`, keyed by `key` in HMAC mode. Without an open
    // algorithm the default is opened, in HMAC mode exactly when a key is
    // given. False (and an empty result) on failure.
    bool GenerateHash(const std::vector<std::uint8_t>& data, const std::vector<std::uint8_t>& key,
                      int outputFormat, std::string& result);
    bool GenerateHash(const std::string& data, const std::string& key, int outputFormat,
                      std::string& result);

    bool isOpen() const { return md_ != nullptr; }
    bool isHmac() const { return hmac_; }
    std::uint32_t openAlgorithm() const { return openAlgorithm_; }
    // How many times an algorithm was opened over the object's life.
    unsigned openCount() const { return openCount_; }

private:
    struct MdDeleter {
        void operator()(EVP_MD* p) const { EVP_MD_free(p); }
    };
    struct MacDeleter {
        void operator()(EVP_MAC* p) const { EVP_MAC_free(p); }
    };

    void close();
    bool digest(const std::vector<std::uint8_t>& data, std::vector<std::uint8_t>& out);
    bool mac(const std::vector<std::uint8_t>& data, const std::vector<std::uint8_t>& key,
             std::vector<std::uint8_t>& out);

    std::uint32_t defaultAlgorithm_ = kSha256;
    bool hmac_ = false;
    // The open "provider": the fetched digest, and the HMAC algorithm in HMAC mode.
    std::unique_ptr<EVP_MD, MdDeleter> md_;
    std::unique_ptr<EVP_MAC, MacDeleter> hmacAlg_;
    std::uint32_t openAlgorithm_ = 0;
    unsigned openCount_ = 0;
};

// SHA-256 of a certificate's PEM text (the text, not its DER bytes) as
// upper-case hex pairs joined by ':' (95 characters); empty on failure. This
// is what a pinned server thumbprint is compared with.
std::string pemThumbprint(const std::string& pem);

}  // namespace ndpx::net
