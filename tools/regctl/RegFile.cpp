#include "regctl/RegFile.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <limits>

namespace ndpx::regctl {

namespace {

using platform::SettingValue;

bool startsWithIgnoreCase(std::string_view text, std::string_view prefix) {
    if (text.size() < prefix.size()) {
        return false;
    }
    for (std::size_t i = 0; i < prefix.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(text[i])) !=
            std::tolower(static_cast<unsigned char>(prefix[i]))) {
            return false;
        }
    }
    return true;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && (isBlank(s.front()) || s.front() == '\r')) {
        s.remove_prefix(1);
    }
    while (!s.empty() && (isBlank(s.back()) || s.back() == '\r')) {
        s.remove_suffix(1);
    }
    return s;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

std::vector<char16_t> toUnits(std::string_view bytes) {
    std::vector<char16_t> units;
    units.reserve(bytes.size() / 2);
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
        units.push_back(static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                              (static_cast<unsigned char>(bytes[i + 1]) << 8)));
    }
    return units;
}

std::string unitsToUtf8(const char16_t* units, std::size_t count) {
    constexpr char32_t kReplacement = 0xFFFD;
    std::string out;
    for (std::size_t i = 0; i < count; ++i) {
        const char16_t u = units[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < count && units[i + 1] >= 0xDC00 &&
            units[i + 1] <= 0xDFFF) {
            appendUtf8(out, 0x10000 + ((static_cast<char32_t>(u) - 0xD800) << 10) +
                                (static_cast<char32_t>(units[i + 1]) - 0xDC00));
            ++i;
        } else if (u >= 0xD800 && u <= 0xDFFF) {
            appendUtf8(out, kReplacement);
        } else {
            appendUtf8(out, u);
        }
    }
    return out;
}

// One logical line of the file: continuation lines joined, with the number
// of its first physical line.
struct Line {
    std::string text;
    int number = 0;
};

std::vector<Line> logicalLines(std::string_view text) {
    std::vector<Line> lines;
    bool continuing = false;
    int number = 0;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        std::string_view physical = trim(text.substr(pos, end - pos));
        ++number;
        pos = end + 1;
        if (continuing) {
            lines.back().text += physical;
        } else {
            lines.push_back({std::string(physical), number});
        }
        // Only value lines wrap; exporters break long hex lists this way.
        std::string& current = lines.back().text;
        const bool valueLine = !current.empty() && (current[0] == '"' || current[0] == '@');
        continuing = valueLine && !current.empty() && current.back() == '\\';
        if (continuing) {
            current.pop_back();
        }
    }
    return lines;
}

class LineParser {
public:
    LineParser(std::string_view text, std::string& error) : text_(text), error_(error) {}

    bool atEnd() const { return pos_ >= text_.size(); }
    void skipBlanks() {
        while (!atEnd() && isBlank(text_[pos_])) {
            ++pos_;
        }
    }
    bool consume(char c) {
        if (!atEnd() && text_[pos_] == c) {
            ++pos_;
            return true;
        }
        return false;
    }
    bool consumePrefix(std::string_view prefix) {
        if (startsWithIgnoreCase(text_.substr(pos_), prefix)) {
            pos_ += prefix.size();
            return true;
        }
        return false;
    }
    std::string_view rest() const { return text_.substr(std::min(pos_, text_.size())); }
    void skip(std::size_t n) { pos_ = std::min(pos_ + n, text_.size()); }
    void skipRest() { pos_ = text_.size(); }

    // A "quoted" string with \\ and \" escapes.
    bool quoted(std::string& out) {
        if (!consume('"')) {
            return fail("expected '\"'");
        }
        out.clear();
        while (!atEnd()) {
            const char c = text_[pos_++];
            if (c == '"') {
                return true;
            }
            if (c == '\\') {
                if (atEnd()) {
                    break;
                }
                const char escaped = text_[pos_++];
                if (escaped != '\\' && escaped != '"') {
                    return fail(std::string("unknown escape \\") + escaped +
                                " (write a backslash as \\\\)");
                }
                out += escaped;
            } else {
                out += c;
            }
        }
        return fail("missing closing '\"'");
    }

