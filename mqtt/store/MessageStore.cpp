#include "mqtt/MessageStore.h"

#include <array>
#include <system_error>

namespace ndpx {
namespace {

constexpr std::string_view kMagic = "NDPXMS1\n";
constexpr char kPut = 'P';
constexpr char kRemove = 'R';
constexpr std::size_t kHeaderBytes = 9;  // type, key length, value length
constexpr std::size_t kChecksumBytes = 8;

void putLittleEndian(char* out, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) {
        out[i] = static_cast<char>((value >> (8 * i)) & 0xff);
    }
}

std::uint64_t getLittleEndian(const char* in, std::size_t bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes; ++i) {
        value |= static_cast<std::uint64_t>(static_cast<unsigned char>(in[i])) << (8 * i);
    }
    return value;
}

// FNV-1a: enough to tell a record cut short or overwritten from a whole one.
class Checksum {
public:
    void add(std::string_view bytes) {
        for (const unsigned char c : bytes) {
            hash_ = (hash_ ^ c) * 0x100000001b3ULL;
        }
    }
    std::uint64_t value() const { return hash_; }

private:
    std::uint64_t hash_ = 0xcbf29ce484222325ULL;
};

// Writes one record: header, key, value parts, checksum, in one append.
bool writeRecord(platform::AppendFile& file, char type, std::string_view key,
                 std::span<const std::string_view> parts, std::uint64_t valueLength,
                 std::string& error) {
    std::array<char, kHeaderBytes> header{};
    header[0] = type;
    putLittleEndian(&header[1], key.size(), 4);
    putLittleEndian(&header[5], valueLength, 4);
    Checksum sum;
    sum.add(std::string_view(header.data(), header.size()));
    sum.add(key);
    for (const auto part : parts) {
        sum.add(part);
    }
    std::array<char, kChecksumBytes> trailer{};
    putLittleEndian(trailer.data(), sum.value(), kChecksumBytes);

    std::vector<std::string_view> pieces;
    pieces.reserve(parts.size() + 3);
    pieces.emplace_back(header.data(), header.size());
    pieces.emplace_back(key);
    pieces.insert(pieces.end(), parts.begin(), parts.end());
    pieces.emplace_back(trailer.data(), trailer.size());
    return file.append(pieces, error);
}

}  // namespace

std::unique_ptr<MessageStore> MessageStore::open(const std::filesystem::path& file, Log log,
                                                 std::string& error) {
    std::unique_ptr<MessageStore> store(new MessageStore(file, std::move(log)));
    std::lock_guard lock(store->mutex_);
    if (!store->load(error)) {
        return nullptr;
    }
    return store;
}

bool MessageStore::load(std::string& error) {
    out_ = platform::AppendFile::open(file_, error);
    if (!out_) {
        return false;
    }
    std::string text;
    if (!out_->readAt(0, out_->size(), text, error)) {
        return false;
    }
    if (text.size() < kMagic.size() || text.compare(0, kMagic.size(), kMagic) != 0) {
        if (!text.empty()) {
            // Not ours, or its start was overwritten: kept for a person to look at.
            const std::filesystem::path aside = file_.string() + ".unreadable";
            out_.reset();
            std::error_code ec;
            std::filesystem::rename(file_, aside, ec);
            log_("The message store " + file_.string() +
                 " is not readable and was moved aside to " + aside.string() +
                 (ec ? ": " + ec.message() : std::string()));
            out_ = platform::AppendFile::open(file_, error);
            if (!out_) {
                return false;
            }
        }
        const std::array<std::string_view, 1> magic{kMagic};
        return out_->truncate(0, error) && out_->append(magic, error);
    }

    std::size_t pos = kMagic.size();
    while (pos + kHeaderBytes + kChecksumBytes <= text.size()) {
        const char type = text[pos];
        const auto keyLength = getLittleEndian(&text[pos + 1], 4);
        const auto valueLength = getLittleEndian(&text[pos + 5], 4);
        const std::uint64_t recordBytes = kHeaderBytes + keyLength + valueLength + kChecksumBytes;
        if ((type != kPut && type != kRemove) || recordBytes > text.size() - pos) {
            break;
        }
        Checksum sum;
        sum.add(std::string_view(text).substr(pos, recordBytes - kChecksumBytes));
        if (sum.value() != getLittleEndian(&text[pos + recordBytes - kChecksumBytes], 8)) {
            break;
        }
        std::string key = text.substr(pos + kHeaderBytes, keyLength);
        if (const auto old = index_.find(key); old != index_.end()) {
            liveBytes_ -= old->second.recordBytes;
            deadBytes_ += old->second.recordBytes;
            index_.erase(old);
        }
        if (type == kPut) {
            index_.emplace(std::move(key),
                           Location{pos + kHeaderBytes + keyLength,
                                    static_cast<std::uint32_t>(valueLength), recordBytes});
            liveBytes_ += recordBytes;
        } else {
            deadBytes_ += recordBytes;
        }
        pos += recordBytes;
    }
    if (pos != text.size()) {
        log_("The message store " + file_.string() + " ends in " +
             std::to_string(text.size() - pos) +
             " bytes that are not a whole record (a write cut short); they were dropped");
        if (!out_->truncate(pos, error)) {
            return false;
        }
    }
    compactLocked();
    return true;
}

