#include <mfw/corestring.h>

#include <openssl/rand.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <type_traits>

namespace CORE {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// wchar_t holds UTF-32 on Linux and UTF-16 on Windows; both are handled.
constexpr bool kWideIsUtf16 = sizeof(wchar_t) == 2;

wchar_t* appendWide(wchar_t* out, char32_t cp) {
    if constexpr (kWideIsUtf16) {
        if (cp >= 0x10000) {
            cp -= 0x10000;
            *out++ = static_cast<wchar_t>(0xD800 + (cp >> 10));
            *out++ = static_cast<wchar_t>(0xDC00 + (cp & 0x3FF));
            return out;
        }
    }
    *out++ = static_cast<wchar_t>(cp);
    return out;
}

char* appendUtf8(char* out, char32_t cp) {
    if (cp < 0x80) {
        *out++ = static_cast<char>(cp);
    } else if (cp < 0x800) {
        *out++ = static_cast<char>(0xC0 | (cp >> 6));
        *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        *out++ = static_cast<char>(0xE0 | (cp >> 12));
        *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        *out++ = static_cast<char>(0xF0 | (cp >> 18));
        *out++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        *out++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        *out++ = static_cast<char>(0x80 | (cp & 0x3F));
    }
    return out;
}

char32_t unitValue(wchar_t c) {
    return static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(c));
}

bool isHighSurrogate(char32_t c) {
    return c >= 0xD800 && c <= 0xDBFF;
}
bool isLowSurrogate(char32_t c) {
    return c >= 0xDC00 && c <= 0xDFFF;
}

// The code point at wide[i]; advances i past a surrogate pair's second half.
// Anything UTF-8 cannot carry comes back as U+FFFD.
char32_t decodeUnit(std::wstring_view wide, std::size_t& i) {
    const char32_t cp = unitValue(wide[i]);
    if (cp < 0xD800) {
        return cp;
    }
    if (isHighSurrogate(cp) && i + 1 < wide.size() && isLowSurrogate(unitValue(wide[i + 1]))) {
        ++i;
        return 0x10000 + ((cp - 0xD800) << 10) + (unitValue(wide[i]) - 0xDC00);
    }
    if (cp <= 0xDFFF || cp > 0x10FFFF) {
        return kReplacement;
    }
    return cp;
}

char lowerAscii(char c) {
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}
wchar_t lowerAscii(wchar_t c) {
    return (c >= L'A' && c <= L'Z') ? static_cast<wchar_t>(c - L'A' + L'a') : c;
}

bool randomBytes(unsigned char* buffer, std::size_t size) {
    if (RAND_bytes(buffer, static_cast<int>(size)) == 1) {
        return true;
    }
    std::ifstream urandom("/dev/urandom", std::ios::binary);
    return urandom.read(reinterpret_cast<char*>(buffer), static_cast<std::streamsize>(size)) &&
           urandom.gcount() == static_cast<std::streamsize>(size);
}

}  // namespace

// Ill-formed input is replaced the way the Unicode standard recommends: each
// maximal subpart of a broken sequence becomes one U+FFFD. Overlong forms,
// encoded surrogates and values above U+10FFFF are ill-formed.
bool isValidUtf8(std::string_view text) {
    // Ill-formed sequences come back as U+FFFD, so only well-formed text
    // survives the round trip unchanged.
    return toUtf8(toWide(text)) == text;
}

