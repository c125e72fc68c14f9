#include "config/JsonUtil.h"
#include "config/MqttManagerUtil.h"
#include "config/Redaction.h"
#include "support/TempDir.h"

#include <mfw/log.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

namespace {

using CORE::PropertyBag;
using namespace ndpx;

constexpr const char* kMultiDim =
    "MqttManagerUtil::toBag(): Multi-dimensional JSON Arrays are not supported";
constexpr const char* kNotObject =
    "MqttManagerUtil::JSONToBag(): Cannot convert JSON value to PropertyBag, JSON is not an object";

// Captures every log line at every level for the duration of a test.
class LogCapture : public testing::Test {
protected:
    void SetUp() override {
        savedLevel_ = CORE::logLevel();
        CORE::setLogLevel(0);
        CORE::addLogSink(sink_);
    }
    void TearDown() override {
        CORE::removeLogSink(sink_);
        CORE::setLogLevel(savedLevel_);
    }

    // Levels of the lines whose text is exactly `text`.
    std::vector<int> levelsOf(std::string_view text) const {
        std::vector<int> levels;
        for (const auto& r : sink_->records()) {
            if (r.text == text) {
                levels.push_back(r.level);
            }
        }
        return levels;
    }
    std::size_t lineCount() const { return sink_->records().size(); }

    static Json::Value parse(std::string_view text) {
        Json::Value value;
        std::string error;
        EXPECT_TRUE(MqttManagerUtil::parseJson(text, value, &error)) << error << " in " << text;
        return value;
    }

    static PropertyBag toBag(std::string_view text) {
        PropertyBag bag;
        EXPECT_TRUE(MqttManagerUtil::JSONToBag(parse(text), bag));
        return bag;
    }

    std::shared_ptr<CORE::CaptureSink> sink_ = std::make_shared<CORE::CaptureSink>();
    int savedLevel_ = 0;
};

using Lines = std::vector<std::wstring>;

std::vector<std::wstring> dump(const PropertyBag& bag) {
    std::vector<std::wstring> out;
    for (std::size_t i = 0; i < bag.size(); ++i) {
        out.push_back(bag.getName(i) + L"=" + (bag.isBag(i) ? L"{...}" : bag.getValue(i)));
    }
    return out;
}

// ---- JSON -> bag ------------------------------------------------------------

using jsonToBag = LogCapture;

TEST_F(jsonToBag, ScalarMembersComeInSortedNameOrder) {
    const PropertyBag bag = toBag(
        R"({"z":"last","a":5,"m":true,"f":false,"neg":-7,
            "big":9223372036854775807,"small":-9223372036854775808,"u":"\u00e9\ud83d\ude00"})");
    EXPECT_EQ(dump(bag),
              (Lines{L"a=5", L"big=9223372036854775807", L"f=false", L"m=true", L"neg=-7",
                     L"small=-9223372036854775808", L"u=\u00e9\U0001F600", L"z=last"}));
    EXPECT_EQ(lineCount(), 0u);
}

TEST_F(jsonToBag, ArrayOfNumbersGivesNothingAndOneLinePerElement) {
    EXPECT_TRUE(toBag(R"({"a":[1,2]})").empty());
    EXPECT_EQ(levelsOf(kMultiDim), (std::vector<int>{3, 3}));
}

TEST_F(jsonToBag, ArraysKeepStringsAndObjectsAndSkipTheRest) {
    const PropertyBag bag =
        toBag(R"({"a":["x",{"k":"v"},true,null,[1],1.5,"y"],"empty":[],"s":["only"]})");
    EXPECT_EQ(dump(bag), (Lines{L"a=x", L"a={...}", L"a=y", L"s=only"}));
    ASSERT_NE(bag.getBagPtr(1), nullptr);
    EXPECT_EQ(dump(*bag.getBagPtr(1)), (Lines{L"k=v"}));
    // The same line for each of the four unsupported elements; none for the empty array.
    EXPECT_EQ(levelsOf(kMultiDim).size(), 4u);
    EXPECT_EQ(lineCount(), 4u);
}

