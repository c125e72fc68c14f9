// Inbound command text -> JSON -> PropertyBag -> JSON -> text -> JSON, and the
// typed readers on every member. Aborts when an invariant of the conversion
// breaks; the sanitizers catch the rest.

#include "config/JsonUtil.h"
#include "config/MqttManagerUtil.h"

#include <mfw/log.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace {

using namespace ndpx;

[[noreturn]] void fail(const char* what, const Json::Value& a, const Json::Value& b) {
    std::fprintf(stderr, "invariant broken: %s\n  %s\n  %s\n", what,
                 MqttManagerUtil::writeCompact(a).c_str(),
                 MqttManagerUtil::writeCompact(b).c_str());
    std::abort();
}

// What one more bag round trip makes of a value that came out of BagToJSON:
// nulls (empty bags) are not carried into a bag, arrays shrink accordingly and
// one left-over element becomes a scalar, and an object left with no members
// is an empty bag again, i.e. null.
Json::Value normalise(const Json::Value& value) {
    if (!value.isObject()) {
        return value;
    }
    Json::Value out(Json::objectValue);
    for (auto it = value.begin(); it != value.end(); ++it) {
        const Json::Value& member = *it;
        if (member.isNull()) {
            continue;
        }
        if (!member.isArray()) {
            out[it.name()] = normalise(member);
            continue;
        }
        Json::Value kept(Json::arrayValue);
        for (const Json::Value& element : member) {
            if (!element.isNull()) {
                kept.append(normalise(element));
            }
        }
        if (kept.size() == 1) {
            out[it.name()] = kept[0];
        } else if (kept.size() > 1) {
            out[it.name()] = kept;
        }
    }
    return out.empty() ? Json::Value() : out;
}

void checkReaders(const Json::Value& json) {
    for (auto it = json.begin(); it != json.end(); ++it) {
        const std::string name = it.name();
        std::string text;
        const bool gotText = JsonUtil::GetStringProperty(json, name.c_str(), text);
        // A name with an embedded NUL is looked up by its first part only.
        if (name.find('\0') != std::string::npos) {
            continue;
        }
        if (gotText && text.empty()) {
            fail("GetStringProperty returned true with empty text", json, *it);
        }
        bool flag = true;
        if (JsonUtil::GetBooleanProperty(json, name.c_str(), flag) != it->isBool() ||
            (!it->isBool() && flag)) {
            fail("GetBooleanProperty disagrees with the value", json, *it);
        }
        std::vector<std::wstring> list;
        const bool gotList = JsonUtil::GetArrayProperty(json, name.c_str(), list);
        if (gotList != it->isArray()) {
            fail("GetArrayProperty disagrees with the value", json, *it);
        }
        if (gotList) {
            Json::ArrayIndex strings = 0;
            for (const Json::Value& element : *it) {
                strings += element.isString() ? 1 : 0;
            }
            if (list.size() != strings) {
                fail("GetArrayProperty lost or invented elements", json, *it);
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Format every line (level 0) but write none: exercises the log texts.
    CORE::clearLogSinks();
    CORE::setLogLevel(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Json::Value json;
    if (!MqttManagerUtil::parseJson(text, json)) {
        return 0;
    }

    CORE::PropertyBag bag;
    if (MqttManagerUtil::JSONToBag(json, bag) != json.isObject()) {
        fail("JSONToBag result does not match the value kind", json, json);
    }
    if (json.isObject()) {
        checkReaders(json);
    }

    const Json::Value out = MqttManagerUtil::BagToJSON(bag);
    if (bag.empty() != out.isNull() || (!out.isNull() && !out.isObject())) {
        fail("BagToJSON gave neither null for an empty bag nor an object", json, out);
    }

    // The published text must read back as the same value.
    const std::string published = MqttManagerUtil::writeCompact(out);
    if (published.find('\n') != std::string::npos) {
        fail("compact text has a line break", out, out);
    }
    Json::Value reread;
    std::string error;
    if (!MqttManagerUtil::parseJson(published, reread, &error)) {
        std::fprintf(stderr, "%s\n", error.c_str());
        fail("published text does not parse", out, out);
    }
    if (reread != out) {
        fail("published text reads back differently", out, reread);
    }

    // A second bag round trip changes nothing but what normalise() predicts.
    CORE::PropertyBag again;
    MqttManagerUtil::JSONToBag(reread, again);
    const Json::Value out2 = MqttManagerUtil::BagToJSON(again);
    const Json::Value expected = normalise(out);
    if (out2 != expected) {
        fail("second round trip differs", expected, out2);
    }
    return 0;
}
