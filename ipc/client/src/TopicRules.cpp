#include <ipcclient/TopicRules.h>

namespace ndpx::ipcclient {
namespace {

// The length of the UTF-8 sequence `lead` begins; 0 when it begins none.
std::size_t sequenceLength(unsigned char lead) {
    if (lead < 0x80) {
        return 1;
    }
    if (lead < 0xC2) {
        return 0;  // a continuation byte, or the lead of an overlong form
    }
    return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF5 ? 4 : 0;
}

// Well-formed UTF-8: no overlong forms, surrogates or values past U+10FFFF.
bool isUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto c = static_cast<unsigned char>(text[i]);
        const std::size_t length = sequenceLength(c);
        if (length == 0 || i + length > text.size()) {
            return false;
        }
        char32_t value = length == 1 ? c : c & (0x7F >> length);
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            value = (value << 6) | (next & 0x3F);
        }
        const char32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
        if (value < least[length] || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

IpcError invalid(std::string message) {
    return {IpcErrc::InvalidArgument, std::move(message)};
}

IpcError checkTopic(std::string_view topic, std::string_view what) {
    if (topic.empty()) {
        return invalid(std::string(what) + " is empty");
    }
    if (topic.find('\0') != std::string_view::npos) {
        return invalid(std::string(what) + " holds a NUL character");
    }
    if (!isUtf8(topic)) {
        return invalid(std::string(what) + " is not valid UTF-8");
    }
    return {};
}

}  // namespace

IpcError checkPublish(std::string_view topic, int qos) {
    if (IpcError error = checkTopic(topic, "the topic"); !error.ok()) {
        return error;
    }
    if (topic.find_first_of("+#") != std::string_view::npos) {
        return invalid("the topic \"" + std::string(topic) +
                       "\" holds a wildcard (+ or #), which only subscriptions may use");
    }
    if (qos < 0 || qos > 2) {
        return invalid("qos " + std::to_string(qos) + " is not 0, 1 or 2");
    }
    return {};
}

IpcError checkSubscribe(const std::vector<std::string>& topics) {
    if (topics.empty()) {
        return invalid("no topic to subscribe to");
    }
    for (const std::string& topic : topics) {
        if (IpcError error = checkTopic(topic, "a topic to subscribe to"); !error.ok()) {
            return error;
        }
        if (topic.find(',') != std::string::npos) {
            return invalid("the topic \"" + topic +
                           "\" holds a comma, which separates topics on the wire");
        }
    }
    return {};
}

}  // namespace ndpx::ipcclient
