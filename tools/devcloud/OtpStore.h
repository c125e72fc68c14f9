#pragma once
// The credential service's one-time passwords, kept in a file of the devcloud
// folder so that the provisioning command (another process) can add to it and
// a used password stays used across restarts of the service.
//
// Passwords are stored only as SHA-256 digests: the file says which machine
// and identity each one is for, but a copy of it gives nobody a password.
// Every change is a read-modify-write under an exclusive lock on a separate
// lock file, written atomically (temp file + rename, mode 0600).

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace ndpx::devcloud {

// What a one-time password entitles its holder to.
struct OtpGrant {
    std::string vmId;
    std::string agentIdentity;  // the client certificate's common name
    std::string bootstrapTopic;
};

enum class RedeemResult {
    Accepted,   // `use` succeeded and the password is now marked used
    Unknown,    // never issued (or withdrawn)
    Used,       // accepted once before
    WrongVmId,  // issued for another machine; stays usable by that machine
    Declined,   // `use` declined (e.g. a bad request); stays usable
};

class OtpStore {
public:
    // The store in `dir` (otp-store.json and its lock file).
    explicit OtpStore(const std::filesystem::path& dir);

    const std::filesystem::path& file() const { return file_; }

    // Records a fresh random password for `grant` and returns it. The caller
    // hands it to exactly one agent and never logs it. Throws
    // std::runtime_error when the store cannot be read or written.
    std::string issue(const OtpGrant& grant);
    // Forgets a password that was never handed out. Throws as issue().
    void withdraw(const std::string& otp);

    // Checks `otp` for `vmId`; when it is good, calls `use` with its grant
    // and, if `use` returns true, marks it used on disk before returning
    // Accepted. Throws std::runtime_error when the store cannot be read or
    // the mark cannot be written (the caller must then not hand out what
    // `use` produced).
    RedeemResult redeem(const std::string& otp, const std::string& vmId,
                        const std::function<bool(const OtpGrant&)>& use);

    // The grant of the most recently redeemed password that `match` accepts:
    // what the desktop's pairing, or its last renewal, gave it. nullopt when
    // there is none. Throws as issue().
    std::optional<OtpGrant> lastRedeemed(const std::function<bool(const OtpGrant&)>& match);

    // A desktop told to move to new IDs: its certificate requests for `to`'s
    // identity are granted while it still holds `fromIdentity`. A newer move
    // of the machine replaces an older one. Throws as issue().
    void recordMove(const std::string& fromIdentity, const OtpGrant& to);
    // The grant of the recorded move of `vmId` from `fromIdentity` to
    // `toIdentity`; nullopt when the control plane ordered no such move.
    std::optional<OtpGrant> moveOf(const std::string& vmId, const std::string& fromIdentity,
                                   const std::string& toIdentity);

private:
    std::filesystem::path file_;
    std::filesystem::path lockFile_;
};

}  // namespace ndpx::devcloud
