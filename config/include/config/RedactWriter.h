#pragma once
// Compact JSON for log lines, with the value of every sensitive member
// replaced by the mask.

#include <json/value.h>

#include <set>
#include <string>

namespace ndpx {

class RedactWriter {
public:
    explicit RedactWriter(const std::set<std::string, std::less<>>& sensitive);
    std::string operator()(const Json::Value& value) const;

    // With the process's redaction set.
    static std::string write(const Json::Value& value);

private:
    void writeValue(const Json::Value& value, std::string& out) const;
    const std::set<std::string, std::less<>>& sensitive_;
};

}  // namespace ndpx
