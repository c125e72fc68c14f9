// logSafePayload: a payload that did not parse, shown in a log line without
// its secrets. Nothing here trusts the text to be JSON; every scan is bounded
// by the input and moves forward only, so the cost is linear in what is shown.

#include "config/Redaction.h"

#include <optional>

namespace ndpx {
namespace {

// Longer than any name in the redaction set: a quoted word beyond this is no
// redacted name, and the look-ahead for one stays short.
constexpr std::size_t kLongestName = 64;

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Reads JSON text, either as it stands or as it sits quoted inside a JSON
// string, where each quote and backslash carries one more backslash: peek()
// gives the character the inner text has. Quoted text ends at the outer
// string's own closing quote.
class Cursor {
public:
    Cursor(std::string_view text, std::size_t pos, bool quoted)
        : text_(text), pos_(pos), quoted_(quoted) {}

    bool atEnd() const { return pos_ >= text_.size() || (quoted_ && text_[pos_] == '"'); }
    char peek() const {
        return quoted_ && text_[pos_] == '\\' && pos_ + 1 < text_.size() ? text_[pos_ + 1]
                                                                         : text_[pos_];
    }
    void next() { pos_ += quoted_ && text_[pos_] == '\\' && pos_ + 1 < text_.size() ? 2 : 1; }
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
    std::string_view text_;
    std::size_t pos_;
    bool quoted_;
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

// A member with a redacted name whose quote opens at `pos`.
struct Secret {
    std::size_t valueStart;
    std::size_t valueEnd;
    bool quoted;    // the member sits in JSON text quoted inside a string
    bool isString;  // the value is a string (masked as one)

    // Where the quote that closed a string value starts; nothing for other
    // values and for a string cut off.
    std::optional<std::size_t> closingQuote(std::string_view text) const {
        const std::size_t width = quoted ? 2 : 1;
        if (!isString || valueEnd - valueStart < 2 * width || text[valueEnd - 1] != '"' ||
            (quoted && text[valueEnd - 2] != '\\')) {
            return std::nullopt;
        }
        return valueEnd - width;
    }
};

std::optional<Secret> secretAt(std::string_view text, std::size_t pos, bool quoted) {
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
    Secret secret{c.pos(), 0, quoted, c.peek() == '"'};
    skipValue(c);
    secret.valueEnd = c.pos();
    if (secret.valueEnd == secret.valueStart) {
        return std::nullopt;
    }
    return secret;
}

std::optional<Secret> secretAt(std::string_view text, std::size_t pos) {
    if (text[pos] == '"') {
        return secretAt(text, pos, false);
    }
    if (text[pos] == '\\' && pos + 1 < text.size() && text[pos + 1] == '"') {
        return secretAt(text, pos, true);
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
    std::size_t pos = 0;
    // A closing quote already shown as part of a mask, and the end of it.
    std::optional<std::size_t> shownQuote;
    std::size_t shownQuoteEnd = 0;
    while (pos < payload.size()) {
        if (const auto secret = secretAt(payload, pos)) {
            // The name as it stands, then the mask in place of the whole value.
            while (pos < secret->valueStart && out.addByte(payload[pos])) {
                ++pos;
            }
            const char* mask = !secret->isString ? "*****"
                               : secret->quoted  ? R"(\"*****\")"
                                                 : R"("*****")";
            if (pos < secret->valueStart || !out.add(mask)) {
                break;
            }
            pos = secret->valueEnd;
            // In text that is not well-formed the quote that closed the value
            // may as well open the next member's name: look there again.
            if (const auto quote = secret->closingQuote(payload)) {
                shownQuote = quote;
                shownQuoteEnd = pos;
                pos = *quote;
            }
            continue;
        }
        if (pos == shownQuote) {
            pos = shownQuoteEnd;
            continue;
        }
        if (!out.addByte(payload[pos])) {
            break;
        }
        ++pos;
    }
    std::string text = out.take();
    if (pos < payload.size()) {
        text += "... (" + std::to_string(payload.size()) + " bytes)";
    }
    return text;
}

}  // namespace ndpx
