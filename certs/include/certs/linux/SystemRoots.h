#pragma once
// The system CA bundle, parsed once per process and shared by every
// certificate store: parsing its ~150 certificates costs more than the rest
// of a chain check, and pairing checks several chains.

#include "certs/OpenSslUtil.h"

#include <memory>
#include <string>
#include <vector>

namespace ndpx::certs {

// One parse of a bundle file. Immutable once made, so any number of threads
// may read it without a lock; holding the pointer keeps its certificates.
struct SystemRootSet {
    bool readable = false;  // false when the file could not be read
    std::vector<X509Ptr> certs;
    std::vector<std::string> pems;  // the same certificates, as PEM

    // The certificates as a stack that does not own them, for
    // X509_STORE_CTX_set0_trusted_stack; free it with sk_X509_free. Null when
    // out of memory.
    STACK_OF(X509) * trustedStack() const;
};

// The parsed `file`, parsed again only when its size or modification time
// differ from the last parse. Thread-safe; a first use by several threads
// parses once.
std::shared_ptr<const SystemRootSet> systemRootSet(const std::string& file);

}  // namespace ndpx::certs