TEST_F(jsonToBag, RealsNullsAndHugeNumbersAreSkippedByName) {
    const PropertyBag bag =
        toBag(R"({"keep":"1","r":1.5,"whole":2.0,"n":null,"huge":18446744073709551615})");
    EXPECT_EQ(dump(bag), (Lines{L"keep=1"}));
    for (const char* key : {"r", "whole", "n", "huge"}) {
        EXPECT_EQ(
            levelsOf(std::string("MqttManagerUtil::toBag(): JSON parsing invalid type for key: ") +
                     key),
            (std::vector<int>{3}))
            << key;
    }
}

TEST_F(jsonToBag, UnsignedValuesBuiltInCodeConvertWhenTheyFit) {
    Json::Value json(Json::objectValue);
    json["small"] = Json::UInt64{5};
    json["huge"] = Json::UInt64{1} << 63;
    PropertyBag bag;
    ASSERT_TRUE(MqttManagerUtil::JSONToBag(json, bag));
    EXPECT_EQ(dump(bag), (Lines{L"small=5"}));
    EXPECT_EQ(levelsOf("MqttManagerUtil::toBag(): JSON parsing invalid type for key: huge").size(),
              1u);
}

TEST_F(jsonToBag, ObjectsBecomeNestedBags) {
    const PropertyBag bag = toBag(R"({"o":{"p":{"q":"deep"},"i":1},"e":{}})");
    EXPECT_EQ(dump(bag), (Lines{L"e={...}", L"o={...}"}));
    ASSERT_NE(bag.getBag(L"e"), nullptr);
    EXPECT_TRUE(bag.getBag(L"e")->empty());
    const PropertyBag* o = bag.getBag(L"o");
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(dump(*o), (Lines{L"i=1", L"p={...}"}));
    EXPECT_EQ(o->getBag(L"p")->get(L"q"), L"deep");
}

TEST_F(jsonToBag, NonObjectsAreRejectedAndTheBagIsLeftAlone) {
    for (const char* text : {R"(["a","b"])", R"("text")", "null", "42", "true", "[]"}) {
        PropertyBag bag;
        bag.set(L"before", L"kept");
        EXPECT_FALSE(MqttManagerUtil::JSONToBag(parse(text), bag)) << text;
        EXPECT_EQ(dump(bag), (Lines{L"before=kept"})) << text;
    }
    EXPECT_EQ(levelsOf(kNotObject), (std::vector<int>(6, 3)));
}

// ---- bag -> JSON ------------------------------------------------------------

using jsonFromBag = LogCapture;

TEST_F(jsonFromBag, EmptyBagsBecomeNull) {
    EXPECT_TRUE(MqttManagerUtil::BagToJSON(PropertyBag{}).isNull());

    PropertyBag bag;
    bag.setBag(L"x", PropertyBag{});
    const Json::Value json = MqttManagerUtil::BagToJSON(bag);
    ASSERT_TRUE(json.isObject());
    ASSERT_TRUE(json.isMember("x"));
    EXPECT_TRUE(json["x"].isNull());
    EXPECT_EQ(MqttManagerUtil::writeCompact(json), R"({"x":null})");
}

TEST_F(jsonFromBag, RepeatedNamesBecomeArraysInBagOrder) {
    PropertyBag inner;
    inner.set(L"k", L"v");
    PropertyBag bag;
    bag.add(L"a", L"1");
    bag.add(L"b", L"only");
    bag.addBag(L"a", inner);
    bag.add(L"a", L"3");
    // Two empty nested bags: the first null must still count as present.
    bag.addBag(L"e", PropertyBag{});
    bag.addBag(L"e", PropertyBag{});
    EXPECT_EQ(MqttManagerUtil::writeCompact(MqttManagerUtil::BagToJSON(bag)),
              R"({"a":["1",{"k":"v"},"3"],"b":"only","e":[null,null]})");
}

TEST_F(jsonFromBag, IntegersAndBooleansComeOutAsStrings) {
    PropertyBag bag;
    bag.setInt64(L"n", 5);
    bag.setBool(L"flag", true);
    const Json::Value json = MqttManagerUtil::BagToJSON(bag);
    ASSERT_TRUE(json["n"].isString());
    EXPECT_EQ(json["n"].asString(), "5");
    ASSERT_TRUE(json["flag"].isString());
    EXPECT_EQ(json["flag"].asString(), "true");
}

