#pragma once
// Keeps one kind of log line from flooding the log. A kind is a line's
// format with its source (a line whose format is only conversions, such as
// "%s", is its own kind by its text). Each kind may write `burst` lines per
// `window`; the rest are counted, and once the window is over one line tells
// how many were left out.

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace CORE {

class LogThrottle {
public:
    using Clock = std::chrono::steady_clock;

    struct Options {
        Clock::duration window = std::chrono::seconds(60);
        unsigned burst = 20;
        // Kinds tracked at once; past this, new kinds pass unthrottled.
        std::size_t maxKinds = 1024;
    };

    // A kind whose window ended with lines left out.
    struct LeftOut {
        std::string source;
        int level = 0;
        std::string sample;  // the first line of the kind in that window
        std::uint64_t count = 0;
    };

    LogThrottle() : LogThrottle(Options{}) {}
    explicit LogThrottle(Options options) : options_(options) {}

    // Whether this line may be written at `now`. Appends to `due` the kinds
    // whose window has ended with lines left out, to be told before it.
    bool admit(std::string_view source, int level, std::string_view kind, std::string_view text,
               Clock::time_point now, std::vector<LeftOut>& due);

    // The kinds with lines left out so far, their windows ended or not.
    std::vector<LeftOut> drain();

private:
    struct Kind {
        Clock::time_point windowStart;
        unsigned written = 0;
        std::uint64_t leftOut = 0;
        int level = 0;
        std::string source;
        std::string sample;
    };
    void sweep(Clock::time_point now, std::vector<LeftOut>& due);

    Options options_;
    std::unordered_map<std::string, Kind> kinds_;
    Clock::time_point nextSweep_{};
};

// The sentence that tells of lines left out.
std::string leftOutText(const LogThrottle::LeftOut& leftOut);

}  // namespace CORE
