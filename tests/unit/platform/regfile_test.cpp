#include "regctl/RegFile.h"

#include <gtest/gtest.h>

namespace ndpx::regctl {
namespace {

using platform::SettingValue;

std::vector<RegOperation> parseOk(std::string_view text) {
    std::vector<RegOperation> ops;
    std::string error;
    EXPECT_TRUE(parseRegFile(text, ops, error)) << error;
    return ops;
}

std::string parseError(std::string_view text) {
    std::vector<RegOperation> ops{RegOperation{}};
    std::string error;
    EXPECT_FALSE(parseRegFile(text, ops, error)) << text;
    EXPECT_EQ(ops.size(), 1u) << "a failed parse leaves the output alone";
    return error;
}

TEST(RegFile, AnExportWithAllSupportedTypesIsImportedIntoTheStore) {
    std::string error;
    auto store = platform::openSqliteSettingsStore(":memory:", error);
    ASSERT_NE(store, nullptr) << error;
    const std::string key = "HKLM\\Software\\Brasswick, Inc.\\Node Manager";
    ASSERT_TRUE(store->set(key, "Old", SettingValue::ofString("1")));
    ASSERT_TRUE(store->set("HKLM\\Software\\Gone\\Sub", "x", SettingValue::ofString("1")));

    const auto ops = parseOk(
        "Windows Registry Editor Version 5.00\r\n"
        "\r\n"
        "; exported settings\r\n"
        "[HKEY_LOCAL_MACHINE\\Software\\Brasswick, Inc.\\Node Manager]\r\n"
        "@=\"default\"\r\n"
        "\"Path\"=\"C:\\\\Program Files\\\\\\\"x\\\"\"\r\n"
        "\"mqtt_KeepAliveInterval\"=dword:0000001e\r\n"
        "\"List\"=hex(7):61,00,2c,00,62,00,00,00,fc,00,\\\r\n"
        "  34,d8,1e,dd,00,00,00,00\r\n"
        "\"Expand\"=hex(2):25,00,41,00,25,00,00,00\r\n"
        "\"Little\"=hex(4):1e,00,00,80\r\n"
        "\"Old\"=-\r\n"
        "\r\n"
        "[HKLM\\Software\\Empty]\r\n"
        "[-HKLM\\Software\\Gone]\r\n");
    ASSERT_EQ(ops.size(), 10u);
    EXPECT_EQ(ops[0].line, 4);
    EXPECT_EQ(ops[4].line, 8);  // a continued value counts from its first line
    ASSERT_TRUE(applyRegOperations(*store, ops, error)) << error;
    for (const auto& [name, value] : std::vector<std::pair<std::string, SettingValue>>{
             {"", SettingValue::ofString("default")},
             {"Path", SettingValue::ofString("C:\\Program Files\\\"x\"")},
             {"mqtt_KeepAliveInterval", SettingValue::ofDword(30)},
             {"List", SettingValue::ofMulti({"a,b", "ü𝄞"})},
             {"Expand", SettingValue::ofString("%A%")},
             {"Little", SettingValue::ofDword(0x8000001e)}}) {
        EXPECT_EQ(store->get(key, name), value) << name;
    }
    EXPECT_EQ(store->get(key, "Old"), std::nullopt);
    EXPECT_TRUE(store->keyExists("HKLM\\Software\\Empty"));
    EXPECT_FALSE(store->keyExists("HKLM\\Software\\Gone"));
    EXPECT_FALSE(store->keyExists("HKLM\\Software\\Gone\\Sub"));
}

TEST(RegFile, EncodingsAndEdgeCases) {
    // UTF-16LE with BOM, as Windows exports it.
    const std::string utf8 = "[HKLM\\K]\n\"n\"=\"ä\"\n";
    std::string utf16 = "\xFF\xFE";
    for (unsigned char c : std::string("[HKLM\\K]\n\"n\"=\"")) {
        utf16 += static_cast<char>(c);
        utf16 += '\0';
    }
    utf16 += "\xE4";
    utf16 += '\0';
    utf16 += "\"";
    utf16 += '\0';
    auto ops = parseOk(utf16);
    ASSERT_EQ(ops.size(), 2u);
    EXPECT_EQ(ops[1].value, SettingValue::ofString("ä"));

    ops = parseOk("\xEF\xBB\xBF" + utf8);
    ASSERT_EQ(ops.size(), 2u);
    EXPECT_EQ(ops[0].key, "HKLM\\K");

    ops = parseOk("[HKLM\\K]\n\"empty\"=hex(7):00,00\n\"none\"=hex(7):\n\"sp\" = \"v\"\n");
    ASSERT_EQ(ops.size(), 4u);
    EXPECT_EQ(ops[1].value, SettingValue::ofMulti({}));
    EXPECT_EQ(ops[2].value, SettingValue::ofMulti({}));
    EXPECT_EQ(ops[3].value, SettingValue::ofString("v"));

    EXPECT_TRUE(parseOk("").empty());
    EXPECT_EQ(utf16LeToUtf8(std::string("\x00\xD8", 2)), "\xEF\xBF\xBD");  // lone surrogate
}

TEST(RegFile, ReportsBadLinesWithTheirNumber) {
    EXPECT_EQ(parseError("REGEDIT4\n\"n\"=\"v\"\n"), "line 2: value outside a [key] section");
    EXPECT_EQ(parseError("[HKLM\\K\n"), "line 1: missing ']' at the end of the key");
    EXPECT_EQ(parseError("[]\n"), "line 1: empty key name");
    EXPECT_EQ(parseError("[-HKLM\\K]\n\"n\"=\"v\"\n"), "line 2: value outside a [key] section");
    EXPECT_NE(parseError("[HKLM\\K]\n\n\"n\"=dword:1000000000\n").find("line 3: bad dword"),
              std::string::npos);
    EXPECT_NE(parseError("[HKLM\\K]\n\"n\"=dword:xyz\n").find("bad dword"), std::string::npos);
    EXPECT_NE(parseError("[HKLM\\K]\n\"n\"=\"C:\\Temp\"\n").find("unknown escape"),
              std::string::npos);
    EXPECT_NE(parseError("[HKLM\\K]\n\"n\"=\"open\n").find("missing closing"), std::string::npos);
    EXPECT_NE(parseError("[HKLM\\K]\n\"n\"=hex:01,02\n").find("not supported"), std::string::npos);
    EXPECT_NE(parseError("[HKLM\\K]\n\"n\"=hex(7):61,00,00\n").find("even"), std::string::npos);
    EXPECT_NE(parseError("[HKLM\\K]\n\"n\"=hex(7):6g\n").find("bad hex byte"), std::string::npos);
    EXPECT_NE(parseError("[HKLM\\K]\n\"n\"\"v\"\n").find("expected '='"), std::string::npos);
    EXPECT_NE(parseError("[HKLM\\K]\n\"n\"=\"v\" junk\n").find("unexpected text"),
              std::string::npos);
    EXPECT_NE(parseError("[HKLM\\K]\nname=v\n").find("line 2: unexpected text"), std::string::npos);
}

TEST(RegFile, DwordArguments) {
    EXPECT_EQ(parseDwordArgument("30"), 30u);
    EXPECT_EQ(parseDwordArgument("0x1E"), 30u);
    EXPECT_EQ(parseDwordArgument("0xffffffff"), 0xffffffffu);
    EXPECT_EQ(parseDwordArgument("4294967295"), 0xffffffffu);
    for (const char* bad : {"", "0x", "4294967296", "0x100000000", "-1", "12a", " 1", "1.5"}) {
        EXPECT_EQ(parseDwordArgument(bad), std::nullopt) << bad;
    }
}

}  // namespace
}  // namespace ndpx::regctl