TEST_F(jsonFromBag, TextIsUtf8AndWrittenUnescaped) {
    PropertyBag bag;
    bag.set(L"n\u00e4me", L"\U0001F600 \"quoted\"\n");
    EXPECT_EQ(MqttManagerUtil::writeCompact(MqttManagerUtil::BagToJSON(bag)),
              "{\"n\xC3\xA4me\":\"\xF0\x9F\x98\x80 \\\"quoted\\\"\\n\"}");
}

TEST_F(jsonFromBag, OnlyNullOrAnObjectTakesMembers) {
    PropertyBag bag;
    bag.set(L"a", L"1");
    Json::Value text("unchanged");
    MqttManagerUtil::toJSON(bag, text);
    EXPECT_EQ(text, Json::Value("unchanged"));

    Json::Value existing(Json::objectValue);
    existing["a"] = "0";
    MqttManagerUtil::toJSON(bag, existing);
    EXPECT_EQ(MqttManagerUtil::writeCompact(existing), R"({"a":["0","1"]})");
}

TEST_F(jsonFromBag, RoundTripKeepsStringsObjectsAndMultiElementArrays) {
    const char* doc = R"({"a":["x","y"],"o":{"k":"v","list":[{"i":"1"},{"i":"2"}]},"s":"t"})";
    const Json::Value back = MqttManagerUtil::BagToJSON(toBag(doc));
    EXPECT_EQ(back, parse(doc));
    EXPECT_EQ(lineCount(), 0u);

    // A one-element array cannot be told apart from a scalar once in a bag.
    EXPECT_EQ(MqttManagerUtil::writeCompact(MqttManagerUtil::BagToJSON(toBag(R"({"a":["x"]})"))),
              R"({"a":"x"})");
}

// ---- parsing and writing ------------------------------------------------------

TEST(jsonText, ParseAllowsCommentsAndRejectsGarbage) {
    Json::Value value;
    ASSERT_TRUE(MqttManagerUtil::parseJson("// header\n{\"a\": 1 /* inline */}\n", value));
    EXPECT_EQ(MqttManagerUtil::writeCompact(value), R"({"a":1})");

    Json::Value untouched("keep");
    std::string error;
    for (std::string_view bad : {"{\"a\":1} trailing", "{\"a\":", "", "{'a':1}", "[1,]x"}) {
        error.clear();
        EXPECT_FALSE(MqttManagerUtil::parseJson(bad, untouched, &error)) << bad;
        EXPECT_FALSE(error.empty()) << bad;
    }
    EXPECT_EQ(untouched, Json::Value("keep"));
    EXPECT_FALSE(MqttManagerUtil::parseJson("{", untouched));  // no error string wanted

    // Nesting beyond the reader's limit is a failure, not an exception.
    const std::string deep = std::string(5000, '[') + std::string(5000, ']');
    EXPECT_FALSE(MqttManagerUtil::parseJson(deep, untouched, &error));
}

TEST(jsonText, CompactOutputHasNoLineBreaks) {
    Json::Value value;
    ASSERT_TRUE(MqttManagerUtil::parseJson("{\n \"b\": [1, 2],\n // note\n \"a\": {\"c\": null}\n}",
                                           value));
    EXPECT_EQ(MqttManagerUtil::writeCompact(value), R"({"a":{"c":null},"b":[1,2]})");
}

// ---- typed readers and redaction ------------------------------------------------

using jsonUtil = LogCapture;

TEST_F(jsonUtil, GetStringPropertyReadsScalarsAsText) {
    const Json::Value json =
        parse(R"({"s":"text","n":5,"r":1.5,"b":true,"empty":"","nul":null,"o":{},"arr":["x"]})");
    std::string out = "stale";
    EXPECT_TRUE(JsonUtil::GetStringProperty(json, "s", out));
    EXPECT_EQ(out, "text");
    EXPECT_EQ(levelsOf("JsonUtil::logRedacted(): Property s = text"), (std::vector<int>{1}));
    EXPECT_TRUE(JsonUtil::GetStringProperty(json, "n", out));
    EXPECT_EQ(out, "5");
    EXPECT_TRUE(JsonUtil::GetStringProperty(json, "r", out));
    EXPECT_EQ(out, "1.5");
    EXPECT_TRUE(JsonUtil::GetStringProperty(json, "b", out));
    EXPECT_EQ(out, "true");

    out = "stale";
    EXPECT_FALSE(JsonUtil::GetStringProperty(json, "empty", out));
    EXPECT_EQ(out, "");
    EXPECT_EQ(levelsOf("JsonUtil::GetStringProperty(): Property empty empty in JSON"),
              (std::vector<int>{1}));
    EXPECT_FALSE(JsonUtil::GetStringProperty(json, "nul", out));
    EXPECT_EQ(levelsOf("JsonUtil::GetStringProperty(): Property nul empty in JSON").size(), 1u);

    EXPECT_FALSE(JsonUtil::GetStringProperty(json, "missing", out));
    EXPECT_EQ(levelsOf("JsonUtil::GetStringProperty(): Could not find missing property in JSON"),
              (std::vector<int>{1}));

    // Containers have no text form: rejected, not thrown.
    out = "stale";
    EXPECT_FALSE(JsonUtil::GetStringProperty(json, "o", out));
    EXPECT_FALSE(JsonUtil::GetStringProperty(json, "arr", out));
    EXPECT_EQ(out, "");
}

