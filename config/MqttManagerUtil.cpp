#include "config/MqttManagerUtil.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/SecureFile.h>

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

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
            bag.add(name, wideText(element));
        } else if (element.isObject()) {
            // Append an empty bag and fill it in place: no deep copy.
            bag.addBag(name, CORE::PropertyBag{});
            JSONToBag(element, *bag.getBagPtr(bag.size() - 1));
        } else {
            MFW_LOG(3, "MqttManagerUtil::toBag(): Multi-dimensional JSON Arrays are not supported");
        }
    }
}

void logInvalidType(std::string_view name) {
    MFW_LOG(3, "MqttManagerUtil::toBag(): JSON parsing invalid type for key: %s",
            std::string(name).c_str());
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
    // Object iteration follows the library's member order (names sorted).
    for (auto it = json.begin(), end = json.end(); it != end; ++it) {
        const char* nameEnd = nullptr;
        const char* nameBegin = it.memberName(&nameEnd);
        const std::string_view utf8Name(nameBegin, static_cast<std::size_t>(nameEnd - nameBegin));
        const Json::Value& member = *it;
        switch (member.type()) {
            case Json::intValue:
                bag.setInt64(CORE::toWide(utf8Name), member.asInt64());
                break;
            case Json::uintValue:
                // Parsed numbers are unsigned only above INT64_MAX, but a value
                // built in code may be unsigned and small.
                if (member.isInt64()) {
                    bag.setInt64(CORE::toWide(utf8Name), member.asInt64());
                } else {
                    logInvalidType(utf8Name);
                }
                break;
            case Json::stringValue:
                bag.set(CORE::toWide(utf8Name), wideText(member));
                break;
            case Json::booleanValue:
                bag.setBool(CORE::toWide(utf8Name), member.asBool());
                break;
            case Json::objectValue: {
                const std::wstring name = CORE::toWide(utf8Name);
                bag.setBag(name, CORE::PropertyBag{});
                JSONToBag(member, *bag.getBag(name));
                break;
            }
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
    // Only null (which becomes an object) or an object can take members.
    if (!json.isNull() && !json.isObject()) {
        return;
    }
    for (std::size_t i = 0; i < bag.size(); ++i) {
        const std::string name = CORE::toUtf8(bag.getName(i));
        Json::Value value;
        if (const CORE::PropertyBag* nested = bag.getBagPtr(i)) {
            toJSON(*nested, value);
        } else {
            value = CORE::toUtf8(bag.getValue(i));
        }

        // One look-up: the member count tells whether the name was new. A
        // null member left by an empty nested bag still counts as present.
        const Json::ArrayIndex before = json.size();
        Json::Value& slot = json[name];
        if (json.size() != before) {
            slot = std::move(value);
        } else if (slot.isArray()) {
            slot.append(std::move(value));
        } else {
            Json::Value pair(Json::arrayValue);
            pair.append(std::move(slot));
            pair.append(std::move(value));
            slot = std::move(pair);
        }
    }
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