std::wstring toWide(std::string_view utf8) {
    // No input byte yields more than one code unit (a 4-byte sequence gives at
    // most two), so the output fits in utf8.size() units: write in place.
    std::wstring out(utf8.size(), L'\0');
    wchar_t* w = out.data();
    const auto* s = reinterpret_cast<const unsigned char*>(utf8.data());
    const std::size_t n = utf8.size();
    std::size_t i = 0;
    while (i < n) {
        const unsigned char b0 = s[i];
        if (b0 < 0x80) {
            *w++ = static_cast<wchar_t>(b0);
            ++i;
            continue;
        }
        int trailing = 0;
        unsigned char lo = 0x80;
        unsigned char hi = 0xBF;
        char32_t cp = 0;
        if (b0 >= 0xC2 && b0 <= 0xDF) {
            trailing = 1;
            cp = b0 & 0x1F;
        } else if (b0 >= 0xE0 && b0 <= 0xEF) {
            trailing = 2;
            cp = b0 & 0x0F;
            if (b0 == 0xE0) {
                lo = 0xA0;  // overlong below U+0800
            } else if (b0 == 0xED) {
                hi = 0x9F;  // U+D800..U+DFFF
            }
        } else if (b0 >= 0xF0 && b0 <= 0xF4) {
            trailing = 3;
            cp = b0 & 0x07;
            if (b0 == 0xF0) {
                lo = 0x90;  // overlong below U+10000
            } else if (b0 == 0xF4) {
                hi = 0x8F;  // above U+10FFFF
            }
        } else {
            *w++ = static_cast<wchar_t>(kReplacement);
            ++i;
            continue;
        }
        std::size_t j = i + 1;
        bool complete = true;
        for (int k = 0; k < trailing; ++k, ++j) {
            if (j >= n || s[j] < lo || s[j] > hi) {
                complete = false;
                break;
            }
            cp = (cp << 6) | (s[j] & 0x3F);
            lo = 0x80;
            hi = 0xBF;
        }
        w = appendWide(w, complete ? cp : kReplacement);
        i = j;  // an offending byte is not consumed: it may start the next character
    }
    out.resize(static_cast<std::size_t>(w - out.data()));
    return out;
}

std::string toUtf8(std::wstring_view wide) {
    std::string out;
    toUtf8(wide, out);
    return out;
}

void toUtf8(std::wstring_view wide, std::string& out) {
    // Names and values are mostly ASCII: narrow on the guess that all of it
    // is, eight units at a time, then size what is left exactly and encode it
    // after the ASCII prefix.
    constexpr std::size_t kBlock = 8;
    out.resize(wide.size());
    char* p = out.data();
    std::size_t ascii = 0;
    for (; ascii + kBlock <= wide.size(); ascii += kBlock) {
        char32_t bits = 0;
        for (std::size_t k = 0; k < kBlock; ++k) {
            bits |= unitValue(wide[ascii + k]);
        }
        if (bits >= 0x80) {
            break;
        }
        for (std::size_t k = 0; k < kBlock; ++k) {
            p[ascii + k] = static_cast<char>(wide[ascii + k]);
        }
    }
    for (; ascii < wide.size() && unitValue(wide[ascii]) < 0x80; ++ascii) {
        p[ascii] = static_cast<char>(wide[ascii]);
    }
    if (ascii == wide.size()) {
        return;
    }
    std::size_t length = ascii;
    for (std::size_t i = ascii; i < wide.size(); ++i) {
        const char32_t cp = decodeUnit(wide, i);
        length += cp < 0x80 ? 1 : cp < 0x800 ? 2 : cp < 0x10000 ? 3 : 4;
    }
    out.resize(length);
    p = out.data() + ascii;
    for (std::size_t i = ascii; i < wide.size(); ++i) {
        p = appendUtf8(p, decodeUnit(wide, i));
    }
}

bool iequals(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return lowerAscii(x) == lowerAscii(y);
           });
}

bool iequals(std::wstring_view a, std::wstring_view b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](wchar_t x, wchar_t y) { return lowerAscii(x) == lowerAscii(y); });
}

std::string toLowerAscii(std::string_view s) {
    std::string out(s);
    std::transform(out.begin(), out.end(), out.begin(), [](char c) { return lowerAscii(c); });
    return out;
}

std::optional<std::string> makeGuid() {
    std::array<unsigned char, 16> bytes{};
    if (!randomBytes(bytes.data(), bytes.size())) {
        return std::nullopt;
    }
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant

    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string guid;
    guid.reserve(kNullGuid.size());
    guid.push_back('{');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            guid.push_back('-');
        }
        guid.push_back(kHex[bytes[i] >> 4]);
        guid.push_back(kHex[bytes[i] & 0x0F]);
    }
    guid.push_back('}');
    return guid;
}

std::string format(const char* fmt, ...) {
    if (fmt == nullptr) {
        return {};
    }
    // Most log-sized texts fit the stack buffer: one formatting pass.
    char stackBuffer[256];
    va_list args;
    va_start(args, fmt);
    va_list retry;
    va_copy(retry, args);
    const int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, fmt, args);
    va_end(args);

    std::string out;
    if (needed > 0 && static_cast<std::size_t>(needed) < sizeof stackBuffer) {
        out.assign(stackBuffer, static_cast<std::size_t>(needed));
    } else if (needed > 0) {
        out.resize(static_cast<std::size_t>(needed));
        std::vsnprintf(out.data(), out.size() + 1, fmt, retry);
    }
    va_end(retry);
    return out;
}

}  // namespace CORE
