#pragma once
// A strict reader of the Prometheus text exposition format (0.0.4), as a
// scraper would read it, and stricter: every sample belongs to a family
// declared by a TYPE line before it, families are not interleaved, a series
// appears once, counters end in _total, a histogram's buckets rise to a +Inf
// bucket that equals its count. The first breach is the error.

#include <cmath>
#include <cstdlib>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace ndpx::test {

struct PromSample {
    std::string name;
    std::map<std::string, std::string> labels;
    double value = 0;
};

struct PromFamily {
    std::string type;
    std::string help;
    std::vector<PromSample> samples;

    // The value of the sample `name` with exactly `labels`, if there is one.
    std::optional<double> value(const std::string& name,
                                const std::map<std::string, std::string>& labels = {}) const {
        for (const auto& s : samples) {
            if (s.name == name && s.labels == labels) {
                return s.value;
            }
        }
        return std::nullopt;
    }
};

struct PromText {
    std::map<std::string, PromFamily> families;
    std::string error;  // empty when the text is well formed
};

namespace prom_detail {

inline bool parseValue(const std::string& text, double& out) {
    if (text == "+Inf" || text == "-Inf" || text == "NaN") {
        out = text == "NaN" ? NAN : (text[0] == '+' ? INFINITY : -INFINITY);
        return true;
    }
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return !text.empty() && end == text.c_str() + text.size();
}

// `name{a="x",b="y"} value` into `s`; false when it is not that.
inline bool parseSample(const std::string& line, PromSample& s) {
    static const std::regex kName("[a-zA-Z_:][a-zA-Z0-9_:]*");
    static const std::regex kLabel("[a-zA-Z_][a-zA-Z0-9_]*");
    std::size_t i = line.find_first_of("{ ");
    if (i == std::string::npos || !std::regex_match(line.substr(0, i), kName)) {
        return false;
    }
    s.name = line.substr(0, i);
    if (line[i] == '{') {
        ++i;
        while (line.at(i) != '}') {
            const std::size_t eq = line.find('=', i);
            if (eq == std::string::npos || !std::regex_match(line.substr(i, eq - i), kLabel) ||
                line.at(eq + 1) != '"') {
                return false;
            }
            const std::string label = line.substr(i, eq - i);
            std::string value;
            std::size_t j = eq + 2;
            for (; j < line.size() && line[j] != '"'; ++j) {
                if (line[j] == '\\') {
                    const char next = line.at(++j);
                    if (next != '\\' && next != '"' && next != 'n') {
                        return false;
                    }
                    value += next == 'n' ? '\n' : next;
                } else {
                    value += line[j];
                }
            }
            if (j >= line.size() || !s.labels.emplace(label, value).second) {
                return false;
            }
            i = j + 1;
            if (line.at(i) == ',') {
                ++i;
            } else if (line[i] != '}') {
                return false;
            }
        }
        ++i;
    }
    return line.at(i) == ' ' && parseValue(line.substr(i + 1), s.value);
}

inline std::string checkHistogram(const std::string& name, const PromFamily& f) {
    std::vector<std::pair<double, double>> buckets;  // le, count
    for (const auto& s : f.samples) {
        if (s.name == name + "_bucket") {
            double le = 0;
            if (!s.labels.count("le") || !parseValue(s.labels.at("le"), le)) {
                return name + ": a bucket without a number in le";
            }
            buckets.emplace_back(le, s.value);
        }
    }
    const auto count = f.value(name + "_count");
    if (buckets.empty() || !count || !f.value(name + "_sum")) {
        return name + ": histogram without buckets, _sum or _count";
    }
    for (std::size_t k = 1; k < buckets.size(); ++k) {
        if (buckets[k].first <= buckets[k - 1].first || buckets[k].second < buckets[k - 1].second) {
            return name + ": buckets out of order or falling";
        }
    }
    if (!std::isinf(buckets.back().first) || buckets.back().second != *count) {
        return name + ": the +Inf bucket is missing or is not the count";
    }
    return {};
}

}  // namespace prom_detail

inline PromText parsePrometheus(const std::string& text) {
    PromText out;
    if (!text.empty() && text.back() != '\n') {
        out.error = "the text does not end with a line feed";
        return out;
    }
    std::istringstream in(text);
    std::string line;
    std::string current;  // the family whose samples may follow
    std::set<std::string> series;
    const std::set<std::string> types{"counter", "gauge", "histogram", "summary", "untyped"};
    while (std::getline(in, line)) {
        const auto fail = [&](const std::string& why) { out.error = why + ": " + line; };
        if (line.rfind("# HELP ", 0) == 0 || line.rfind("# TYPE ", 0) == 0) {
            std::istringstream words(line.substr(7));
            std::string name;
            std::string rest;
            words >> name;
            std::getline(words >> std::ws, rest);
            PromFamily& f = out.families[name];
            if (line[2] == 'T') {
                if (!f.type.empty() || !f.samples.empty() || !types.count(rest)) {
                    fail("a second or unknown TYPE, or TYPE after samples");
                    return out;
                }
                if (rest == "counter" && !name.ends_with("_total")) {
                    fail("a counter's name must end in _total");
                    return out;
                }
                f.type = rest;
            } else {
                f.help = rest;
            }
            current = name;
            continue;
        }
        if (line.empty() || line[0] == '#') {
            continue;
        }
        PromSample s;
        if (!prom_detail::parseSample(line, s)) {
            fail("not a sample line");
            return out;
        }
        const auto known = out.families.find(current);
        const bool histogramPart = known != out.families.end() &&
                                   known->second.type == "histogram" &&
                                   (s.name == current + "_bucket" || s.name == current + "_sum" ||
                                    s.name == current + "_count");
        if (known == out.families.end() || known->second.type.empty() ||
            (s.name != current && !histogramPart)) {
            fail("a sample outside its declared family");
            return out;
        }
        std::string key = s.name;
        for (const auto& [k, v] : s.labels) {
            key += "\x1f" + k + "=" + v;
        }
        if (!series.insert(key).second) {
            fail("a series twice");
            return out;
        }
        known->second.samples.push_back(std::move(s));
    }
    for (const auto& [name, f] : out.families) {
        if (f.type == "histogram") {
            if (auto why = prom_detail::checkHistogram(name, f); !why.empty()) {
                out.error = why;
                return out;
            }
        }
    }
    return out;
}

}  // namespace ndpx::test
