#include <mfw/logthrottle.h>

namespace CORE {

namespace {

// The first part of a left-out line that the summary quotes.
constexpr std::size_t kSampleChars = 160;

}  // namespace

bool LogThrottle::admit(std::string_view source, int level, std::string_view kind,
                        std::string_view text, Clock::time_point now, std::vector<LeftOut>& due) {
    if (now >= nextSweep_) {
        sweep(now, due);
        nextSweep_ = now + options_.window / 4;
    }
    std::string key;
    key.reserve(source.size() + 1 + kind.size());
    key.append(source).append(1, '\0').append(kind);
    auto it = kinds_.find(key);
    if (it == kinds_.end()) {
        if (kinds_.size() >= options_.maxKinds) {
            return true;
        }
        it = kinds_.emplace(std::move(key), Kind{now, 0, 0, level, std::string(source), {}}).first;
    }
    Kind& k = it->second;
    if (now - k.windowStart >= options_.window) {
        if (k.leftOut > 0) {
            due.push_back(LeftOut{k.source, k.level, std::move(k.sample), k.leftOut});
        }
        k = Kind{now, 0, 0, level, std::string(source), {}};
    }
    if (k.written < options_.burst) {
        ++k.written;
        return true;
    }
    if (k.leftOut++ == 0) {
        k.sample.assign(text.substr(0, kSampleChars));
        k.level = level;
    }
    return false;
}

void LogThrottle::sweep(Clock::time_point now, std::vector<LeftOut>& due) {
    for (auto it = kinds_.begin(); it != kinds_.end();) {
        Kind& k = it->second;
        if (now - k.windowStart < options_.window) {
            ++it;
            continue;
        }
        if (k.leftOut > 0) {
            due.push_back(LeftOut{k.source, k.level, std::move(k.sample), k.leftOut});
        }
        it = kinds_.erase(it);
    }
}

std::vector<LogThrottle::LeftOut> LogThrottle::drain() {
    std::vector<LeftOut> out;
    for (auto& [key, k] : kinds_) {
        if (k.leftOut > 0) {
            out.push_back(LeftOut{k.source, k.level, std::move(k.sample), k.leftOut});
            k.leftOut = 0;
        }
    }
    return out;
}

std::string leftOutText(const LogThrottle::LeftOut& leftOut) {
    std::string text = std::to_string(leftOut.count);
    text += leftOut.count == 1 ? " more line like this one was" : " more lines like this one were";
    text += " left out: ";
    text += leftOut.sample;
    if (leftOut.sample.size() >= kSampleChars) {
        text += "...";
    }
    return text;
}

}  // namespace CORE
