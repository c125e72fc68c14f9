#include "WireFormat.h"

#include "Base64.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

namespace ndpx::ipcclient::detail {
namespace {

std::string jsonString(std::string_view text) {
    return Json::valueToQuotedString(std::string(text).c_str());
}

// The parser's multi-line report as one line.
std::string oneLine(std::string_view text) {
    std::string out;
    bool space = false;
    for (const char c : text) {
        if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
            space = !out.empty();
            continue;
        }
        if (space) {
            out += ' ';
            space = false;
        }
        out += c;
    }
    return out;
}

IpcError malformed(std::string message) {
    return {IpcErrc::Malformed, std::move(message)};
}

}  // namespace

std::string encodeSubscribe(const std::vector<std::string>& topics) {
    std::string joined;
    for (const std::string& topic : topics) {
        joined += (joined.empty() ? "" : ",") + topic;
    }
    return R"({"type":"subscribe","topics":)" + jsonString(joined) + "}";
}

std::string encodePublish(std::string_view topic, std::span<const std::uint8_t> payload, int qos,
                          bool retain) {
    return R"({"type":"publish","topic":)" + jsonString(topic) + R"(,"message":")" +
           base64Encode(payload) + R"(","qos":)" + std::to_string(qos) + R"(,"retain":)" +
           (retain ? "1" : "0") + "}";
}

bool parseJsonObject(std::string_view text, Json::Value& out, std::string& error) {
    static const Json::CharReaderBuilder builder = [] {
        Json::CharReaderBuilder b;
        Json::CharReaderBuilder::strictMode(&b.settings_);
        return b;
    }();
    // The reader would take a NUL for the end of the text and ignore the rest.
    if (text.find('\0') != std::string_view::npos) {
        error = "a NUL byte inside the JSON text";
        return false;
    }
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const char* begin = text.empty() ? "" : text.data();
    std::string errors;
    bool ok = false;
    try {
        ok = reader->parse(begin, begin + text.size(), &out, &errors);
    } catch (const Json::Exception& e) {
        errors = e.what();  // nesting past the reader's limit
    }
    if (ok && !out.isObject()) {
        ok = false;
        errors = "not a JSON object";
    }
    if (!ok) {
        error = oneLine(errors);
    }
    return ok;
}

std::optional<Message> decodeBridgeMessage(std::string_view packet, IpcError& error) {
    if (!packet.empty() && packet.back() == '\0') {
        packet.remove_suffix(1);
    }
    Json::Value json;
    std::string reason;
    if (!parseJsonObject(packet, json, reason)) {
        error = malformed("the bridge sent a message that is not a JSON object (" + reason + ")");
        return std::nullopt;
    }
    if (json["type"] != "message") {
        error = malformed("the bridge sent a message whose \"type\" is not \"message\"");
        return std::nullopt;
    }
    const Json::Value& topic = json["topic"];
    const Json::Value& body = json["message"];
    if (!topic.isString() || topic.asString().empty()) {
        error = malformed("the bridge sent a message without a \"topic\" string");
        return std::nullopt;
    }
    if (!body.isString()) {
        error = malformed("the bridge's message on \"" + topic.asString() +
                          "\" has no \"message\" string");
        return std::nullopt;
    }
    auto payload = base64Decode(body.asString());
    if (!payload) {
        error = malformed("the bridge's message on \"" + topic.asString() + "\" is not base64");
        return std::nullopt;
    }
    error = {};
    return Message{topic.asString(), std::move(*payload), false};
}

}  // namespace ndpx::ipcclient::detail
