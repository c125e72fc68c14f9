#pragma once
// Domain join on Linux through realmd's command-line client `realm`, found on
// PATH. The password reaches it on standard input only (it reads it from
// there when that is not a terminal): never in its arguments, which every
// user of the machine can read, nor in its environment or our log.

#include "domain/DomainBackend.h"

#include <mfw/corelock.h>

#include <chrono>
#include <map>

namespace ndpx::platform {
struct CommandRequest;
struct CommandResult;
}  // namespace ndpx::platform

namespace ndpx {

class RealmDomainBackend : public DomainBackend {
public:
    explicit RealmDomainBackend(CORE::coreevent* stop,
                                std::chrono::milliseconds joinTimeout = std::chrono::seconds(300),
                                std::chrono::milliseconds listTimeout = std::chrono::seconds(30));

    std::uint32_t Join(const std::string& domain, const std::string& ou, const std::string& account,
                       const std::string& password) override;
    std::uint32_t QueryMembership(DomainMembership& out) override;
    std::string ErrorText(std::uint32_t errorCode) MFW_EXCLUDES(mutex_) override;

    // The first realm that `realm list` shows this machine configured in.
    static DomainMembership ParseList(const std::string& listOutput);

private:
    // Runs `realm` and turns how it ended into a code; `password` is masked
    // in the text kept for ErrorText.
    std::uint32_t run(platform::CommandRequest& request, const std::string& password,
                      platform::CommandResult& result) MFW_EXCLUDES(mutex_);

    CORE::coreevent* const stop_;
    const std::chrono::milliseconds joinTimeout_;
    const std::chrono::milliseconds listTimeout_;
    CORE::Mutex mutex_;
    std::map<std::uint32_t, std::string> lastText_ MFW_GUARDED_BY(mutex_);
};

}  // namespace ndpx
