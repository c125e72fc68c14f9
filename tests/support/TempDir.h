#pragma once
// A temporary directory removed with everything in it when the object dies.

#include <filesystem>

namespace ndpx::test {

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace ndpx::test
