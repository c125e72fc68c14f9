#include "services/AnsweredCommandLog.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/Paths.h>

#include <algorithm>
#include <sstream>

namespace ndpx {

namespace {

// Rewritten once it holds this many lines more than are live.
constexpr std::size_t kCompactAfterLines = 4096;

// IDs are any text, new lines included: one line each, in hexadecimal.
std::string toHex(const std::string& bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(bytes.size() * 2);
    for (const unsigned char c : bytes) {
        out += kDigits[c >> 4];
        out += kDigits[c & 0xf];
    }
    return out;
}

bool fromHex(const std::string& hex, std::string& bytes) {
    if (hex.size() % 2 != 0) {
        return false;
    }
    bytes.clear();
    for (std::size_t i = 0; i < hex.size(); i += 2) {
        const auto nibble = [](char c) {
            return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        };
        const int hi = nibble(hex[i]);
        const int lo = nibble(hex[i + 1]);
        if (hi < 0 || lo < 0) {
            return false;
        }
        bytes += static_cast<char>((hi << 4) | lo);
    }
    return true;
}

}  // namespace

std::vector<std::wstring> AnsweredCommandLog::open(const std::filesystem::path& file) {
    const std::int64_t now =
        std::chrono::duration_cast<std::chrono::seconds>(time_.systemNow().time_since_epoch())
            .count();
    std::vector<std::wstring> ids;
    std::lock_guard lock(mutex_);
    file_ = file;
    live_.clear();
    std::ifstream in(file);
    std::string line;
    std::string bytes;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        Entry entry{};
        // A line cut short by a kill, or anything else unreadable, is skipped.
        if (!(fields >> entry.unixSeconds >> entry.idHex) || !fromHex(entry.idHex, bytes)) {
            continue;
        }
        if (now - entry.unixSeconds < retentionSeconds_ && entry.unixSeconds <= now) {
            ids.push_back(CORE::toWide(bytes));
            live_.push_back(std::move(entry));
        }
    }
    rewriteLocked();
    return ids;
}

void AnsweredCommandLog::record(const std::wstring& id) {
    const std::int64_t now =
        std::chrono::duration_cast<std::chrono::seconds>(time_.systemNow().time_since_epoch())
            .count();
    std::lock_guard lock(mutex_);
    if (file_.empty()) {
        return;
    }
    // Keeps what is live, dropping what outlived the retention.
    const auto expired = std::find_if(live_.begin(), live_.end(), [&](const Entry& e) {
        return now - e.unixSeconds < retentionSeconds_;
    });
    live_.erase(live_.begin(), expired);
    live_.push_back(Entry{now, toHex(CORE::toUtf8(id))});
    if (lines_ >= live_.size() + kCompactAfterLines) {
        rewriteLocked();
    } else {
        appendLocked(live_.back());
    }
}

void AnsweredCommandLog::appendLocked(const Entry& entry) {
    out_ << entry.unixSeconds << ' ' << entry.idHex << '\n';
    out_.flush();
    if (!out_) {
        out_.clear();
        MFW_LOG(CORE::kLogWarning,
                "AnsweredCommandLog::record(): Unable to append to %s: a command answered now "
                "may run again if the agent is killed before the broker has its acknowledgement",
                file_.string().c_str());
        return;
    }
    ++lines_;
}

void AnsweredCommandLog::rewriteLocked() {
    std::string text;
    for (const auto& e : live_) {
        text += std::to_string(e.unixSeconds) + ' ' + e.idHex + '\n';
    }
    std::string error;
    out_.close();
    const bool written = platform::paths::writePrivateFile(file_, text, error);
    out_.clear();
    out_.open(file_, std::ios::app | std::ios::binary);
    if (!written) {
        MFW_LOG(CORE::kLogWarning, "AnsweredCommandLog: Unable to rewrite %s: %s",
                file_.string().c_str(), error.c_str());
        return;
    }
    lines_ = live_.size();
}

}  // namespace ndpx
