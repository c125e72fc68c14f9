#pragma once
// Joining this desktop to a directory domain and asking which domain it is
// in. The template handler talks to this interface; DomainUtil implements it
// over the host's own join tools.

#include <cstdint>
#include <string>

namespace ndpx {

// Result codes of a join or a query. The first two are the host's own codes
// for those conditions; the others are ours, with bit 29 set (the
// application's range on the host), so they never clash with a system code.
namespace domain_error {
inline constexpr std::uint32_t kNone = 0;
inline constexpr std::uint32_t kBadArguments = 160;        // no domain given
inline constexpr std::uint32_t kAlreadyJoined = 2691;      // the machine is in a domain already
inline constexpr std::uint32_t kJoinFailed = 0x20000001;   // the join tool refused; see ErrorText
inline constexpr std::uint32_t kToolMissing = 0x20000002;  // no join tool installed
inline constexpr std::uint32_t kTimedOut = 0x20000003;     // the tool hung and was killed
inline constexpr std::uint32_t kStopped = 0x20000004;      // the agent stopped while it ran
inline constexpr std::uint32_t kToolFailed = 0x20000005;   // it could not be started, or crashed
inline constexpr std::uint32_t kQueryFailed = 0x20000006;  // the membership query failed
}  // namespace domain_error

class AbsDomainUtil {
public:
    virtual ~AbsDomainUtil() = default;

    // Joins `domain`, placing the computer account in `ou` when it is not
    // empty. Fails at once with kBadArguments for an empty domain; a second
    // join after one succeeded in this process succeeds without doing
    // anything. `rebootNeeded` is set when the join takes effect only after a
    // restart; `errorCode` holds 0 or one of the codes above.
    virtual bool JoinDomain(const std::string& domain, const std::string& ou,
                            const std::string& user, const std::string& password,
                            bool& rebootNeeded, std::uint32_t& errorCode) = 0;
    virtual bool IsInDomain() = 0;
    // Empty when the machine is in no domain.
    virtual std::string DomainName() = 0;
    // Reads the machine's membership again; without `force` only if it was
    // never read.
    virtual void RefreshDomainInformation(bool force) = 0;
    // The host's text for `errorCode`, for a status message: for a refused
    // join, what the join tool said about it, never with the password.
    virtual std::string ErrorText(std::uint32_t errorCode) = 0;
};

}  // namespace ndpx
