#pragma once
// The bridge protocol's messages as bytes, one message per packet:
//   to the bridge    {"type":"subscribe","topics":"a/b,c/d"}
//                    {"type":"publish","topic":"t","message":"<base64>","qos":N,"retain":0|1}
//   from the bridge  {"type":"message","topic":"t","message":"<base64>"} "\n" NUL
// Compact JSON, in this member order.

#include <ipcclient/IpcClient.h>

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ndpx::ipcclient::detail {

// The topics must have passed checkSubscribe, the topic checkPublish.
std::string encodeSubscribe(const std::vector<std::string>& topics);
std::string encodePublish(std::string_view topic, std::span<const std::uint8_t> payload, int qos,
                          bool retain);

// One packet from the bridge; the line feed and NUL after the JSON are
// optional. Nothing, with `error` Malformed and the reason, for anything
// else (isIdentity is left to the caller).
std::optional<Message> decodeBridgeMessage(std::string_view packet, IpcError& error);

// Strict JSON (no comments, no NUL, nothing after the value) with an object at the
// top. False with the parser's reason on one line.
bool parseJsonObject(std::string_view text, Json::Value& out, std::string& error);

}  // namespace ndpx::ipcclient::detail
