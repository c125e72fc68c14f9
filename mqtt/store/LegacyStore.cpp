#include "mqtt/LegacyStore.h"

#include <array>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

namespace ndpx {

std::filesystem::path legacyStoreFolder(const std::filesystem::path& folder,
                                        const std::string& clientId, const std::string& serverUri) {
    std::string uri = serverUri;
    for (char& c : uri) {
        if (c == ':') {
            c = '-';
        }
    }
    return folder / (clientId + "-" + uri);
}

std::size_t importLegacyStore(const std::filesystem::path& folder, const std::string& clientId,
                              const std::string& serverUri, MessageStore& store,
                              const MessageStore::Log& log) {
    const std::filesystem::path legacy = legacyStoreFolder(folder, clientId, serverUri);
    std::error_code ec;
    if (!std::filesystem::is_directory(legacy, ec)) {
        return 0;
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(legacy, ec)) {
        if (entry.is_regular_file(ec) && entry.path().extension() == ".msg") {
            files.push_back(entry.path());
        }
    }
    std::size_t moved = 0;
    for (const auto& file : files) {
        std::ifstream in(file, std::ios::binary);
        const std::string value((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
        const std::array<std::string_view, 1> parts{value};
        if (!in.good() && !in.eof()) {
            log("Unable to read " + file.string() + "; it stays in place");
            continue;
        }
        if (!store.put(file.stem().string(), parts)) {
            continue;  // the store said why
        }
        std::filesystem::remove(file, ec);
        ++moved;
    }
    // The URI's "//" made it two folders deep; both go once empty.
    const std::size_t base = (folder / "x").lexically_normal().parent_path().string().size();
    for (auto dir = legacy.lexically_normal(); dir.string().size() > base;
         dir = dir.parent_path()) {
        if (!std::filesystem::is_empty(dir, ec) || !std::filesystem::remove(dir, ec)) {
            break;
        }
    }
    if (moved != 0) {
        log("Moved " + std::to_string(moved) + " messages from " + legacy.string() +
            " into the message store");
    }
    return moved;
}

}  // namespace ndpx
