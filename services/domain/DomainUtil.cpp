#include "domain/DomainUtil.h"

#include <mfw/moduleLog.h>

namespace ndpx {

namespace {
constexpr const char* kJoin = "DomainUtil::JoinDomain";
constexpr const char* kRefresh = "DomainUtil::RefreshDomainInformation";
}  // namespace

DomainUtil::DomainUtil(std::unique_ptr<DomainBackend> backend) : backend_(std::move(backend)) {}

DomainUtil::DomainUtil(CORE::coreevent* stop) : DomainUtil(makeDomainBackend(stop)) {}

bool DomainUtil::JoinDomain(const std::string& domain, const std::string& ou,
                            const std::string& user, const std::string& password,
                            bool& rebootNeeded, std::uint32_t& errorCode) {
    rebootNeeded = false;
    if (domain.empty()) {
        errorCode = domain_error::kBadArguments;
        return false;
    }
    const std::string account = user.empty() ? std::string() : domain + "\\" + user;
    {
        // A join running on another thread is waited for, not run twice; it
        // ends by itself, at its time-out at the latest, or when the agent stops.
        CORE::MutexLock lock(mutex_);
        lock.wait(joinDone_, [this] {
            mutex_.assertHeld();
            return !joining_;
        });
        if (joined_) {
            errorCode = domain_error::kNone;
            return true;
        }
        joining_ = true;
    }
    std::uint32_t result = domain_error::kToolFailed;
    try {
        result = backend_->Join(domain, ou, account, password);
    } catch (...) {
        // Out of memory, at worst: the join counts as failed, and the next
        // one must not wait for this one for ever.
    }
    {
        CORE::MutexLock lock(mutex_);
        joining_ = false;
        if (result == domain_error::kNone) {
            joined_ = true;
            known_ = true;
            inDomain_ = true;
            domainName_ = domain;
        }
    }
    joinDone_.notify_all();
    errorCode = result;
    if (result == domain_error::kNone) {
        rebootNeeded = true;
        return true;
    }
    if (result == domain_error::kAlreadyJoined) {
        RefreshDomainInformation(true);
        MFW_LOG(3, "%s: Failed to join domain. Already joined a domain", kJoin);
    } else {
        MFW_LOG(4, "%s: Failed to join domain. Error code: 0x%x", kJoin, result);
    }
    return false;
}

bool DomainUtil::IsInDomain() {
    RefreshDomainInformation(false);
    CORE::MutexLock lock(mutex_);
    return inDomain_;
}

std::string DomainUtil::DomainName() {
    RefreshDomainInformation(false);
    CORE::MutexLock lock(mutex_);
    return domainName_;
}

void DomainUtil::RefreshDomainInformation(bool force) {
    {
        CORE::MutexLock lock(mutex_);
        if (known_ && !force) {
            return;
        }
    }
    DomainMembership membership;
    const std::uint32_t result = backend_->QueryMembership(membership);
    if (result != domain_error::kNone) {
        // Asked again next time: a host service that is still starting
        // must not leave the machine counted as outside any domain.
        MFW_LOG(4, "%s: NetGetJoinInformation error 0x%x", kRefresh, result);
        return;
    }
    CORE::MutexLock lock(mutex_);
    known_ = true;
    inDomain_ = membership.joined;
    domainName_ = membership.joined ? membership.domain : std::string();
}

std::string DomainUtil::ErrorText(std::uint32_t errorCode) {
    return backend_->ErrorText(errorCode);
}

}  // namespace ndpx
