#pragma once
// The system CA bundle, read once per process and shared by every
// certificate store. A root is decoded in full only when a chain needs it:
// decoding a certificate decodes its public key, and doing that for the
// ~150 roots of a bundle cost more than the rest of a chain check.

#include "certs/OpenSslUtil.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ndpx::certs {

// One read of a bundle file. Its roots never change once read, so any
// number of threads may use it; holding the pointer keeps every certificate
// it handed out.
class SystemRootSet {
public:
    // The certificates of PEM `text`; blocks that are no certificate are skipped.
    static std::shared_ptr<const SystemRootSet> fromPem(const std::string& text);
    // A file that could not be read.
    static std::shared_ptr<const SystemRootSet> unreadable();

    bool readable() const { return readable_; }
    std::size_t size() const { return roots_.size(); }
    std::vector<std::string> pems() const;

    // Appends to `trusted` (which does not own them) every root whose subject
    // issued one of `certs` or a root appended before, decoding it on first
    // need. False when out of memory.
    bool addIssuers(const std::vector<X509*>& certs, STACK_OF(X509) * trusted) const;

private:
    struct Root {
        std::vector<std::uint8_t> der;
        NamePtr subject;
        mutable std::once_flag decodeOnce;
        mutable X509Ptr cert;  // set once, by `decoded`
        X509* decoded() const;
    };
    bool readable_ = false;
    std::vector<std::unique_ptr<Root>> roots_;
};

// The roots of `file`, read again only when its size or modification time
// differ from the last read. Thread-safe; a first use by several threads
// reads once.
std::shared_ptr<const SystemRootSet> systemRootSet(const std::string& file);

}  // namespace ndpx::certs