    bool fail(std::string message) {
        error_ = std::move(message);
        return false;
    }

private:
    std::string_view text_;
    std::size_t pos_ = 0;
    std::string& error_;
};

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool parseHexBytes(std::string_view list, std::string& bytes, std::string& error) {
    bytes.clear();
    list = trim(list);
    if (list.empty()) {
        return true;
    }
    std::size_t pos = 0;
    while (pos <= list.size()) {
        std::size_t end = list.find(',', pos);
        if (end == std::string_view::npos) {
            end = list.size();
        }
        const std::string_view token = trim(list.substr(pos, end - pos));
        const bool last = end == list.size();
        if (token.empty() && last && pos > 0) {
            break;  // a trailing comma
        }
        if (token.empty() || token.size() > 2 || hexDigit(token[0]) < 0 ||
            (token.size() == 2 && hexDigit(token[1]) < 0)) {
            error = "bad hex byte '" + std::string(token) + "'";
            return false;
        }
        int value = hexDigit(token[0]);
        if (token.size() == 2) {
            value = value * 16 + hexDigit(token[1]);
        }
        bytes += static_cast<char>(value);
        pos = end + 1;
    }
    return true;
}

// REG_MULTI_SZ: UTF-16LE strings, each ended by NUL, the list by an empty one.
std::vector<std::string> decodeMultiString(std::string_view bytes) {
    const std::vector<char16_t> units = toUnits(bytes);
    std::vector<std::string> strings;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= units.size(); ++i) {
        if (i == units.size() || units[i] == 0) {
            if (i == start) {
                break;
            }
            strings.push_back(unitsToUtf8(units.data() + start, i - start));
            start = i + 1;
        }
    }
    return strings;
}

std::string decodeString(std::string_view bytes) {
    const std::vector<char16_t> units = toUnits(bytes);
    std::size_t n = 0;
    while (n < units.size() && units[n] != 0) {
        ++n;
    }
    return unitsToUtf8(units.data(), n);
}

bool parseValueData(LineParser& p, RegOperation& op, std::string& error) {
    if (p.consume('-')) {
        op.kind = RegOperation::Kind::DeleteValue;
        return true;
    }
    op.kind = RegOperation::Kind::SetValue;
    if (!p.atEnd() && p.rest().front() == '"') {
        std::string text;
        if (!p.quoted(text)) {
            return false;
        }
        op.value = SettingValue::ofString(std::move(text));
        return true;
    }
    if (p.consumePrefix("dword:")) {
        const std::string_view digits = trim(p.rest());
        std::uint32_t v = 0;
        const auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), v, 16);
        if (digits.empty() || digits.size() > 8 || ec != std::errc() ||
            ptr != digits.data() + digits.size()) {
            error = "bad dword '" + std::string(digits) + "' (expected up to 8 hex digits)";
            return false;
        }
        op.value = SettingValue::ofDword(v);
        p.skipRest();
        return true;
    }
    int hexType = -1;
    if (p.consumePrefix("hex(")) {
        const std::string_view r = p.rest();
        const std::size_t close = r.find("):");
        int t = -1;
        if (close != std::string_view::npos) {
            const auto [ptr, ec] = std::from_chars(r.data(), r.data() + close, t, 16);
            if (ec != std::errc() || ptr != r.data() + close) {
                t = -1;
            }
        }
        if (t < 0) {
            error = "bad value type 'hex(" + std::string(r.substr(0, close)) + "'";
            return false;
        }
        hexType = t;
        p.skip(close + 2);
    } else if (p.consumePrefix("hex:")) {
        hexType = 3;
    } else {
        error = "unknown value data '" + std::string(p.rest()) + "'";
        return false;
    }
    std::string bytes;
    if (!parseHexBytes(p.rest(), bytes, error)) {
        return false;
    }
    p.skipRest();
    switch (hexType) {
        case 1:  // REG_SZ
        case 2:  // REG_EXPAND_SZ: the store keeps it as plain text
            op.value = SettingValue::ofString(decodeString(bytes));
            return true;
        case 4:  // REG_DWORD, little-endian
            if (bytes.size() != 4) {
                error = "hex(4) needs exactly 4 bytes";
                return false;
            }
            op.value = SettingValue::ofDword(static_cast<std::uint32_t>(
                static_cast<unsigned char>(bytes[0]) | (static_cast<unsigned char>(bytes[1]) << 8) |
                (static_cast<unsigned char>(bytes[2]) << 16) |
                (static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[3])) << 24)));
            return true;
        case 7:  // REG_MULTI_SZ
            if (bytes.size() % 2 != 0) {
                error = "hex(7) needs an even number of bytes";
                return false;
            }
            op.value = SettingValue::ofMulti(decodeMultiString(bytes));
            return true;
        default:
            error = "value type " + std::to_string(hexType) +
                    " is not supported (only strings, dwords and multi-strings)";
            return false;
    }
}

