#include "config/Redaction.h"

namespace ndpx {

const std::set<std::string, std::less<>>& redactionSet() {
    // Several words appear in two spellings because the look-up is exact.
    static const std::set<std::string, std::less<>> names{
        "FRAMEWORKCHANNELTICKET",
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
        "oneTimePassword",
    };
    return names;
}

bool isRedacted(std::string_view propertyName) {
    const auto& names = redactionSet();
    return names.find(propertyName) != names.end();
}

}  // namespace ndpx
