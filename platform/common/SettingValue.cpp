#include <platform/SettingsStore.h>

#include <array>
#include <cctype>

namespace ndpx::platform {

SettingValue SettingValue::ofString(std::string s) {
    SettingValue v;
    v.type = Type::String;
    v.text = std::move(s);
    return v;
}

SettingValue SettingValue::ofDword(std::uint32_t d) {
    SettingValue v;
    v.type = Type::Dword;
    v.dword = d;
    return v;
}

SettingValue SettingValue::ofMulti(std::vector<std::string> m) {
    SettingValue v;
    v.type = Type::MultiString;
    v.multi = std::move(m);
    return v;
}

std::string SettingValue::asText() const {
    switch (type) {
        case Type::String:
            return text;
        case Type::Dword:
            return std::to_string(dword);
        case Type::MultiString: {
            std::string joined;
            for (std::size_t i = 0; i < multi.size(); ++i) {
                if (i != 0) {
                    joined += ',';
                }
                joined += multi[i];
            }
            return joined;
        }
    }
    return {};
}

namespace {

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

// Long hive names and their short forms; the short form is what we store.
struct Hive {
    std::string_view longName;
    std::string_view shortName;
};
constexpr std::array<Hive, 5> kHives{{
    {"HKEY_LOCAL_MACHINE", "HKLM"},
    {"HKEY_CURRENT_USER", "HKCU"},
    {"HKEY_CLASSES_ROOT", "HKCR"},
    {"HKEY_USERS", "HKU"},
    {"HKEY_CURRENT_CONFIG", "HKCC"},
}};

std::string_view canonicalHive(std::string_view component) {
    for (const auto& hive : kHives) {
        if (equalsIgnoreCase(component, hive.longName) ||
            equalsIgnoreCase(component, hive.shortName)) {
            return hive.shortName;
        }
    }
    return component;
}

}  // namespace

std::string normalizeKeyPath(std::string_view key) {
    std::string out;
    out.reserve(key.size());
    bool first = true;
    std::size_t pos = 0;
    while (pos <= key.size()) {
        std::size_t end = key.find('\\', pos);
        if (end == std::string_view::npos) {
            end = key.size();
        }
        std::string_view component = key.substr(pos, end - pos);
        if (!component.empty()) {
            if (first) {
                out += canonicalHive(component);
                first = false;
            } else {
                out += '\\';
                out += component;
            }
        }
        pos = end + 1;
    }
    return out;
}

std::pair<std::string, std::string> splitValuePath(std::string_view fullPath) {
    const std::size_t cut = fullPath.rfind('\\');
    if (cut == std::string_view::npos) {
        return {std::string(), std::string(fullPath)};
    }
    return {normalizeKeyPath(fullPath.substr(0, cut)), std::string(fullPath.substr(cut + 1))};
}

}  // namespace ndpx::platform
