#include "config/MqttManagerUtil.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/SecureFile.h>

#include <json/reader.h>
#include <json/writer.h>

#include <cstdint>
#include <memory>
#include <string>

namespace ndpx::MqttManagerUtil {

namespace {

std::wstring wideText(const Json::Value& value) {
    // getString avoids the copy asString makes.
    const char* begin = nullptr;
    const char* end = nullptr;
    if (!value.getString(&begin, &end) || begin == nullptr) {
        return {};
    }
    return CORE::toWide(std::string_view(begin, static_cast<std::size_t>(end - begin)));
}

void convertArray(const std::wstring& name, const Json::Value& array, CORE::PropertyBag& bag) {
    for (const Json::Value& element : array) {
        if (element.isString()) {
            bag.add(std::wstring(name), wideText(element));
        } else if (element.isObject()) {
            // Filled in place: no deep copy.
            toBag(element, bag.addBag(name));
        } else {
            MFW_LOG(3, "MqttManagerUtil::toBag(): Multi-dimensional JSON Arrays are not supported");
        }
    }
}

void logInvalidType(std::string_view name) {
    MFW_LOG(3, "MqttManagerUtil::toBag(): JSON parsing invalid type for key: %s",
            std::string(name).c_str());
}

// Entries an object gives: one per member, one per element of an array
// member. Reserving them all at once keeps the bag from regrowing per array.
std::size_t entryCount(const Json::Value& object) {
    std::size_t count = object.size();
    for (const Json::Value& member : object) {
        if (member.isArray() && !member.empty()) {
            count += member.size() - 1;
        }
    }
    return count;
}

std::wstring decimalText(std::int64_t value) {
    // to_string keeps clear of the locale; up to 15 digits need no allocation.
    return CORE::toWide(std::to_string(value));
}

// `name` and `text` are scratch buffers shared down the recursion, so a name
// or value is converted without a string of its own.
void fillJSON(const CORE::PropertyBag& bag, Json::Value& json, std::string& name,
              std::string& text) {
    // Only null (which becomes an object) or an object can take members.
    if (!json.isNull() && !json.isObject()) {
        return;
    }
    for (std::size_t i = 0; i < bag.size(); ++i) {
        CORE::toUtf8(bag.getName(i), name);
        const CORE::PropertyBag* nested = bag.getBagPtr(i);

        // One look-up: the member count tells whether the name was new. A
        // null member left by an empty nested bag still counts as present.
        const Json::ArrayIndex before = json.size();
        Json::Value& slot = json[name];
        if (json.size() != before) {
            // New name: build the value in its place.
            if (nested != nullptr) {
                fillJSON(*nested, slot, name, text);
            } else {
                CORE::toUtf8(bag.getValue(i), text);
                // The slot is a bare null: its payload is all there is to set.
                Json::Value value(text.data(), text.data() + text.size());
                slot.swapPayload(value);
            }
            continue;
        }
        Json::Value value;
        if (nested != nullptr) {
            fillJSON(*nested, value, name, text);
        } else {
            CORE::toUtf8(bag.getValue(i), text);
            value = Json::Value(text.data(), text.data() + text.size());
        }
        if (slot.isArray()) {
            slot.append(std::move(value));
        } else {
            Json::Value pair(Json::arrayValue);
            pair.append(std::move(slot));
            pair.append(std::move(value));
            slot = std::move(pair);
        }
    }
}

const Json::StreamWriterBuilder& compactWriterBuilder() {
    static const Json::StreamWriterBuilder builder = [] {
        Json::StreamWriterBuilder b;
        b["indentation"] = "";
        b["emitUTF8"] = true;
        // Comments kept from parsing would otherwise bring line breaks back.
        b["commentStyle"] = "None";
        return b;
    }();
    return builder;
}

const Json::CharReaderBuilder& readerBuilder() {
    static const Json::CharReaderBuilder builder = [] {
        Json::CharReaderBuilder b;
        b["allowComments"] = true;
        b["collectComments"] = false;
        b["failIfExtra"] = true;
        return b;
    }();
    return builder;
}

}  // namespace

bool JSONToBag(const Json::Value& json, CORE::PropertyBag& bag) {
    if (!json.isObject()) {
        MFW_LOG(3,
                "MqttManagerUtil::JSONToBag(): Cannot convert JSON value to PropertyBag, JSON is "
                "not an object");
        return false;
    }
    toBag(json, bag);
    return true;
}

void toBag(const Json::Value& json, CORE::PropertyBag& bag) {
    // Only an object has members; JSONToBag guards the public entry.
    if (!json.isObject()) {
        return;
    }
    bag.reserve(bag.size() + entryCount(json));
    // Object iteration follows the library's member order (names sorted).
    for (auto it = json.begin(), end = json.end(); it != end; ++it) {
        const char* nameEnd = nullptr;
        const char* nameBegin = it.memberName(&nameEnd);
        const std::string_view utf8Name(nameBegin, static_cast<std::size_t>(nameEnd - nameBegin));
        const Json::Value& member = *it;
        switch (member.type()) {
            case Json::intValue:
                bag.set(CORE::toWide(utf8Name), decimalText(member.asInt64()));
                break;
            case Json::uintValue:
                // Parsed numbers are unsigned only above INT64_MAX, but a value
                // built in code may be unsigned and small.
                if (member.isInt64()) {
                    bag.set(CORE::toWide(utf8Name), decimalText(member.asInt64()));
                } else {
                    logInvalidType(utf8Name);
                }
                break;
            case Json::stringValue:
                bag.set(CORE::toWide(utf8Name), wideText(member));
                break;
            case Json::booleanValue:
                bag.set(CORE::toWide(utf8Name), std::wstring(member.asBool() ? L"true" : L"false"));
                break;
            case Json::objectValue:
                toBag(member, bag.setBag(CORE::toWide(utf8Name)));
                break;
            case Json::arrayValue:
                convertArray(CORE::toWide(utf8Name), member, bag);
                break;
            case Json::nullValue:
            case Json::realValue:
            default:
                logInvalidType(utf8Name);
                break;
        }
    }
}

Json::Value BagToJSON(const CORE::PropertyBag& bag) {
    Json::Value json;
    toJSON(bag, json);
    return json;
}

void toJSON(const CORE::PropertyBag& bag, Json::Value& json) {
    std::string name;
    std::string text;
    fillJSON(bag, json, name, text);
}

bool FileExistsWithRequiredOwner(const std::string& path, FileOwner owner) {
    switch (platform::checkSecureFile(path, owner).error) {
        case platform::SecureFileError::None:
            return true;
        case platform::SecureFileError::NoSecurityInfo:
            MFW_LOG(1,
                    "MqttManagerUtil::FileExistsWithRequiredOwner(): Unable to get security info "
                    "for file");
            return false;
        case platform::SecureFileError::UntrustedOwner:
            // Write access for others counts as a foreign owner.
            MFW_LOG(4,
                    "MqttManagerUtil::FileExistsWithRequiredOwner(): File %s found with incorrect "
                    "owner",
                    path.c_str());
            return false;
        default:
            // Only a regular file counts as a file.
            MFW_LOG(0, "MqttManagerUtil::FileExistsWithRequiredOwner(): File not found");
            return false;
    }
}

std::string writeCompact(const Json::Value& json) {
    return Json::writeString(compactWriterBuilder(), json);
}

bool parseJson(std::string_view text, Json::Value& out, std::string* error) {
    const char* begin = text.empty() ? "" : text.data();
    const std::unique_ptr<Json::CharReader> reader(readerBuilder().newCharReader());
    Json::Value parsed;
    std::string errors;
    bool ok = false;
    try {
        ok = reader->parse(begin, begin + text.size(), &parsed, &errors);
    } catch (const Json::Exception& e) {
        // The reader throws instead of failing when nesting exceeds its limit.
        errors = e.what();
    }
    if (!ok) {
        if (error != nullptr) {
            *error = std::move(errors);
        }
        return false;
    }
    out = std::move(parsed);
    return true;
}

}  // namespace ndpx::MqttManagerUtil
