#include <platform/Journal.h>
#include <platform/UniqueFd.h>

#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace ndpx::platform {
namespace {

// Cuts `text` to at most `size` bytes without splitting a UTF-8 sequence.
std::string utf8Prefix(const std::string& text, std::size_t size) {
    while (size > 0 && size < text.size() &&
           (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80) {
        --size;
    }
    return text.substr(0, size);
}

class SocketJournal : public Journal {
public:
    // One socket for every entry: the host log writes one per line, from
    // any thread (datagram sends on one socket need no lock).
    explicit SocketJournal(std::string path)
        : path_(std::move(path)), fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {}

    JournalResult write(const std::vector<JournalField>& fields) override {
        JournalResult result;
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (path_.empty() || path_.size() >= sizeof address.sun_path) {
            result.error = ENAMETOOLONG;
            return result;
        }
        std::memcpy(address.sun_path, path_.data(), path_.size());
        if (!fd_) {
            result.error = EBADF;
            return result;
        }
        std::vector<JournalField> entry = fields;
        const auto message = std::find_if(
            entry.begin(), entry.end(), [](const JournalField& f) { return f.name == "MESSAGE"; });
        const std::string full = message != entry.end() ? message->value : std::string();
        std::size_t keep = full.size();
        for (;;) {
            const std::string datagram = encodeJournalEntry(entry);
            if (::sendto(fd_.get(), datagram.data(), datagram.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                         reinterpret_cast<const sockaddr*>(&address), sizeof address) >= 0) {
                result.written = true;
                result.error = 0;
                return result;
            }
            result.error = errno;
            // Too large for one datagram: halve the message, with a marker
            // saying so, until it fits or nothing is left to cut.
            if (result.error != EMSGSIZE || message == entry.end() || keep == 0) {
                return result;
            }
            keep /= 2;
            const std::string kept = utf8Prefix(full, keep);
            message->value = kept + "\n[truncated: " + std::to_string(kept.size()) + " of " +
                             std::to_string(full.size()) + " bytes]";
            result.truncated = true;
        }
    }

private:
    const std::string path_;
    const UniqueFd fd_;
};

}  // namespace

std::unique_ptr<Journal> makeJournal(std::string socketPath) {
    return std::make_unique<SocketJournal>(std::move(socketPath));
}

std::string encodeJournalEntry(const std::vector<JournalField>& fields) {
    std::string out;
    for (const auto& f : fields) {
        out += f.name;
        if (f.value.find('\n') == std::string::npos) {
            out += '=';
        } else {
            out += '\n';
            std::uint64_t size = f.value.size();
            for (int i = 0; i < 8; ++i) {
                out += static_cast<char>(size & 0xFF);
                size >>= 8;
            }
        }
        out += f.value;
        out += '\n';
    }
    return out;
}

}  // namespace ndpx::platform
