// The process's system CA bundles, one entry per file, and their roots
// decoded on demand.

#include "certs/linux/SystemRoots.h"

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>

namespace ndpx::certs {

namespace {

// Reads one DER header at `p` (at most `max` bytes), moving `p` to the
// contents; false for a malformed or indefinite-length header.
bool readHeader(const unsigned char*& p, long max, long& length, int& tag, int& cls) {
    const int ret = ASN1_get_object(&p, &length, &tag, &cls, max);
    return (ret & 0x80) == 0 && (ret & 0x01) == 0;
}

// The certificate at the start of `der` (which may carry trust data after
// it) and its subject name, found by walking the headers: the certificate's
// own bytes and the subject's decoded name.
bool certificateAndSubject(const unsigned char* der, long size, long& certSize, NamePtr& subject) {
    const unsigned char* p = der;
    long length = 0;
    int tag = 0;
    int cls = 0;
    if (!readHeader(p, size, length, tag, cls) || tag != V_ASN1_SEQUENCE) {
        return false;
    }
    certSize = static_cast<long>(p - der) + length;
    if (!readHeader(p, length, length, tag, cls) || tag != V_ASN1_SEQUENCE) {
        return false;
    }
    const unsigned char* end = p + length;
    // version [0] (optional), serial, signature, issuer, validity, subject
    for (int field = 0; p < end;) {
        const unsigned char* start = p;
        if (!readHeader(p, end - p, length, tag, cls)) {
            return false;
        }
        const bool version = field == 0 && cls == V_ASN1_CONTEXT_SPECIFIC && tag == 0;
        if (!version && field++ == 4) {
            const unsigned char* q = start;
            subject.reset(d2i_X509_NAME(nullptr, &q, static_cast<long>(p - start) + length));
            return tag == V_ASN1_SEQUENCE && subject != nullptr;
        }
        p += length;
    }
    return false;
}

struct FileStamp {
    timespec mtime{};
    off_t size = -1;
    bool operator==(const FileStamp& o) const {
        return size == o.size && mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec;
    }
};

class RootsCache {
public:
    std::shared_ptr<const SystemRootSet> get(const std::string& file) {
        struct stat st {};
        if (::stat(file.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            return SystemRootSet::unreadable();
        }
        const FileStamp stamp{st.st_mtim, st.st_size};
        if (auto roots = current(file, stamp)) {
            return roots;
        }
        // One read at a time: threads that arrive meanwhile wait for it and
        // take its result instead of reading the same file again.
        std::lock_guard loading(loadMutex_);
        if (auto roots = current(file, stamp)) {
            return roots;
        }
        std::ifstream in(file, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        auto roots = in ? SystemRootSet::fromPem(text.str()) : SystemRootSet::unreadable();
        std::lock_guard lock(mutex_);
        entries_[file] = Entry{stamp, roots};
        return roots;
    }

private:
    struct Entry {
        FileStamp stamp;
        std::shared_ptr<const SystemRootSet> roots;
    };

    std::shared_ptr<const SystemRootSet> current(const std::string& file, const FileStamp& stamp) {
        std::lock_guard lock(mutex_);
        const auto it = entries_.find(file);
        return it != entries_.end() && it->second.stamp == stamp ? it->second.roots : nullptr;
    }

    std::mutex loadMutex_;
    std::mutex mutex_;
    std::map<std::string, Entry> entries_;
};

}  // namespace

std::shared_ptr<const SystemRootSet> SystemRootSet::unreadable() {
    static const auto none = std::make_shared<const SystemRootSet>();
    return none;
}

std::shared_ptr<const SystemRootSet> SystemRootSet::fromPem(const std::string& text) {
    auto set = std::make_shared<SystemRootSet>();
    set->readable_ = true;
    BioPtr bio(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    for (;;) {
        char* name = nullptr;
        char* header = nullptr;
        unsigned char* data = nullptr;
        long size = 0;
        const long left = bio ? static_cast<long>(BIO_pending(bio.get())) : 0;
        if (!bio || PEM_read_bio(bio.get(), &name, &header, &data, &size) != 1) {
            // A block that does not decode is skipped; the end of the text
            // (or a read that took nothing) ends the loop.
            const bool more = bio && BIO_pending(bio.get()) < left &&
                              ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE;
            ERR_clear_error();
            if (more) {
                continue;
            }
            break;
        }
        auto root = std::make_unique<Root>();
        long certSize = 0;
        const bool isCert = std::strcmp(name, PEM_STRING_X509) == 0 ||
                            std::strcmp(name, PEM_STRING_X509_OLD) == 0 ||
                            std::strcmp(name, PEM_STRING_X509_TRUSTED) == 0;
        if (isCert && certificateAndSubject(data, size, certSize, root->subject)) {
            root->der.assign(data, data + certSize);
            set->roots_.push_back(std::move(root));
        }
        ERR_clear_error();
        OPENSSL_free(name);
        OPENSSL_free(header);
        OPENSSL_free(data);
    }
    return set;
}

X509* SystemRootSet::Root::decoded() const {
    std::call_once(decodeOnce, [this] {
        cert = x509FromDer(der);
        ERR_clear_error();
    });
    return cert.get();
}

std::vector<std::string> SystemRootSet::pems() const {
    std::vector<std::string> out;
    out.reserve(roots_.size());
    for (const auto& root : roots_) {
        BioPtr bio(BIO_new(BIO_s_mem()));
        if (bio && PEM_write_bio(bio.get(), PEM_STRING_X509, "", root->der.data(),
                                 static_cast<long>(root->der.size())) > 0) {
            out.push_back(bioToString(bio.get()));
        }
    }
    return out;
}

bool SystemRootSet::addIssuers(const std::vector<X509*>& certs, STACK_OF(X509) * trusted) const {
    std::vector<const X509_NAME*> wanted;
    wanted.reserve(certs.size() + roots_.size());
    for (X509* cert : certs) {
        wanted.push_back(X509_get_issuer_name(cert));
    }
    std::vector<bool> added(roots_.size(), false);
    // A root that is itself issued by another root of the bundle (a
    // cross-signed one) brings that root in too.
    for (std::size_t next = 0; next < wanted.size(); ++next) {
        for (std::size_t i = 0; i < roots_.size(); ++i) {
            if (added[i] || X509_NAME_cmp(roots_[i]->subject.get(), wanted[next]) != 0) {
                continue;
            }
            added[i] = true;
            X509* cert = roots_[i]->decoded();
            if (cert == nullptr) {
                continue;
            }
            if (sk_X509_push(trusted, cert) <= 0) {
                return false;
            }
            wanted.push_back(X509_get_issuer_name(cert));
        }
    }
    return true;
}

std::shared_ptr<const SystemRootSet> systemRootSet(const std::string& file) {
    static RootsCache cache;
    return cache.get(file);
}

}  // namespace ndpx::certs
