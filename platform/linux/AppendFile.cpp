#include <platform/AppendFile.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <vector>

namespace ndpx::platform {
namespace {

std::string reason(const char* what) {
    return std::string(what) + ": " + std::generic_category().message(errno);
}

}  // namespace

std::unique_ptr<AppendFile> AppendFile::open(const std::filesystem::path& path,
                                             std::string& error) {
    UniqueFd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0) {
        error = reason("open");
        return nullptr;
    }
    if (!S_ISREG(st.st_mode)) {
        error = "not a regular file";
        return nullptr;
    }
    return std::unique_ptr<AppendFile>(
        new AppendFile(std::move(fd), static_cast<std::uint64_t>(st.st_size)));
}

bool AppendFile::append(std::span<const std::string_view> parts, std::string& error) {
    std::vector<iovec> vec;
    vec.reserve(parts.size());
    std::size_t total = 0;
    for (const auto part : parts) {
        vec.push_back(iovec{const_cast<char*>(part.data()), part.size()});
        total += part.size();
    }
    std::size_t done = 0;
    std::size_t first = 0;
    while (done < total) {
        const ssize_t n =
            pwritev(fd_.get(), vec.data() + first, static_cast<int>(vec.size() - first),
                    static_cast<off_t>(size_ + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            error = reason("write");
            (void)ftruncate(fd_.get(), static_cast<off_t>(size_));
            return false;
        }
        // A short write (a full disk, a file-size limit) goes on from where it stopped.
        done += static_cast<std::size_t>(n);
        std::size_t skip = static_cast<std::size_t>(n);
        while (first < vec.size() && skip >= vec[first].iov_len) {
            skip -= vec[first].iov_len;
            ++first;
        }
        if (first < vec.size()) {
            vec[first].iov_base = static_cast<char*>(vec[first].iov_base) + skip;
            vec[first].iov_len -= skip;
        }
    }
    size_ += total;
    return true;
}

bool AppendFile::readAt(std::uint64_t offset, std::size_t length, std::string& out,
                        std::string& error) const {
    out.resize(length);
    std::size_t done = 0;
    while (done < length) {
        const ssize_t n =
            pread(fd_.get(), out.data() + done, length - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            error = n == 0 ? std::string("read: the file ends early") : reason("read");
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

bool AppendFile::truncate(std::uint64_t length, std::string& error) {
    if (ftruncate(fd_.get(), static_cast<off_t>(length)) != 0) {
        error = reason("truncate");
        return false;
    }
    size_ = length;
    return true;
}

bool AppendFile::sync(std::string& error) {
    if (fdatasync(fd_.get()) != 0) {
        error = reason("sync");
        return false;
    }
    return true;
}

bool replaceFile(const std::filesystem::path& from, const std::filesystem::path& to,
                 std::string& error) {
    if (::rename(from.c_str(), to.c_str()) != 0) {
        error = reason("rename");
        return false;
    }
    const UniqueFd dir(::open(to.parent_path().empty() ? "." : to.parent_path().c_str(),
                              O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir) {
        (void)fsync(dir.get());
    }
    return true;
}

}  // namespace ndpx::platform
