#include "domain/linux/RealmDomainBackend.h"

#include "domain/AbsDomainUtil.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/CommandRunner.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string_view>

namespace ndpx {
namespace {

using platform::CommandResult;
using Outcome = CommandResult::Outcome;

constexpr std::size_t kMaxErrorText = 1024;
constexpr std::string_view kMask = "*****";
constexpr std::string_view kSpace = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(kSpace);
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

std::string masked(std::string text, const std::string& secret) {
    if (secret.empty()) {
        return text;
    }
    for (auto at = text.find(secret); at != std::string::npos;
         at = text.find(secret, at + kMask.size())) {
        text.replace(at, secret.size(), kMask);
    }
    return text;
}

}  // namespace

std::unique_ptr<DomainBackend> makeDomainBackend(CORE::coreevent* stop) {
    return std::make_unique<RealmDomainBackend>(stop);
}

RealmDomainBackend::RealmDomainBackend(CORE::coreevent* stop, std::chrono::milliseconds joinTimeout,
                                       std::chrono::milliseconds listTimeout)
    : stop_(stop), joinTimeout_(joinTimeout), listTimeout_(listTimeout) {}

std::uint32_t RealmDomainBackend::Join(const std::string& domain, const std::string& ou,
                                       const std::string& account, const std::string& password) {
    if (domain.empty() || domain.front() == '-') {
        // Would be read as an option, not as the domain.
        MFW_LOG(4, "RealmDomainBackend::Join(): Not a domain name: %s", domain.c_str());
        return domain_error::kBadArguments;
    }
    platform::CommandRequest request;
    request.args = {"join"};
    if (!account.empty()) {
        // realm takes the account's user name; the domain is the one joined.
        request.args.push_back("--user=" + account.substr(account.find('\\') + 1));
    }
    if (!ou.empty()) {
        request.args.push_back("--computer-ou=" + ou);
    }
    request.args.push_back(domain);
    if (!password.empty()) {
        request.input = password + "\n";
    }
    request.timeout = joinTimeout_;
    CommandResult result;
    return run(request, password, result);
}

std::uint32_t RealmDomainBackend::QueryMembership(DomainMembership& out) {
    platform::CommandRequest request;
    request.args = {"list"};
    request.timeout = listTimeout_;
    CommandResult result;
    const std::uint32_t code = run(request, std::string(), result);
    if (code == domain_error::kNone) {
        out = ParseList(result.output);
    }
    return code;
}

std::uint32_t RealmDomainBackend::run(platform::CommandRequest& request,
                                      const std::string& password, CommandResult& result) {
    request.program = "realm";
    platform::StopSignal stopped;
    {
        std::optional<CORE::coreevent::Waker> waker;
        if (stop_ != nullptr) {
            waker.emplace(*stop_, [&stopped] { stopped.set(); });
        }
        request.stop = &stopped;
        result = platform::runCommand(request);
    }
    const std::string& verb = request.args.front();
    std::uint32_t code = domain_error::kNone;
    std::string text;
    switch (result.outcome) {
        case Outcome::Exited:
            if (result.exitCode == 0) {
                return domain_error::kNone;
            }
            // Masked before it is trimmed: a password may end in blanks.
            text = trimmed(
                masked(result.errorOutput.empty() ? result.output : result.errorOutput, password));
            if (text.empty()) {
                text =
                    "realm " + verb + " failed with exit code " + std::to_string(result.exitCode);
            }
            if (verb == "list") {
                code = domain_error::kQueryFailed;
            } else if (CORE::toLowerAscii(result.errorOutput + result.output)
                           .find("already joined") != std::string::npos) {
                code = domain_error::kAlreadyJoined;
            } else {
                code = domain_error::kJoinFailed;
            }
            break;
        case Outcome::NotFound:
            code = domain_error::kToolMissing;
            text = result.error;
            break;
        case Outcome::TimedOut:
            code = domain_error::kTimedOut;
            text = "realm " + verb + " did not finish within " +
                   std::to_string(request.timeout.count()) + " ms and was stopped";
            break;
        case Outcome::Stopped:
            code = domain_error::kStopped;
            text = "realm " + verb + " was stopped because the agent is stopping";
            break;
        case Outcome::Signalled:
            code = domain_error::kToolFailed;
            text = "realm " + verb + " ended by signal " + std::to_string(result.signal);
            break;
        case Outcome::StartFailed:
            code = domain_error::kToolFailed;
            text = result.error;
            break;
    }
    text.resize(std::min(text.size(), kMaxErrorText));
    MFW_LOG(3, "RealmDomainBackend::run(): realm %s %s: %s", verb.c_str(),
            platform::commandOutcomeText(result.outcome), text.c_str());
    CORE::MutexLock lock(mutex_);
    lastText_[code] = std::move(text);
    return code;
}

std::string RealmDomainBackend::ErrorText(std::uint32_t errorCode) {
    switch (errorCode) {
        case domain_error::kNone:
            return "The operation completed successfully.";
        case domain_error::kBadArguments:
            return "One or more arguments are not correct.";
        case domain_error::kAlreadyJoined:
            return "This computer is already joined to a domain.";
        case domain_error::kToolMissing:
            return "The realm command is not installed (no realm on PATH), so this machine "
                   "cannot join a domain.";
        default:
            break;
    }
    CORE::MutexLock lock(mutex_);
    if (const auto it = lastText_.find(errorCode); it != lastText_.end()) {
        return it->second;
    }
    char text[64];
    std::snprintf(text, sizeof text, "Unknown error 0x%x", errorCode);
    return text;
}

DomainMembership RealmDomainBackend::ParseList(const std::string& listOutput) {
    // One block per realm: its name unindented, then indented "key: value"
    // lines.
    std::string_view rest = listOutput;
    DomainMembership block;
    bool configured = false;
    while (!rest.empty()) {
        const auto end = rest.find('\n');
        const std::string_view line = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        if (!line.empty() && kSpace.find(line.front()) == std::string_view::npos) {
            if (configured) {
                break;
            }
            block.domain = trimmed(line);
            continue;
        }
        const std::string_view value = trimmed(line.substr(line.find(':') + 1));
        if (trimmed(line).starts_with("domain-name:")) {
            block.domain = value;
        } else if (trimmed(line).starts_with("configured:")) {
            configured = value == "kerberos-member";
        }
    }
    block.joined = configured;
    return configured ? block : DomainMembership{};
}

}  // namespace ndpx