bool parseValueLine(const std::string& text, const std::string& key, RegOperation& op,
                    std::string& error) {
    LineParser p(text, error);
    op.key = key;
    if (p.consume('@')) {
        op.name.clear();
    } else if (!p.quoted(op.name)) {
        return false;
    }
    p.skipBlanks();
    if (!p.consume('=')) {
        error = "expected '=' after the value name";
        return false;
    }
    p.skipBlanks();
    if (!parseValueData(p, op, error)) {
        return false;
    }
    p.skipBlanks();
    if (!p.atEnd()) {
        error = "unexpected text after the value: '" + std::string(p.rest()) + "'";
        return false;
    }
    return true;
}

}  // namespace

std::string utf16LeToUtf8(std::string_view bytes) {
    const std::vector<char16_t> units = toUnits(bytes);
    return unitsToUtf8(units.data(), units.size());
}

bool parseRegFile(std::string_view content, std::vector<RegOperation>& operations,
                  std::string& error) {
    std::string decoded;
    if (content.starts_with("\xFF\xFE")) {
        decoded = utf16LeToUtf8(content.substr(2));
        content = decoded;
    } else if (content.starts_with("\xFE\xFF")) {
        error = "line 1: UTF-16 big-endian files are not supported";
        return false;
    } else if (content.starts_with("\xEF\xBB\xBF")) {
        content.remove_prefix(3);
    }

    std::vector<RegOperation> parsed;
    std::string currentKey;
    bool sawContent = false;
    for (const Line& line : logicalLines(content)) {
        const std::string_view text = line.text;
        if (text.empty() || text.front() == ';') {
            continue;
        }
        auto fail = [&](const std::string& message) {
            error = "line " + std::to_string(line.number) + ": " + message;
            return false;
        };
        if (!sawContent) {
            sawContent = true;
            if (text == "Windows Registry Editor Version 5.00" || text == "REGEDIT4") {
                continue;
            }
        }
        if (text.front() == '[') {
            if (text.back() != ']') {
                return fail("missing ']' at the end of the key");
            }
            std::string_view key = text.substr(1, text.size() - 2);
            RegOperation op;
            op.line = line.number;
            op.kind = RegOperation::Kind::CreateKey;
            if (!key.empty() && key.front() == '-') {
                op.kind = RegOperation::Kind::DeleteKey;
                key.remove_prefix(1);
            }
            op.key = platform::normalizeKeyPath(key);
            if (op.key.empty()) {
                return fail("empty key name");
            }
            currentKey = op.kind == RegOperation::Kind::CreateKey ? op.key : std::string();
            parsed.push_back(std::move(op));
            continue;
        }
        if (text.front() == '"' || text.front() == '@') {
            if (currentKey.empty()) {
                return fail("value outside a [key] section");
            }
            RegOperation op;
            op.line = line.number;
            std::string message;
            if (!parseValueLine(line.text, currentKey, op, message)) {
                return fail(message);
            }
            parsed.push_back(std::move(op));
            continue;
        }
        return fail("unexpected text '" + std::string(text) + "'");
    }
    operations = std::move(parsed);
    return true;
}

bool applyRegOperations(platform::SettingsStore& store, const std::vector<RegOperation>& operations,
                        std::string& error) {
    for (const auto& op : operations) {
        bool ok = false;
        const char* what = "";
        switch (op.kind) {
            case RegOperation::Kind::CreateKey:
                ok = store.createKey(op.key);
                what = "create key";
                break;
            case RegOperation::Kind::DeleteKey:
                ok = store.removeKey(op.key);
                what = "delete key";
                break;
            case RegOperation::Kind::SetValue:
                ok = store.set(op.key, op.name, op.value);
                what = "set value";
                break;
            case RegOperation::Kind::DeleteValue:
                ok = store.remove(op.key, op.name);
                what = "delete value";
                break;
        }
        if (!ok) {
            error = "line " + std::to_string(op.line) + ": cannot " + what + " in " + op.key +
                    (op.name.empty() ? std::string() : " (\"" + op.name + "\")");
            return false;
        }
    }
    return true;
}

std::optional<std::uint32_t> parseDwordArgument(std::string_view text) {
    int base = 10;
    if (startsWithIgnoreCase(text, "0x")) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) {
        return std::nullopt;
    }
    std::uint64_t v = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), v, base);
    if (ec != std::errc() || ptr != text.data() + text.size() ||
        v > std::numeric_limits<std::uint32_t>::max()) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(v);
}

}  // namespace ndpx::regctl
