#include "config/JsonUtil.h"
#include "config/MqttManagerUtil.h"
#include "config/Redaction.h"
#include "support/TempDir.h"

#include <mfw/log.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

namespace {

using CORE::PropertyBag;
using namespace ndpx;
using Lines = std::vector<std::wstring>;
using Levels = std::vector<int>;

constexpr const char* kInvalidType =
    "MqttManagerUtil::toBag(): JSON parsing invalid type for key: ";

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
    Levels levelsOf(std::string_view text) const {
        Levels levels;
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
    static std::string compact(const PropertyBag& bag) {
        return MqttManagerUtil::writeCompact(MqttManagerUtil::BagToJSON(bag));
    }

    std::shared_ptr<CORE::CaptureSink> sink_ = std::make_shared<CORE::CaptureSink>();
    int savedLevel_ = 0;
};

Lines dump(const PropertyBag& bag) {
    Lines out;
    for (std::size_t i = 0; i < bag.size(); ++i) {
        out.push_back(bag.getName(i) + L"=" + (bag.isBag(i) ? L"{...}" : bag.getValue(i)));
    }
    return out;
}

// ---- JSON -> bag ------------------------------------------------------------

using jsonToBag = LogCapture;

TEST_F(jsonToBag, ScalarsStringArraysAndObjectsConvertInSortedNameOrder) {
    const PropertyBag bag = toBag(
        R"({"z":"last","a":5,"m":true,"f":false,"big":9223372036854775807,
            "small":-9223372036854775808,"u":"\u00e9\ud83d\ude00",
            "s":["x","y"],"o":{"p":{"q":"deep"},"i":1},"e":{},"empty":[]})");
    EXPECT_EQ(dump(bag), (Lines{L"a=5", L"big=9223372036854775807", L"e={...}", L"f=false",
                                L"m=true", L"o={...}", L"s=x", L"s=y",
                                L"small=-9223372036854775808", L"u=\u00e9\U0001F600", L"z=last"}));
    EXPECT_TRUE(bag.getBag(L"e")->empty());
    const PropertyBag* o = bag.getBag(L"o");
    ASSERT_NE(o, nullptr);
    EXPECT_EQ(dump(*o), (Lines{L"i=1", L"p={...}"}));
    EXPECT_EQ(o->getBag(L"p")->get(L"q"), L"deep");
    EXPECT_EQ(lineCount(), 0u);
}

TEST_F(jsonToBag, UnsupportedValuesAreSkippedWithALineEach) {
    const PropertyBag bag = toBag(
        R"({"keep":"1","r":1.5,"whole":2.0,"n":null,"huge":18446744073709551615,
            "a":["x",{"k":"v"},true,null,[1],1.5,"y"]})");
    EXPECT_EQ(dump(bag), (Lines{L"a=x", L"a={...}", L"a=y", L"keep=1"}));
    EXPECT_EQ(dump(*bag.getBagPtr(1)), (Lines{L"k=v"}));
    for (const char* key : {"r", "whole", "n", "huge"}) {
        EXPECT_EQ(levelsOf(kInvalidType + std::string(key)), Levels{3}) << key;
    }
    // One line for each of the four unsupported array elements.
    EXPECT_EQ(levelsOf("MqttManagerUtil::toBag(): Multi-dimensional JSON Arrays are not supported"),
              Levels(4, 3));

    // Unsigned values built in code convert when they fit.
    Json::Value json(Json::objectValue);
    json["small"] = Json::UInt64{5};
    json["big"] = Json::UInt64{1} << 63;
    PropertyBag built;
    ASSERT_TRUE(MqttManagerUtil::JSONToBag(json, built));
    EXPECT_EQ(dump(built), (Lines{L"small=5"}));
    EXPECT_EQ(levelsOf(kInvalidType + std::string("big")).size(), 1u);
}

TEST_F(jsonToBag, MembersReplaceEntriesOfTheirNameAndArraysAppend) {
    PropertyBag bag;
    bag.add(L"a", L"old");
    bag.add(L"b", L"text");
    bag.add(L"a", L"later duplicate");
    bag.add(L"s", L"kept");
    // Two keys that are not UTF-8 both become U+FFFD: the later one wins.
    Json::Value json = parse(R"({"a":7,"b":{"k":"v"},"s":["x","y"],"n":true})");
    json["\xFE"] = "first";
    json["\xFF"] = "second";
    ASSERT_TRUE(MqttManagerUtil::JSONToBag(json, bag));
    EXPECT_EQ(dump(bag),
              (Lines{L"a=7", L"b={...}", L"s=kept", L"n=true", L"s=x", L"s=y", L"\uFFFD=second"}));
    EXPECT_EQ(bag.getBag(L"b")->get(L"k"), L"v");
}

