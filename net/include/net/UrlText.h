#pragma once
// URL text for logs.

#include <string>

namespace ndpx::net {

// The URL with any user name and password replaced by "*****", for logs.
std::string redactUrl(const std::string& url);

}  // namespace ndpx::net
