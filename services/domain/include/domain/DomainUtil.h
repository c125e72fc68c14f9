#pragma once
// The domain join of this desktop. One join at a time: a join that arrives
// while another runs waits for it, and once a join has succeeded every later
// one in this process succeeds at once without touching the machine (its
// restart is already asked for). The machine's membership is read once and
// kept until a refresh is forced. That state is the object's: the process
// keeps one (the template handler's).

#include "domain/AbsDomainUtil.h"
#include "domain/DomainBackend.h"

#include <mfw/corelock.h>

#include <condition_variable>
#include <memory>

namespace ndpx {

class DomainUtil : public AbsDomainUtil {
public:
    explicit DomainUtil(std::unique_ptr<DomainBackend> backend);
    // Over this platform's backend; `stop` ends a join or query under way.
    explicit DomainUtil(CORE::coreevent* stop = nullptr);

    bool JoinDomain(const std::string& domain, const std::string& ou, const std::string& user,
                    const std::string& password, bool& rebootNeeded, std::uint32_t& errorCode)
        MFW_EXCLUDES(mutex_) override;
    bool IsInDomain() MFW_EXCLUDES(mutex_) override;
    std::string DomainName() MFW_EXCLUDES(mutex_) override;
    void RefreshDomainInformation(bool force) MFW_EXCLUDES(mutex_) override;
    std::string ErrorText(std::uint32_t errorCode) override;

private:
    // The backend is called with no lock held; `joining_` keeps joins apart.
    const std::unique_ptr<DomainBackend> backend_;
    CORE::Mutex mutex_;
    std::condition_variable joinDone_;
    bool joining_ MFW_GUARDED_BY(mutex_) = false;
    bool joined_ MFW_GUARDED_BY(mutex_) = false;
    bool known_ MFW_GUARDED_BY(mutex_) = false;  // membership read at least once
    bool inDomain_ MFW_GUARDED_BY(mutex_) = false;
    std::string domainName_ MFW_GUARDED_BY(mutex_);
};

}  // namespace ndpx
