// Edits of session reports and of StartSession answers.

#include "reports/MessageTransformer.h"

#include "config/mqttConfig.h"

#include <mfw/corestring.h>
#include <mfw/moduleLog.h>
#include <platform/HostAddress.h>

#include <map>
#include <string_view>
#include <vector>

namespace ndpx::MessageTransformer {
namespace {

bool hasErrorCode(const CORE::PropertyBag& bag) {
    return !bag.get(L"ERROR-CODE", L"").empty();
}

std::vector<std::string> splitAt(std::string_view text, char separator) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find(separator, start);
        parts.emplace_back(text.substr(start, end - start));
        if (end == std::string_view::npos) {
            return parts;
        }
        start = end + 1;
    }
}

// The listeners as named values, else as "name:port" items of one
// multi-string.
std::map<std::string, std::string> readListeners(mqttConfig& config) {
    std::map<std::string, std::string> listeners;
    for (auto& [name, port] : config.getListenerValues()) {
        listeners[name] = std::move(port);
    }
    if (!listeners.empty()) {
        return listeners;
    }
    for (const std::string& item : config.getListenerStrings()) {
        if (item.empty()) {
            continue;  // the list's terminator
        }
        auto parts = splitAt(item, ':');
        if (parts.size() != 2) {
            MFW_LOG(CORE::kLogDebug,
                    "MessageTransformer::AddListenerPorts(): Malformed listener string (%s)",
                    item.c_str());
            continue;
        }
        listeners[parts[0]] = std::move(parts[1]);
    }
    return listeners;
}

}  // namespace

void UpdateSessionReport(CORE::PropertyBag& bag, mqttConfig& config) {
    MFW_LOG(CORE::kLogVerbose,
            "MessageTransformer::UpdateSessionReport(): Updating session report");
    const std::vector<std::wstring> fields = config.getUnwantedFields();
    const std::vector<std::wstring> sessionFields = config.getUnwantedSessionFields();
    for (const std::wstring& field : fields) {
        MFW_LOG(CORE::kLogVerbose, "MessageTransformer::UpdateSessionReport(): Removing field %s",
                CORE::toUtf8(field).c_str());
        bag.remove(field);
    }
    for (std::size_t i = 0; i < bag.size(); ++i) {
        CORE::PropertyBag* session = bag.getName(i) == L"SESSION" ? bag.getBagPtr(i) : nullptr;
        if (session == nullptr) {
            continue;
        }
        for (const std::wstring& field : sessionFields) {
            MFW_LOG(CORE::kLogVerbose,
                    "MessageTransformer::UpdateSessionReport(): Removing session field %s",
                    CORE::toUtf8(field).c_str());
            session->remove(field);
        }
    }
}

void AddHostAddress(CORE::PropertyBag& bag, mqttConfig& config, const AddressSource& ownAddress) {
    if (hasErrorCode(bag)) {
        MFW_LOG(CORE::kLogDebug,
                "MessageTransformer::AddHostAddress(): Unable to add address due to error code");
        return;
    }
    if (bag.getBag(L"PROTOCOL") == nullptr) {
        bag.setBag(L"PROTOCOL", CORE::PropertyBag{});
    }
    CORE::PropertyBag& protocol = *bag.getBag(L"PROTOCOL");
    if (!protocol.get(L"HOST", L"").empty()) {
        return;
    }
    std::string host = config.getExternalIPAddress();
    if (host.empty()) {
        host = ownAddress ? ownAddress() : platform::hostIpAddress();
    }
    protocol.set(L"HOST", CORE::toWide(host));
    MFW_LOG(CORE::kLogVerbose,
            "MessageTransformer::AddHostAddress(): Added HOST (%s) to the protocol bag",
            host.c_str());
}

void AddListenerPorts(CORE::PropertyBag& bag, mqttConfig& config) {
    if (hasErrorCode(bag)) {
        MFW_LOG(CORE::kLogDebug,
                "MessageTransformer::AddListenerPorts(): Unable to add listeners due to error "
                "code");
        return;
    }
    CORE::PropertyBag listeners;
    for (const auto& [name, port] : readListeners(config)) {
        listeners.add(CORE::toWide(name), CORE::toWide(port));
        MFW_LOG(CORE::kLogVerbose,
                "MessageTransformer::AddListenerPorts(): Added (%s:%s) to the listeners bag",
                name.c_str(), port.c_str());
    }
    bag.addBag(L"LISTENERS", listeners);
}

}  // namespace ndpx::MessageTransformer
