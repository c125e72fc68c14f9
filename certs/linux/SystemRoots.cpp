// The process's parsed system CA bundles, one entry per file.

#include "certs/linux/SystemRoots.h"

#include <sys/stat.h>

#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

namespace ndpx::certs {

namespace {

struct FileStamp {
    timespec mtime{};
    off_t size = -1;
    bool operator==(const FileStamp& o) const {
        return size == o.size && mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
    }
};

struct Entry {
    FileStamp stamp;
    std::shared_ptr<const SystemRootSet> roots;
};

class RootsCache {
public:
    std::shared_ptr<const SystemRootSet> get(const std::string& file) {
        struct stat st {};
        if (::stat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            return unreadable();
        }
        const FileStamp stamp{st.st_mtim, st.st_size};
        if (auto roots = current(file, stamp)) {
            return roots;
        }
        // One parse at a time: threads that arrive meanwhile wait for it and
        // take its result instead of parsing the same file again.
        std::lock_guard loading(loadMutex_);
        if (auto roots = current(file, stamp)) {
            return roots;
        }
        auto roots = parse(file);
        std::lock_guard lock(mutex_);
        entries_[file] = Entry{stamp, roots};
        return roots;
    }

private:
    std::shared_ptr<const SystemRootSet> current(const std::string& file, const FileStamp& stamp) {
        std::lock_guard lock(mutex_);
        const auto it = entries_.find(file);
        return it != entries_.end() && it->second.stamp == stamp ? it->second.roots : nullptr;
    }

    static std::shared_ptr<const SystemRootSet> unreadable() {
        static const auto none = std::make_shared<const SystemRootSet>();
        return none;
    }

    static std::shared_ptr<const SystemRootSet> parse(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        if (!in) {
            return unreadable();
        }
        auto roots = std::make_shared<SystemRootSet>();
        roots->readable = true;
        roots->certs = x509sFromPemBundle(text.str());
        roots->pems.reserve(roots->certs.size());
        for (const auto& cert : roots->certs) {
            if (std::string pem = x509ToPem(cert.get()); !pem.empty()) {
                roots->pems.push_back(std::move(pem));
            }
        }
        return roots;
    }

    std::mutex loadMutex_;
    std::mutex mutex_;
    std::map<std::string, Entry> entries_;
};

}  // namespace

STACK_OF(X509) * SystemRootSet::trustedStack() const {
    STACK_OF(X509)* stack = sk_X509_new_reserve(nullptr, static_cast<int>(certs.size()));
    if (stack == nullptr) {
        return nullptr;
    }
    for (const auto& cert : certs) {
        sk_X509_push(stack, cert.get());
    }
    return stack;
}

std::shared_ptr<const SystemRootSet> systemRootSet(const std::string& file) {
    static RootsCache cache;
    return cache.get(file);
}

}  // namespace ndpx::certs
