#include "support/TempDir.h"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <system_error>

namespace ndpx::test {

namespace {

// Top-down: a directory must be readable before its entries can be listed.
void grantOwnerAccess(const std::filesystem::path& dir) {
    std::error_code ec;
    std::filesystem::permissions(dir, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ec);
    for (std::filesystem::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec)) {
            grantOwnerAccess(it->path());
        }
    }
}

}  // namespace

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ndpx-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed: " + std::string(std::strerror(errno)));
    }
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
    if (!ec) {
        return;
    }
    // A test may have left a directory without permissions behind.
    grantOwnerAccess(path_);
    std::filesystem::remove_all(path_, ec);
}

}  // namespace ndpx::test