TEST_F(jsonUtil, ReadersIgnoreNonObjectsSilently) {
    std::string text = "stale";
    bool flag = true;
    std::vector<std::wstring> list{L"stale"};
    for (const char* doc : {"[1]", "\"s\"", "null", "3"}) {
        const Json::Value json = parse(doc);
        EXPECT_FALSE(JsonUtil::GetStringProperty(json, "a", text));
        EXPECT_FALSE(JsonUtil::GetBooleanProperty(json, "a", flag));
        EXPECT_FALSE(JsonUtil::GetArrayProperty(json, "a", list));
    }
    EXPECT_EQ(text, "");
    EXPECT_FALSE(flag);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(lineCount(), 0u);
}

TEST_F(jsonUtil, GetBooleanPropertyAcceptsOnlyJsonBooleans) {
    const Json::Value json = parse(R"({"t":true,"f":false,"s":"true","n":1})");
    bool out = false;
    EXPECT_TRUE(JsonUtil::GetBooleanProperty(json, "t", out));
    EXPECT_TRUE(out);
    EXPECT_EQ(levelsOf("JsonUtil::logRedacted(): Property t = true"), (std::vector<int>{1}));
    EXPECT_TRUE(JsonUtil::GetBooleanProperty(json, "f", out));
    EXPECT_FALSE(out);

    out = true;
    EXPECT_FALSE(JsonUtil::GetBooleanProperty(json, "s", out));
    EXPECT_FALSE(out);
    EXPECT_EQ(levelsOf("JsonUtil::GetBooleanProperty(): Property s is not a boolean"),
              (std::vector<int>{1}));
    EXPECT_FALSE(JsonUtil::GetBooleanProperty(json, "n", out));
    out = true;
    EXPECT_FALSE(JsonUtil::GetBooleanProperty(json, "missing", out));
    EXPECT_FALSE(out);
    EXPECT_EQ(
        levelsOf("JsonUtil::GetBooleanProperty(): Could not find missing boolean property in JSON"),
        (std::vector<int>{1}));
}

