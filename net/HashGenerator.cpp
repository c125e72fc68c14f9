#include "net/HashGenerator.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <openssl/core_names.h>
#include <openssl/err.h>

namespace ndpx::net {

namespace {

struct MdCtxDeleter {
    void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); }
};
struct MacCtxDeleter {
    void operator()(EVP_MAC_CTX* p) const { EVP_MAC_CTX_free(p); }
};

// The OpenSSL error that ended a call, as the status number of the log
// line; the queue is left empty for the next caller.
unsigned takeError() {
    const unsigned long code = ERR_peek_last_error();
    ERR_clear_error();
    return static_cast<unsigned>(code);
}

const char* algorithmName(std::uint32_t code) {
    return code == HashGenerator::kMd5 ? "MD5" : "SHA256";
}

std::string hexColon(const std::vector<std::uint8_t>& bytes) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(bytes.size() * 3);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i > 0) {
            out += ':';
        }
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0x0f];
    }
    return out;
}

}  // namespace

HashGenerator::HashGenerator() = default;
HashGenerator::~HashGenerator() = default;

void HashGenerator::close() {
    md_.reset();
    hmacAlg_.reset();
}

void HashGenerator::SetAlgorithm(std::uint32_t code, bool hmac) {
    const std::uint32_t wanted = code == 0 ? defaultAlgorithm_ : code;
    const std::uint32_t resolved = wanted == kMd5 ? kMd5 : kSha256;
    if (md_ && resolved == openAlgorithm_ && hmac == hmac_) {
        MFW_LOG(0, "HashGenerator::SetAlgorithm(): Already opened the algorithm provider");
        return;
    }
    close();
    hmac_ = hmac;
    openAlgorithm_ = resolved;
    ++openCount_;
    // The digest is fetched in both modes: HMAC needs its name and size.
    md_.reset(EVP_MD_fetch(nullptr, algorithmName(resolved), nullptr));
    if (md_ && hmac) {
        hmacAlg_.reset(EVP_MAC_fetch(nullptr, OSSL_MAC_NAME_HMAC, nullptr));
    }
    if (!md_ || (hmac && !hmacAlg_)) {
        close();
        MFW_LOG(4, "HashGenerator::SetAlgorithm(): BCryptOpenAlgorithmProvider failed: 0x%x",
                takeError());
    }
}

bool HashGenerator::digest(const std::vector<std::uint8_t>& data, std::vector<std::uint8_t>& out) {
    std::unique_ptr<EVP_MD_CTX, MdCtxDeleter> ctx(EVP_MD_CTX_new());
    if (!ctx) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): HeapAlloc (Hash Object) failed");
        return false;
    }
    if (EVP_DigestInit_ex2(ctx.get(), md_.get(), nullptr) != 1) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): BCryptCreateHash failed: 0x%x", takeError());
        return false;
    }
    if (EVP_DigestUpdate(ctx.get(), data.data(), data.size()) != 1) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): BCryptHashData failed: 0x%x", takeError());
        return false;
    }
    unsigned int n = 0;
    if (EVP_DigestFinal_ex(ctx.get(), out.data(), &n) != 1 || n != out.size()) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): BCryptFinishHash failed: 0x%x", takeError());
        return false;
    }
    return true;
}

bool HashGenerator::mac(const std::vector<std::uint8_t>& data, const std::vector<std::uint8_t>& key,
                        std::vector<std::uint8_t>& out) {
    std::unique_ptr<EVP_MAC_CTX, MacCtxDeleter> ctx(EVP_MAC_CTX_new(hmacAlg_.get()));
    if (!ctx) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): HeapAlloc (Hash Object) failed");
        return false;
    }
    std::string digestName = EVP_MD_get0_name(md_.get());
    const OSSL_PARAM params[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digestName.data(), 0),
        OSSL_PARAM_construct_end()};
    if (EVP_MAC_init(ctx.get(), key.data(), key.size(), params) != 1) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): BCryptCreateHash failed: 0x%x", takeError());
        return false;
    }
    if (EVP_MAC_update(ctx.get(), data.data(), data.size()) != 1) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): BCryptHashData failed: 0x%x", takeError());
        return false;
    }
    std::size_t n = 0;
    if (EVP_MAC_final(ctx.get(), out.data(), &n, out.size()) != 1 || n != out.size()) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): BCryptFinishHash failed: 0x%x", takeError());
        return false;
    }
    return true;
}

bool HashGenerator::GenerateHash(const std::vector<std::uint8_t>& data,
                                 const std::vector<std::uint8_t>& key, int outputFormat,
                                 std::string& result) {
    result.clear();
    if (hmac_ && key.empty()) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): Unable to perform HMAC without a key");
        return false;
    }
    if (!md_) {
        MFW_LOG(1, "HashGenerator::GenerateHash(): Hash algorithm not chosen, using defaults");
        SetAlgorithm(defaultAlgorithm_, !key.empty());
        if (!md_) {
            MFW_LOG(4, "HashGenerator::GenerateHash(): Failed to open algorithm provider");
            return false;
        }
    }
    const int size = EVP_MD_get_size(md_.get());
    if (size <= 0) {
        MFW_LOG(4, "HashGenerator::GenerateHash(): BCryptGetProperty (Hash Length) failed: 0x%x",
                takeError());
        return false;
    }
    std::vector<std::uint8_t> out(static_cast<std::size_t>(size));
    // A key given to a plain digest is not used, as the digest has no key.
    if (!(hmac_ ? mac(data, key, out) : digest(data, out))) {
        return false;
    }
    switch (outputFormat) {
        case kBase64:
            result = CORE::base64Encode(out.data(), out.size());
            return true;
        case kHexColon:
            result = hexColon(out);
            return true;
        default:
            MFW_LOG(4, "HashGenerator::GenerateHash(): Unrecognized output format");
            return false;
    }
}

bool HashGenerator::GenerateHash(const std::string& data, const std::string& key, int outputFormat,
                                 std::string& result) {
    return GenerateHash(std::vector<std::uint8_t>(data.begin(), data.end()),
                        std::vector<std::uint8_t>(key.begin(), key.end()), outputFormat, result);
}

std::string pemThumbprint(const std::string& pem) {
    HashGenerator hash;
    hash.SetAlgorithm(HashGenerator::kSha256, false);
    std::string result;
    if (!hash.GenerateHash(pem, std::string(), HashGenerator::kHexColon, result)) {
        return {};
    }
    return result;
}

}  // namespace ndpx::net
