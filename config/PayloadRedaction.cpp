// logSafePayload: a payload that did not parse, shown in a log line without
// its secrets. Nothing here trusts the text to be JSON. Text that is not
// well-formed can be read in more than one way, so every place where a
// redacted member could begin is looked at, also inside values already
// masked, and the bytes of every value found are hidden.

#include "config/Redaction.h"

#include <algorithm>
#include <optional>

namespace ndpx {
namespace {

// Longer than any name in the redaction set: a quoted word beyond this is no
// redacted name, and the look-ahead for one stays short.
constexpr std::size_t kLongestName = 64;

// Steps allowed, per payload byte, for finding where masked values end.
// Values nest, and overlap in text that is not well-formed; past this the
// rest of the payload is hidden rather than scanned again and again.
constexpr std::size_t kStepsPerByte = 8;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Reads JSON text, either as it stands or as it sits quoted inside a JSON
// string, where each quote and backslash carries one more backslash: peek()
// gives the character the inner text has. Quoted text ends at the outer
// string's own closing quote. With a budget, each step spends one, and the
// text ends when none is left.
class Cursor {
public:
    Cursor(std::string_view text, std::size_t pos, bool quoted)
        : text_(text), pos_(pos), quoted_(quoted) {}

    void spend(std::size_t& budget) { budget_ = &budget; }
    bool exhausted() const { return budget_ != nullptr && *budget_ == 0; }

    bool atEnd() const {
        return pos_ >= text_.size() || (quoted_ && text_[pos_] == '"') || exhausted();
    }
    char peek() const { return escapePair() ? text_[pos_ + 1] : text_[pos_]; }
    void next() {
        pos_ += escapePair() ? 2 : 1;
        if (budget_ != nullptr) {
            --*budget_;
        }
    }
    std::size_t pos() const { return pos_; }

    void skipBlanks() {
        while (!atEnd() && isBlank(peek())) {
            next();
        }
    }
    // Past a string whose opening quote was just read.
    void skipStringRest() {
        while (!atEnd()) {
            const char c = peek();
            next();
            if (c == '\\' && !atEnd()) {
                next();
            } else if (c == '"') {
                return;
            }
        }
    }

private:
    bool escapePair() const { return quoted_ && text_[pos_] == '\\' && pos_ + 1 < text_.size(); }

    std::string_view text_;
    std::size_t pos_;
    bool quoted_;
    std::size_t* budget_ = nullptr;
};

// Past one value: a string, an object or array with what it holds, or a bare
// word. A value cut off runs to the end.
void skipValue(Cursor& c) {
    const char first = c.peek();
    if (first == '"') {
        c.next();
        c.skipStringRest();
        return;
    }
    if (first == '{' || first == '[') {
        std::size_t depth = 0;
        while (!c.atEnd()) {
            const char ch = c.peek();
            c.next();
            if (ch == '"') {
                c.skipStringRest();
            } else if (ch == '{' || ch == '[') {
                ++depth;
            } else if ((ch == '}' || ch == ']') && --depth == 0) {
                return;
            }
        }
        return;
    }
    while (!c.atEnd() && !isBlank(c.peek()) && c.peek() != ',' && c.peek() != '}' &&
           c.peek() != ']') {
        c.next();
    }
}

// A member with a redacted name, and where its value lies.
struct Secret {
    std::size_t valueStart;
    std::size_t valueEnd;
    const char* mask;  // a string value is masked as a string
};

std::optional<Secret> secretAt(std::string_view text, std::size_t pos, bool quoted,
                               std::size_t& budget) {
    Cursor c(text, pos, quoted);
    if (c.atEnd() || c.peek() != '"') {
        return std::nullopt;
    }
    c.next();
    std::string name;
    while (!c.atEnd() && c.peek() != '"' && name.size() <= kLongestName) {
        name += c.peek();
        c.next();
    }
    if (c.atEnd() || c.peek() != '"' || !isRedacted(name)) {
        return std::nullopt;
    }
    c.next();
    c.skipBlanks();
    if (c.atEnd() || c.peek() != ':') {
        return std::nullopt;
    }
    c.next();
    c.skipBlanks();
    if (c.atEnd()) {
        return std::nullopt;  // nothing to hide
    }
    const bool isString = c.peek() == '"';
    Secret secret{c.pos(), 0, !isString ? "*****" : quoted ? R"(\"*****\")" : R"("*****")"};
    c.spend(budget);
    skipValue(c);
    secret.valueEnd = c.exhausted() ? text.size() : c.pos();
    return secret;
}

// A redacted member whose name's opening quote is at `pos`, as the text
// stands or quoted inside a string.
std::optional<Secret> secretAt(std::string_view text, std::size_t pos, std::size_t& budget) {
    if (text[pos] == '"') {
        return secretAt(text, pos, false, budget);
    }
    if (text[pos] == '\\' && pos + 1 < text.size() && text[pos + 1] == '"') {
        return secretAt(text, pos, true, budget);
    }
    return std::nullopt;
}

// Text that stops taking more once the next piece would pass its bound.
class BoundedText {
public:
    explicit BoundedText(std::size_t limit) : limit_(limit) {}

    bool add(std::string_view piece) {
        if (out_.size() + piece.size() > limit_) {
            return false;
        }
        out_ += piece;
        return true;
    }
    bool addByte(char c) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7f) {
            return add(std::string_view(&c, 1));
        }
        constexpr char kHex[] = "0123456789abcdef";
        const char escaped[] = {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xf]};
        return add(std::string_view(escaped, sizeof escaped));
    }
    std::string take() { return std::move(out_); }

private:
    std::size_t limit_;
    std::string out_;
};

}  // namespace

std::string logSafePayload(std::string_view payload, std::size_t maxChars) {
    BoundedText out(maxChars);
    std::size_t budget = kStepsPerByte * payload.size();
    std::size_t hiddenEnd = 0;  // the bytes before it belong to masked values
    std::size_t pos = 0;
    while (pos < payload.size() && hiddenEnd < payload.size()) {
        const bool hidden = pos < hiddenEnd;
        if (const auto secret = secretAt(payload, pos, budget)) {
            if (!hidden) {
                // The name as it stands, then the mask in place of the value.
                while (pos < secret->valueStart && out.addByte(payload[pos])) {
                    ++pos;
                }
                if (pos < secret->valueStart || !out.add(secret->mask)) {
                    break;
                }
            }
            hiddenEnd = std::max(hiddenEnd, secret->valueEnd);
            // The value is looked through too: where the text is not
            // well-formed, a name may begin inside what was taken for it.
            pos = secret->valueStart;
            continue;
        }
        if (!hidden && !out.addByte(payload[pos])) {
            break;
        }
        ++pos;
    }
    std::string text = out.take();
    if (pos < payload.size() && hiddenEnd < payload.size()) {
        text += "... (" + std::to_string(payload.size()) + " bytes)";
    }
    return text;
}

}  // namespace ndpx