TEST_F(jsonUtil, GetArrayPropertyKeepsStringElementsOnly) {
    const Json::Value json =
        parse(R"({"list":["a",1,"\u00e9",null,{"x":"y"},["z"],"b"],"none":[],"s":"a"})");
    std::vector<std::wstring> out{L"stale"};
    EXPECT_TRUE(JsonUtil::GetArrayProperty(json, "list", out));
    EXPECT_EQ(out, (Lines{L"a", L"\u00e9", L"b"}));
    EXPECT_EQ(lineCount(), 0u);  // array values are never logged

    EXPECT_TRUE(JsonUtil::GetArrayProperty(json, "none", out));
    EXPECT_TRUE(out.empty());

    out = {L"stale"};
    EXPECT_FALSE(JsonUtil::GetArrayProperty(json, "s", out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(levelsOf("JsonUtil::GetArrayProperty(): Property s is not an array"),
              (std::vector<int>{1}));
    EXPECT_FALSE(JsonUtil::GetArrayProperty(json, "missing", out));
    EXPECT_EQ(
        levelsOf("JsonUtil::GetArrayProperty(): Could not find missing array property in JSON"),
        (std::vector<int>{1}));
}

TEST_F(jsonUtil, RedactionMatchesNamesExactly) {
    const Json::Value json = parse(R"({"password":"s3cret","Password":"visible"})");
    std::string out;
    EXPECT_TRUE(JsonUtil::GetStringProperty(json, "password", out));
    EXPECT_EQ(out, "s3cret");  // only the log is masked
    EXPECT_TRUE(JsonUtil::GetStringProperty(json, "Password", out));
    EXPECT_EQ(levelsOf("JsonUtil::logRedacted(): Property password = *****"),
              (std::vector<int>{1}));
    EXPECT_EQ(levelsOf("JsonUtil::logRedacted(): Property Password = visible"),
              (std::vector<int>{1}));
    EXPECT_FALSE(sink_->contains("s3cret"));

    const std::set<std::string, std::less<>> expected{"FRAMEWORKCHANNELTICKET",
                                                      "otp",
                                                      "PASSWORD",
                                                      "password",
                                                      "auxiliaryPassword",
                                                      "RDSLICENSEDATA",
                                                      "SMARTCARDPIN",
                                                      "TICKET",
                                                      "TOKEN",
                                                      "BINDINGTOKEN",
                                                      "certificate",
                                                      "oneTimePassword"};
    EXPECT_EQ(redactionSet(), expected);
    for (const auto& name : expected) {
        sink_->clear();
        JsonUtil::logRedacted(name, "value");
        EXPECT_EQ(levelsOf("JsonUtil::logRedacted(): Property " + name + " = *****").size(), 1u)
            << name;
    }
    for (const char* name : {"Token", "OTP", "Certificate", "passwords", "", "password "}) {
        EXPECT_FALSE(isRedacted(name)) << name;
    }
}

TEST_F(jsonUtil, LogRedactedWritesNothingAboveLevelOne) {
    CORE::setLogLevel(2);
    JsonUtil::logRedacted("name", "value");
    std::string out;
    EXPECT_TRUE(JsonUtil::GetStringProperty(parse(R"({"a":"b"})"), "a", out));
    EXPECT_EQ(lineCount(), 0u);
}

// ---- owner check ------------------------------------------------------------------

class jsonOwnerCheck : public LogCapture {
protected:
    std::string makeFile(const char* name, mode_t mode) {
        const std::string path = (dir_.path() / name).string();
        std::ofstream(path) << "{}";
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return path;
    }
    const FileOwner me{static_cast<unsigned>(::geteuid())};
    ndpx::test::TempDir dir_;
};

TEST_F(jsonOwnerCheck, OwnedAndWritableOnlyByTheOwnerIsTrusted) {
    EXPECT_TRUE(MqttManagerUtil::FileExistsWithRequiredOwner(makeFile("ok", 0644), me));
    EXPECT_TRUE(MqttManagerUtil::FileExistsWithRequiredOwner(makeFile("ro", 0400), me));
    EXPECT_EQ(lineCount(), 0u);
}

TEST_F(jsonOwnerCheck, ForeignOwnerOrSharedWriteAccessIsRejected) {
    const std::string good = makeFile("good", 0600);
    EXPECT_FALSE(MqttManagerUtil::FileExistsWithRequiredOwner(good, FileOwner{me.uid + 1}));
    const std::string group = makeFile("group", 0664);
    EXPECT_FALSE(MqttManagerUtil::FileExistsWithRequiredOwner(group, me));
    const std::string other = makeFile("other", 0602);
    EXPECT_FALSE(MqttManagerUtil::FileExistsWithRequiredOwner(other, me));
    for (const auto& path : {good, group, other}) {
        EXPECT_EQ(levelsOf("MqttManagerUtil::FileExistsWithRequiredOwner(): File " + path +
                           " found with incorrect owner"),
                  (std::vector<int>{4}))
            << path;
    }
}

TEST_F(jsonOwnerCheck, MissingFileOrDirectoryIsNotFound) {
    EXPECT_FALSE(
        MqttManagerUtil::FileExistsWithRequiredOwner((dir_.path() / "absent").string(), me));
    EXPECT_FALSE(MqttManagerUtil::FileExistsWithRequiredOwner(dir_.path().string(), me));
    EXPECT_FALSE(MqttManagerUtil::FileExistsWithRequiredOwner("", me));
    EXPECT_EQ(levelsOf("MqttManagerUtil::FileExistsWithRequiredOwner(): File not found"),
              (std::vector<int>{0, 0, 0}));
}

}  // namespace
