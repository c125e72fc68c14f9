#include "OtpStore.h"

#include "devca/DevCa.h"

#include <platform/UniqueFd.h>

#include <fcntl.h>
#include <json/json.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <sys/file.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <stdexcept>

namespace ndpx::devcloud {
namespace {

namespace fs = std::filesystem;

std::string hex(const unsigned char* bytes, std::size_t n) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(2 * n);
    for (std::size_t i = 0; i < n; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0x0f];
    }
    return out;
}

// The key a password is filed under.
std::string digestOf(const std::string& otp) {
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    if (EVP_Digest(otp.data(), otp.size(), md, &n, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("devcloud: SHA-256 failed");
    }
    return hex(md, n);
}

// 128 random bits as 32 hexadecimal digits: safe in JSON and URLs alike.
std::string randomOtp() {
    unsigned char bytes[16];
    if (RAND_bytes(bytes, sizeof bytes) != 1) {
        throw std::runtime_error("devcloud: no randomness for a one-time password");
    }
    return hex(bytes, sizeof bytes);
}

std::string utcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    ::gmtime_r(&now, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return text;
}

// An exclusive lock held for the object's lifetime; it guards the store
// against the other process (provisioning vs. the service) and against the
// service's own request threads, which each open the lock file anew.
class StoreLock {
public:
    explicit StoreLock(const fs::path& lockFile)
        : fd_(::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
        if (fd_.get() < 0) {
            throw std::runtime_error("devcloud: cannot open " + lockFile.string());
        }
        int rc = 0;
        while ((rc = ::flock(fd_.get(), LOCK_EX)) != 0 && errno == EINTR) {
        }
        if (rc != 0) {
            throw std::runtime_error("devcloud: cannot lock " + lockFile.string());
        }
    }

private:
    platform::UniqueFd fd_;  // closing it releases the lock
};

Json::Value load(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        if (!fs::exists(file)) {
            Json::Value empty(Json::objectValue);
            empty["otps"] = Json::Value(Json::objectValue);
            return empty;
        }
        throw std::runtime_error("devcloud: cannot read " + file.string());
    }
    Json::Value v;
    std::string errors;
    if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &v, &errors) || !v.isObject() ||
        !v["otps"].isObject() || !(v["moves"].isNull() || v["moves"].isObject())) {
        // Never start afresh over a damaged store: that would revive used
        // passwords.
        throw std::runtime_error("devcloud: " + file.string() + " is damaged");
    }
    return v;
}

void save(const fs::path& file, const Json::Value& v) {
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    if (!devca::writePrivateFile(file.string(), Json::writeString(writer, v) + "\n")) {
        throw std::runtime_error("devcloud: cannot write " + file.string());
    }
}

OtpGrant grantOf(const Json::Value& entry) {
    return {entry["vmId"].asString(), entry["agentIdentity"].asString(),
            entry["bootstrapTopic"].asString()};
}

}  // namespace

void OtpStore::recordMove(const std::string& fromIdentity, const OtpGrant& to) {
    const StoreLock lock(lockFile_);
    Json::Value store = load(file_);
    Json::Value entry(Json::objectValue);
    entry["from"] = fromIdentity;
    entry["agentIdentity"] = to.agentIdentity;
    entry["bootstrapTopic"] = to.bootstrapTopic;
    entry["vmId"] = to.vmId;
    entry["orderedAt"] = utcNow();
    store["moves"][to.vmId] = entry;
    save(file_, store);
}

std::optional<OtpGrant> OtpStore::moveOf(const std::string& vmId, const std::string& fromIdentity,
                                         const std::string& toIdentity) {
    const StoreLock lock(lockFile_);
    const Json::Value store = load(file_);
    const Json::Value& entry = store["moves"][vmId];
    if (!entry.isObject() || entry["from"].asString() != fromIdentity ||
        entry["agentIdentity"].asString() != toIdentity) {
        return std::nullopt;
    }
    return grantOf(entry);
}

OtpStore::OtpStore(const fs::path& dir)
    : file_(dir / "otp-store.json"), lockFile_(dir / "otp-store.lock") {}

std::string OtpStore::issue(const OtpGrant& grant) {
    const StoreLock lock(lockFile_);
    Json::Value store = load(file_);
    std::string otp = randomOtp();
    Json::Value entry(Json::objectValue);
    entry["vmId"] = grant.vmId;
    entry["agentIdentity"] = grant.agentIdentity;
    entry["bootstrapTopic"] = grant.bootstrapTopic;
    entry["issuedAt"] = utcNow();
    entry["used"] = false;
    store["otps"][digestOf(otp)] = entry;
    save(file_, store);
    return otp;
}

void OtpStore::withdraw(const std::string& otp) {
    const StoreLock lock(lockFile_);
    Json::Value store = load(file_);
    Json::Value removed;
    if (!store["otps"].removeMember(digestOf(otp), &removed)) {
        return;
    }
    save(file_, store);
}

RedeemResult OtpStore::redeem(const std::string& otp, const std::string& vmId,
                              const std::function<bool(const OtpGrant&)>& use) {
    const StoreLock lock(lockFile_);
    Json::Value store = load(file_);
    Json::Value& entry = store["otps"][digestOf(otp)];
    if (!entry.isObject()) {
        return RedeemResult::Unknown;
    }
    if (entry["used"].asBool()) {
        return RedeemResult::Used;
    }
    const OtpGrant grant = grantOf(entry);
    if (grant.vmId != vmId) {
        return RedeemResult::WrongVmId;
    }
    if (!use(grant)) {
        return RedeemResult::Declined;
    }
    entry["used"] = true;
    entry["usedAt"] = utcNow();
    save(file_, store);
    return RedeemResult::Accepted;
}

std::optional<OtpGrant> OtpStore::lastRedeemed(const std::function<bool(const OtpGrant&)>& match) {
    const StoreLock lock(lockFile_);
    const Json::Value store = load(file_);
    std::optional<OtpGrant> found;
    std::string foundAt;
    for (const auto& entry : store["otps"]) {
        if (!entry.isObject() || !entry["used"].asBool()) {
            continue;
        }
        // The UTC times sort as text.
        const std::string usedAt = entry["usedAt"].asString();
        if (found && usedAt < foundAt) {
            continue;
        }
        if (OtpGrant grant = grantOf(entry); match(grant)) {
            found = std::move(grant);
            foundAt = usedAt;
        }
    }
    return found;
}

}  // namespace ndpx::devcloud
