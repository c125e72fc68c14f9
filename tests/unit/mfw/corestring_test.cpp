#include <mfw/corestring.h>

#include <gtest/gtest.h>

#include <set>
#include <string_view>

namespace {

using CORE::base64Decode;
using CORE::base64Encode;
using CORE::toUtf8;
using CORE::toWide;

// Code points of a wide string, surrogate pairs combined when wchar_t is 16-bit.
std::u32string codePoints(const std::wstring& w) {
    std::u32string out;
    for (std::size_t i = 0; i < w.size(); ++i) {
        auto c = static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(w[i]));
        if (sizeof(wchar_t) == 2 && c >= 0xD800 && c <= 0xDBFF && i + 1 < w.size()) {
            const auto low =
                static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(w[++i]));
            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
        }
        out.push_back(c);
    }
    return out;
}

std::vector<std::uint8_t> bytes(std::string_view s) {
    return {s.begin(), s.end()};
}

TEST(corestring, Utf8RoundTripsEveryEncodingLength) {
    // 1, 2, 3 and 4 byte sequences, including the edges of each range.
    const std::string text =
        "A\x7F"
        "\xC2\x80\xC3\xA9\xDF\xBF"                           // U+0080, é, U+07FF
        "\xE0\xA0\x80\xE2\x82\xAC\xEF\xBF\xBD"               // U+0800, €, U+FFFD
        "\xED\x9F\xBF\xEE\x80\x80"                           // U+D7FF, U+E000
        "\xF0\x90\x80\x80\xF0\x9F\x98\x80\xF4\x8F\xBF\xBF";  // U+10000, 😀, U+10FFFF
    const std::wstring wide = toWide(text);
    EXPECT_EQ(codePoints(wide),
              (std::u32string{U'A', 0x7F, 0x80, 0xE9, 0x7FF, 0x800, 0x20AC, 0xFFFD, 0xD7FF, 0xE000,
                              0x10000, 0x1F600, 0x10FFFF}));
    EXPECT_EQ(toUtf8(wide), text);

    // Embedded NULs are characters like any other.
    const std::string withNul("a\0b", 3);
    EXPECT_EQ(toWide(withNul).size(), 3u);
    EXPECT_EQ(toUtf8(toWide(withNul)), withNul);
    EXPECT_EQ(toWide(""), L"");
    EXPECT_EQ(toUtf8(L""), "");
}

TEST(corestring, InvalidUtf8BecomesOneReplacementPerMaximalSubpart) {
    const char32_t R = 0xFFFD;
    const std::pair<std::string, std::u32string> cases[] = {
        {"\x80", {R}},      // lone continuation
        {"\xE2\x82", {R}},  // truncated at end
        {"\xE2\x82"
         "A",
         {R, U'A'}},                         // truncated before ASCII
        {"\xC0\xAF", {R, R}},                // overlong '/'
        {"\xE0\x80\xAF", {R, R, R}},         // overlong 3-byte
        {"\xF0\x80\x80\xAF", {R, R, R, R}},  // overlong 4-byte
        {"\xED\xA0\x80", {R, R, R}},         // encoded surrogate
        {"\xF4\x90\x80\x80", {R, R, R, R}},  // above U+10FFFF
        {"\xF5\x80", {R, R}},                // never a lead byte
        {"\xFF", {R}},
        {"\xC3\xC3\xA9", {R, 0xE9}},  // broken lead, then valid
        // The Unicode standard's worked example.
        {"\x61\xF1\x80\x80\xE1\x80\xC2\x62\x80\x63\x80\xBF\x64",
         {U'a', R, R, R, U'b', R, U'c', R, R, U'd'}},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(codePoints(toWide(input)), expected) << testing::PrintToString(input);
    }
}

TEST(corestring, WideToUtf8ReplacesWhatUtf8CannotCarry) {
    const std::string R = "\xEF\xBF\xBD";
    const auto wide = [](std::initializer_list<long> units) {
        std::wstring w;
        for (long u : units) {
            w.push_back(static_cast<wchar_t>(u));
        }
        return w;
    };
    // A surrogate pair (as a 16-bit wide string would carry it) is one character.
    EXPECT_EQ(toUtf8(wide({0xD83D, 0xDE00})), "\xF0\x9F\x98\x80");
    EXPECT_EQ(toUtf8(wide({0xD800, L'x'})), R + "x");  // lone high
    EXPECT_EQ(toUtf8(wide({0xDC00})), R);              // lone low
    EXPECT_EQ(toUtf8(wide({0xDBFF})), R);              // high at the end
    if constexpr (sizeof(wchar_t) == 4) {
        EXPECT_EQ(toUtf8(wide({0x110000, -1})), R + R);
    }
}

