#pragma once
// The log of a fuzz target: every line is formatted (level 0) and none is
// kept, and a target may name a text that must never appear in a line, such
// as a secret it planted in the input.

#include "FuzzCheck.h"

#include <mfw/log.h>

#include <memory>
#include <string>

namespace ndpx::fuzz {

class FuzzLog : public CORE::LogSink {
public:
    // The one sink of the process, installed on first use.
    static FuzzLog& get() {
        static const std::shared_ptr<FuzzLog> sink = [] {
            auto s = std::make_shared<FuzzLog>();
            CORE::clearLogSinks();
            CORE::addLogSink(s);
            CORE::setLogLevel(0);
            return s;
        }();
        return *sink;
    }

    // While it lives, a line holding `text` aborts the run.
    class Forbidden {
    public:
        explicit Forbidden(std::string text) { get().forbidden_ = std::move(text); }
        ~Forbidden() { get().forbidden_.clear(); }
        Forbidden(const Forbidden&) = delete;
        Forbidden& operator=(const Forbidden&) = delete;
    };

    void write(const CORE::LogRecord& record) override {
        check(forbidden_.empty() || record.text.find(forbidden_) == std::string::npos,
              "a forbidden text reached the log", record.text);
    }

private:
    std::string forbidden_;
};

}  // namespace ndpx::fuzz
