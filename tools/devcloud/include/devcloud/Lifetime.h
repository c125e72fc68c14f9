#pragma once
// Certificate lifetimes as an operator writes them on the command line.

#include <chrono>
#include <optional>
#include <string>

namespace ndpx::devcloud {

// "300" or "300s", "5m", "2h", "30d": a lifetime of at least a second and at
// most ten years; nullopt for anything else.
std::optional<std::chrono::seconds> parseLifetime(const std::string& text);

}  // namespace ndpx::devcloud
