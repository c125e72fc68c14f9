#include "config/RedactWriter.h"

#include "config/Redaction.h"

#include <json/writer.h>

namespace ndpx {
namespace {

// A JSON string literal (quotes and escapes) for `text`.
std::string quoted(const std::string& text) {
    return Json::valueToQuotedString(text.c_str());
}

}  // namespace

RedactWriter::RedactWriter(const std::set<std::string, std::less<>>& sensitive)
    : sensitive_(sensitive) {}

std::string RedactWriter::operator()(const Json::Value& value) const {
    std::string out;
    writeValue(value, out);
    return out;
}

std::string RedactWriter::write(const Json::Value& value) {
    return RedactWriter(redactionSet())(value);
}

void RedactWriter::writeValue(const Json::Value& value, std::string& out) const {
    switch (value.type()) {
        case Json::nullValue:
            out += "null";
            break;
        case Json::objectValue: {
            out += '{';
            bool first = true;
            for (const auto& name : value.getMemberNames()) {
                if (!first) {
                    out += ',';
                }
                first = false;
                out += quoted(name);
                out += ':';
                if (sensitive_.count(name) != 0) {
                    // The mask is written as a string so the line stays valid JSON.
                    out += '"';
                    out += "*****";
                    out += '"';
                } else {
                    writeValue(value[name], out);
                }
            }
            out += '}';
            break;
        }
        case Json::arrayValue: {
            out += '[';
            for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
                if (i != 0) {
                    out += ',';
                }
                writeValue(value[i], out);
            }
            out += ']';
            break;
        }
        case Json::stringValue:
            out += quoted(value.asString());
            break;
        default: {
            Json::StreamWriterBuilder builder;
            builder["indentation"] = "";
            out += Json::writeString(builder, value);
            break;
        }
    }
}

}  // namespace ndpx