bool MessageStore::appendLocked(char type, const std::string& key,
                                std::span<const std::string_view> parts,
                                std::uint64_t& recordBytes) {
    std::uint64_t valueLength = 0;
    for (const auto part : parts) {
        valueLength += part.size();
    }
    if (key.size() > UINT32_MAX || valueLength > UINT32_MAX) {
        log_("The message store refused a record of " + std::to_string(valueLength) +
             " bytes: too large");
        return false;
    }
    std::string error;
    if (!writeRecord(*out_, type, key, parts, valueLength, error)) {
        log_("Unable to write to the message store " + file_.string() + ": " + error);
        return false;
    }
    recordBytes = kHeaderBytes + key.size() + valueLength + kChecksumBytes;
    return true;
}

bool MessageStore::put(const std::string& key, std::span<const std::string_view> parts) {
    std::lock_guard lock(mutex_);
    const std::uint64_t start = out_->size();
    std::uint64_t recordBytes = 0;
    if (!appendLocked(kPut, key, parts, recordBytes)) {
        return false;
    }
    auto& slot = index_[key];
    if (slot.recordBytes != 0) {
        liveBytes_ -= slot.recordBytes;
        deadBytes_ += slot.recordBytes;
    }
    slot = Location{
        start + kHeaderBytes + key.size(),
        static_cast<std::uint32_t>(recordBytes - kHeaderBytes - key.size() - kChecksumBytes),
        recordBytes};
    liveBytes_ += recordBytes;
    compactLocked();
    return true;
}

bool MessageStore::remove(const std::string& key) {
    std::lock_guard lock(mutex_);
    const auto it = index_.find(key);
    if (it == index_.end()) {
        return true;
    }
    std::uint64_t recordBytes = 0;
    if (!appendLocked(kRemove, key, {}, recordBytes)) {
        return false;
    }
    liveBytes_ -= it->second.recordBytes;
    deadBytes_ += it->second.recordBytes + recordBytes;
    index_.erase(it);
    compactLocked();
    return true;
}

bool MessageStore::clear() {
    std::lock_guard lock(mutex_);
    std::string error;
    if (!out_->truncate(kMagic.size(), error)) {
        log_("Unable to clear the message store " + file_.string() + ": " + error);
        return false;
    }
    index_.clear();
    liveBytes_ = deadBytes_ = 0;
    return true;
}

std::optional<std::string> MessageStore::get(const std::string& key) {
    std::lock_guard lock(mutex_);
    const auto it = index_.find(key);
    if (it == index_.end()) {
        return std::nullopt;
    }
    std::string value;
    std::string error;
    if (!out_->readAt(it->second.offset, it->second.length, value, error)) {
        log_("Unable to read from the message store " + file_.string() + ": " + error);
        return std::nullopt;
    }
    return value;
}

bool MessageStore::contains(const std::string& key) {
    std::lock_guard lock(mutex_);
    return index_.contains(key);
}

std::vector<std::string> MessageStore::keys() {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    out.reserve(index_.size());
    for (const auto& [key, location] : index_) {
        out.push_back(key);
    }
    return out;
}

std::uint64_t MessageStore::fileBytes() {
    std::lock_guard lock(mutex_);
    return out_->size();
}

void MessageStore::compactLocked() {
    if (deadBytes_ < kCompactAfterDeadBytes || deadBytes_ <= liveBytes_) {
        return;
    }
    std::string error;
    // Nothing live, the usual case between bursts: the file only needs cutting.
    const bool done = index_.empty() ? out_->truncate(kMagic.size(), error) : rewriteLocked(error);
    if (!done) {
        log_("Unable to compact the message store " + file_.string() + ": " + error);
        return;
    }
    deadBytes_ = 0;
}

bool MessageStore::rewriteLocked(std::string& error) {
    const std::filesystem::path temporary = file_.string() + ".compacting";
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    auto next = platform::AppendFile::open(temporary, error);
    if (!next) {
        return false;
    }
    const std::array<std::string_view, 1> magic{kMagic};
    if (!next->append(magic, error)) {
        return false;
    }
    std::unordered_map<std::string, Location> moved;
    std::string value;
    for (const auto& [key, location] : index_) {
        if (!out_->readAt(location.offset, location.length, value, error)) {
            return false;
        }
        const std::uint64_t start = next->size();
        const std::array<std::string_view, 1> parts{value};
        if (!writeRecord(*next, kPut, key, parts, value.size(), error)) {
            return false;
        }
        moved.emplace(key, Location{start + kHeaderBytes + key.size(), location.length,
                                    location.recordBytes});
    }
    if (!next->sync(error) || !platform::replaceFile(temporary, file_, error)) {
        return false;
    }
    out_ = std::move(next);
    index_ = std::move(moved);
    return true;
}

}  // namespace ndpx