TEST_F(jsonToBag, NonObjectsAreRejectedAndTheBagIsLeftAlone) {
    for (const char* text : {R"(["a","b"])", R"("text")", "null", "42", "true", "[]"}) {
        PropertyBag bag;
        bag.set(L"before", L"kept");
        EXPECT_FALSE(MqttManagerUtil::JSONToBag(parse(text), bag)) << text;
        EXPECT_EQ(dump(bag), (Lines{L"before=kept"})) << text;
    }
    EXPECT_EQ(levelsOf("MqttManagerUtil::JSONToBag(): Cannot convert JSON value to PropertyBag, "
                       "JSON is not an object"),
              Levels(6, 3));
}

// ---- bag -> JSON ------------------------------------------------------------

using jsonFromBag = LogCapture;

TEST_F(jsonFromBag, RepeatsBecomeArraysValuesStringsAndEmptyBagsNull) {
    EXPECT_TRUE(MqttManagerUtil::BagToJSON(PropertyBag{}).isNull());
    PropertyBag inner;
    inner.set(L"k", L"v");
    PropertyBag bag;
    bag.add(L"a", L"1");
    bag.add(L"b", L"only");
    bag.addBag(L"a", inner);
    bag.add(L"a", L"3");
    bag.setBag(L"x", PropertyBag{});
    // Two empty nested bags: the first null must still count as present.
    bag.addBag(L"e", PropertyBag{});
    bag.addBag(L"e", PropertyBag{});
    bag.setInt64(L"n", 5);
    bag.setBool(L"flag", true);
    bag.set(L"t\u00e4", L"\U0001F600 \"quoted\"\n");
    EXPECT_EQ(compact(bag),
              "{\"a\":[\"1\",{\"k\":\"v\"},\"3\"],\"b\":\"only\",\"e\":[null,null],"
              "\"flag\":\"true\",\"n\":\"5\",\"t\xC3\xA4\":\"\xF0\x9F\x98\x80 \\\"quoted\\\"\\n\","
              "\"x\":null}");
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
    EXPECT_EQ(MqttManagerUtil::BagToJSON(toBag(doc)), parse(doc));
    EXPECT_EQ(lineCount(), 0u);
    // A one-element array cannot be told apart from a scalar once in a bag.
    EXPECT_EQ(compact(toBag(R"({"a":["x"]})")), R"({"a":"x"})");
}

// ---- parsing and writing ------------------------------------------------------

TEST(jsonText, ParseAllowsCommentsRejectsGarbageAndWritesCompact) {
    Json::Value value;
    ASSERT_TRUE(MqttManagerUtil::parseJson(
        "// header\n{\n \"b\": [1, 2], /* inline */\n \"a\": {\"c\": null}\n}\n", value));
    EXPECT_EQ(MqttManagerUtil::writeCompact(value), R"({"a":{"c":null},"b":[1,2]})");

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

// ---- typed readers and redaction ------------------------------------------------

using jsonUtil = LogCapture;

TEST_F(jsonUtil, GetStringPropertyReadsScalarsAsText) {
    const Json::Value json =
        parse(R"({"s":"text","n":5,"r":1.5,"b":true,"empty":"","nul":null,"o":{},"arr":["x"]})");
    const std::tuple<const char*, bool, const char*> cases[] = {
        {"s", true, "text"},    {"n", true, "5"},     {"r", true, "1.5"},
        {"b", true, "true"},    {"empty", false, ""}, {"nul", false, ""},
        {"missing", false, ""}, {"o", false, ""},     {"arr", false, ""},
    };
    for (const auto& [key, ok, expected] : cases) {
        std::string out = "stale";
        EXPECT_EQ(JsonUtil::GetStringProperty(json, key, out), ok) << key;
        EXPECT_EQ(out, expected) << key;
    }
    EXPECT_EQ(levelsOf("JsonUtil::logRedacted(): Property s = text"), Levels{1});
    EXPECT_EQ(levelsOf("JsonUtil::GetStringProperty(): Property empty empty in JSON"), Levels{1});
    EXPECT_EQ(levelsOf("JsonUtil::GetStringProperty(): Could not find missing property in JSON"),
              Levels{1});
}

TEST_F(jsonUtil, GetBooleanAndArrayPropertyAcceptOnlyTheirTypeInAnObject) {
    const Json::Value json = parse(
        R"({"t":true,"f":false,"s":"true","n":1,
            "list":["a",1,"\u00e9",null,{"x":"y"},["z"],"b"],"none":[]})");
    const std::tuple<const char*, bool, bool> flags[] = {
        {"t", true, true},   {"f", true, false},        {"s", false, false},
        {"n", false, false}, {"missing", false, false},
    };
    for (const auto& [key, ok, expected] : flags) {
        bool out = !expected;
        EXPECT_EQ(JsonUtil::GetBooleanProperty(json, key, out), ok) << key;
        EXPECT_EQ(out, expected) << key;
    }
    EXPECT_EQ(levelsOf("JsonUtil::logRedacted(): Property t = true"), Levels{1});
    EXPECT_EQ(levelsOf("JsonUtil::GetBooleanProperty(): Property s is not a boolean"), Levels{1});

    sink_->clear();
    Lines out{L"stale"};
    EXPECT_TRUE(JsonUtil::GetArrayProperty(json, "list", out));
    EXPECT_EQ(out, (Lines{L"a", L"\u00e9", L"b"}));
    EXPECT_EQ(lineCount(), 0u);  // array values are never logged
    EXPECT_TRUE(JsonUtil::GetArrayProperty(json, "none", out));
    EXPECT_TRUE(out.empty());
    out = {L"stale"};
    EXPECT_FALSE(JsonUtil::GetArrayProperty(json, "s", out));
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(levelsOf("JsonUtil::GetArrayProperty(): Property s is not an array"), Levels{1});
    EXPECT_FALSE(JsonUtil::GetArrayProperty(json, "missing", out));

    // Non-objects are ignored silently.
    sink_->clear();
    std::string text = "stale";
    bool flag = true;
    out = {L"stale"};
    for (const char* doc : {"[1]", "\"s\"", "null", "3"}) {
        EXPECT_FALSE(JsonUtil::GetStringProperty(parse(doc), "a", text));
        EXPECT_FALSE(JsonUtil::GetBooleanProperty(parse(doc), "a", flag));
        EXPECT_FALSE(JsonUtil::GetArrayProperty(parse(doc), "a", out));
    }
    EXPECT_EQ(text, "");
    EXPECT_FALSE(flag);
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(lineCount(), 0u);
}

