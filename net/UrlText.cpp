#include "net/UrlText.h"

namespace ndpx::net {

std::string redactUrl(const std::string& url) {
    const std::size_t scheme = url.find("://");
    const std::size_t start = scheme == std::string::npos ? 0 : scheme + 3;
    const std::size_t end = url.find_first_of("/?#", start);
    const std::size_t at = url.rfind('@', end == std::string::npos ? url.size() - 1 : end);
    if (url.empty() || at == std::string::npos || at < start) {
        return url;
    }
    return url.substr(0, start) + "*****" + url.substr(at);
}

}  // namespace ndpx::net