TEST(corestring, WideToUtf8IsTheSameWhereverAnAsciiRunEnds) {
    // ASCII is narrowed in blocks; a wider character may end the run at any
    // offset, and the buffer form must leave nothing of what it held before.
    std::string buffer(64, '#');
    for (std::size_t run = 0; run <= 17; ++run) {
        for (const char* tail : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80", ""}) {
            const std::string text = std::string(run, 'x') + tail + std::string(run % 5, 'y');
            const std::wstring wide = toWide(text);
            EXPECT_EQ(toUtf8(wide), text) << run;
            CORE::toUtf8(wide, buffer);
            EXPECT_EQ(buffer, text) << run;
        }
        // An unpaired surrogate inside a block is still replaced.
        std::wstring broken(run + 1, L'z');
        broken[run] = static_cast<wchar_t>(0xDC00);
        EXPECT_EQ(toUtf8(broken), std::string(run, 'z') + "\xEF\xBF\xBD") << run;
    }
}

TEST(corestring, CaseBlindComparisonIsAsciiOnly) {
    EXPECT_TRUE(CORE::iequals("HKLM\\Software", "hklm\\SOFTWARE"));
    EXPECT_FALSE(CORE::iequals("abc", "abcd"));
    EXPECT_FALSE(CORE::iequals("a", "b"));
    EXPECT_FALSE(CORE::iequals("\xC3\x89", "\xC3\xA9"));  // É vs é: not ASCII
    EXPECT_TRUE(CORE::iequals(L"MixedCase", L"mIXEDcASE"));
    EXPECT_FALSE(CORE::iequals(L"\u00C9", L"\u00E9"));
    EXPECT_FALSE(CORE::iequals(L"[", L"{"));  // 0x5B vs 0x7B differ only by the case bit
    EXPECT_EQ(CORE::toLowerAscii("ABC xyz @[\xC3\x89]"), "abc xyz @[\xC3\x89]");
}

TEST(corestringBase64, Rfc4648VectorsWrappedTextAndEveryByte) {
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(plain), encoded);
        EXPECT_EQ(base64Decode(encoded), bytes(plain)) << encoded;
        std::string unpadded = encoded;
        unpadded.erase(unpadded.find_last_not_of('=') + 1);
        EXPECT_EQ(base64Decode(unpadded), bytes(plain)) << unpadded;
    }

    std::vector<std::uint8_t> all(256);
    for (int i = 0; i < 256; ++i) {
        all[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(i);
    }
    const std::string encoded = base64Encode(all.data(), all.size());
    EXPECT_NE(encoded.find('+'), std::string::npos);
    EXPECT_NE(encoded.find('/'), std::string::npos);
    std::string wrapped;
    for (std::size_t i = 0; i < encoded.size(); i += 64) {
        wrapped += encoded.substr(i, 64) + (i % 128 == 0 ? "\r\n" : "\n");
    }
    EXPECT_EQ(base64Decode(wrapped), all);
    EXPECT_EQ(base64Decode("Zm9v\r\nYg=\r\n="), bytes("foob"));
    EXPECT_EQ(base64Decode("\r\n"), std::vector<std::uint8_t>{});
}

TEST(corestringBase64, RejectsJunk) {
    for (const char* bad : {"Zm9v YmFy", "Zm9v\tYmFy", "Zm=9", "Z", "Zm9vY",
                            "Zg=", "Zg===", "Zm8==", "====", "=", "Zg==Zg==", "-_8="}) {
        EXPECT_EQ(base64Decode(bad), std::nullopt) << bad;
    }
    EXPECT_EQ(base64Decode(std::string_view("Zm9v\0", 5)), std::nullopt);
}

// Upper-case hex (H), version 4, variant (V) one of 8, 9, A, B.
bool isVersion4Guid(std::string_view text) {
    constexpr std::string_view kShape = "{HHHHHHHH-HHHH-4HHH-VHHH-HHHHHHHHHHHH}";
    if (text.size() != kShape.size()) {
        return false;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        bool ok = false;
        switch (kShape[i]) {
            case 'H':
                ok = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F');
                break;
            case 'V':
                ok = c == '8' || c == '9' || c == 'A' || c == 'B';
                break;
            default:
                ok = c == kShape[i];
        }
        if (!ok) {
            return false;
        }
    }
    return true;
}

TEST(corestringGuid, FormatVersionAndUniqueness) {
    ASSERT_FALSE(isVersion4Guid(CORE::kNullGuid));
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        const auto guid = CORE::makeGuid();
        ASSERT_TRUE(guid.has_value());
        ASSERT_TRUE(isVersion4Guid(*guid)) << *guid;
        seen.insert(*guid);
    }
    EXPECT_EQ(seen.size(), 2000u);
}

TEST(corestring, FormatHandlesShortAndLongResults) {
    EXPECT_EQ(CORE::format("%s=%d (%05.1f)", "x", -3, 2.25), "x=-3 (002.2)");
    EXPECT_EQ(CORE::format("%s", ""), "");
    // At the edges of an internal buffer of any power-of-two size, and far beyond.
    for (std::size_t n : {255u, 256u, 257u, 511u, 512u, 1000u}) {
        const std::string s(n, 'z');
        EXPECT_EQ(CORE::format("%s", s.c_str()), s);
    }
}

}  // namespace
