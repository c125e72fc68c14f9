#pragma once
// How the monitors report: the manager's desktop status publish, handed in
// by the owner so that the monitors know nothing of the session.

#include <functional>
#include <string>

namespace ndpx {

// What `text` is: nothing, an error message, or the Azure AD device ID.
inline constexpr int kStatusDetailNone = 0;
inline constexpr int kStatusDetailError = 1;
inline constexpr int kStatusDetailDeviceId = 2;

using StatusPublisher =
    std::function<void(const std::string& status, int detailKind, const std::string& text)>;

}  // namespace ndpx
