// The LCM spec as the provisioning system hands it over: any text. Beyond
// what the sanitizers catch, the one-time password must never reach the log:
// each document is parsed again with a password planted in it.

#include "FuzzLog.h"
#include "config/MqttManagerUtil.h"
#include "config/mqttConfig.h"

#include <json/value.h>

#include <cstdint>
#include <string_view>

namespace {

using namespace ndpx;

constexpr const char* kPassword = "otp-planted-5Yc1qW8rKz3mT0vB";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::FuzzLog::get();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    mqttConfig::ParseLCMSpec(text);

    Json::Value json;
    if (!MqttManagerUtil::parseJson(text, json) || !json.isObject() || !json.isMember("nexHub") ||
        !json["nexHub"].isObject() ||
        MqttManagerUtil::writeCompact(json).find(kPassword) != std::string::npos) {
        return 0;
    }
    json["nexHub"]["oneTimePassword"] = kPassword;
    const fuzz::FuzzLog::Forbidden secret(kPassword);
    mqttConfig::ParseLCMSpec(MqttManagerUtil::writeCompact(json));
    return 0;
}
