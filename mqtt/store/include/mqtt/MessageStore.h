#pragma once
// The session's message store: what the client library keeps until the
// broker acknowledges it (outbound messages, QoS 0 included, and the state
// of exchanges in flight), by key. One append-only file holds it: a put or a
// remove is one record written at the end with one system call, so nothing
// is opened, created or deleted per message, and what a call returned with
// outlives a kill of the process. The file is rewritten with only the live
// records once the dead ones outgrow them.
//
// Not fsynced per record, as the library's own file store was not: a power
// loss may take the last records with it. A record cut short by one is found
// by its checksum when the file is next opened, and dropped.

#include <platform/AppendFile.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ndpx {

class MessageStore {
public:
    // Receives one line for each thing worth an operator's attention.
    using Log = std::function<void(const std::string& line)>;

    // Opens (or creates) the store at `file`. A file that is not a store is
    // moved aside to "<file>.unreadable", not overwritten.
    static std::unique_ptr<MessageStore> open(const std::filesystem::path& file, Log log,
                                              std::string& error);

    // Each returns false, and leaves the store as it was, on failure.
    bool put(const std::string& key, std::span<const std::string_view> parts);
    bool remove(const std::string& key);
    bool clear();
    std::optional<std::string> get(const std::string& key);
    bool contains(const std::string& key);
    std::vector<std::string> keys();

    std::uint64_t fileBytes();

    // Dead bytes that start a rewrite (when they also outweigh the live ones).
    static constexpr std::uint64_t kCompactAfterDeadBytes = std::uint64_t{256} * 1024;

private:
    struct Location {
        std::uint64_t offset;  // of the value
        std::uint32_t length;
        std::uint64_t recordBytes;
    };
    MessageStore(std::filesystem::path file, Log log)
        : file_(std::move(file)), log_(std::move(log)) {}
    bool load(std::string& error);
    bool appendLocked(char type, const std::string& key, std::span<const std::string_view> parts,
                      std::uint64_t& recordBytes);
    void compactLocked();
    bool rewriteLocked(std::string& error);

    const std::filesystem::path file_;
    const Log log_;
    std::mutex mutex_;
    std::unique_ptr<platform::AppendFile> out_;
    std::unordered_map<std::string, Location> index_;
    std::uint64_t liveBytes_ = 0;
    std::uint64_t deadBytes_ = 0;
};

}  // namespace ndpx
