#pragma once
// The host's domain-join facility under DomainUtil: one join, one reading of
// the machine's membership, and the host's text for a result code. Each
// platform provides makeDomainBackend; its calls block the caller until the
// host's tools answer or give up, and end early when `stop` is set.

#include <mfw/coreevent.h>

#include <cstdint>
#include <memory>
#include <string>

namespace ndpx {

struct DomainMembership {
    bool joined = false;
    std::string domain;
};

class DomainBackend {
public:
    virtual ~DomainBackend() = default;

    // `account` is "DOMAIN\user", or empty to join without naming one; an
    // empty `ou` or `password` is not passed on. Returns 0 or a code of
    // AbsDomainUtil.h; kAlreadyJoined when the machine is in a domain.
    virtual std::uint32_t Join(const std::string& domain, const std::string& ou,
                               const std::string& account, const std::string& password) = 0;
    // Returns 0 and fills `out`, or a code of AbsDomainUtil.h.
    virtual std::uint32_t QueryMembership(DomainMembership& out) = 0;
    virtual std::string ErrorText(std::uint32_t errorCode) = 0;
};

// The backend of this platform. `stop`, when given, must outlive it.
std::unique_ptr<DomainBackend> makeDomainBackend(CORE::coreevent* stop);

}  // namespace ndpx