TEST_F(jsonUtil, RedactionMatchesNamesExactly) {
    const Json::Value json = parse(R"({"password":"s3cret","Password":"visible"})");
    std::string out;
    EXPECT_TRUE(JsonUtil::GetStringProperty(json, "password", out));
    EXPECT_EQ(out, "s3cret");  // only the log is masked
    EXPECT_TRUE(JsonUtil::GetStringProperty(json, "Password", out));
    EXPECT_EQ(levelsOf("JsonUtil::logRedacted(): Property password = *****"), Levels{1});
    EXPECT_EQ(levelsOf("JsonUtil::logRedacted(): Property Password = visible"), Levels{1});
    EXPECT_FALSE(sink_->contains("s3cret"));

    // clang-format off
    const std::set<std::string, std::less<>> expected{
        "FRAMEWORKCHANNELTICKET", "otp", "PASSWORD", "password", "auxiliaryPassword",
        "RDSLICENSEDATA", "SMARTCARDPIN", "TICKET", "TOKEN", "BINDINGTOKEN", "certificate",
        "oneTimePassword"};
    // clang-format on
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

    // Nothing is written above level one.
    sink_->clear();
    CORE::setLogLevel(2);
    JsonUtil::logRedacted("name", "value");
    EXPECT_TRUE(JsonUtil::GetStringProperty(json, "Password", out));
    EXPECT_EQ(lineCount(), 0u);
}

// ---- owner check ------------------------------------------------------------------

TEST_F(LogCapture, OwnerCheckLogsWhyAFileIsNotTrusted) {
    ndpx::test::TempDir dir;
    const auto makeFile = [&](const char* name, mode_t mode) {
        const std::string path = (dir.path() / name).string();
        std::ofstream(path) << "{}";
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return path;
    };
    EXPECT_TRUE(
        MqttManagerUtil::FileExistsWithRequiredOwner(makeFile("ok", 0644), FileOwner::CurrentUser));
    EXPECT_EQ(lineCount(), 0u);

    const std::string group = makeFile("group", 0664);
    EXPECT_FALSE(MqttManagerUtil::FileExistsWithRequiredOwner(group, FileOwner::CurrentUser));
    EXPECT_EQ(levelsOf("MqttManagerUtil::FileExistsWithRequiredOwner(): File " + group +
                       " found with incorrect owner"),
              Levels{4});
    for (const auto& path :
         {(dir.path() / "absent").string(), dir.path().string(), std::string()}) {
        EXPECT_FALSE(MqttManagerUtil::FileExistsWithRequiredOwner(path, FileOwner::CurrentUser))
            << path;
    }
    EXPECT_EQ(levelsOf("MqttManagerUtil::FileExistsWithRequiredOwner(): File not found"),
              Levels(3, 0));
}

}  // namespace
