#pragma once
// Messages an earlier version left in the client library's one-file-per-
// message store ("<folder>/<client id>-<server URI with ':' as '-'>/<key>.msg")
// are moved into the message store once, so an upgrade loses none of them.

#include "mqtt/MessageStore.h"

#include <filesystem>
#include <string>

namespace ndpx {

// The folder that store used for this client.
std::filesystem::path legacyStoreFolder(const std::filesystem::path& folder,
                                        const std::string& clientId, const std::string& serverUri);

// Moves every message of that folder into `store`, removing each file once
// it is stored, and the folders once empty. Returns how many were moved; a
// message that cannot be moved stays where it is, with a line in `log`.
std::size_t importLegacyStore(const std::filesystem::path& folder, const std::string& clientId,
                              const std::string& serverUri, MessageStore& store,
                              const MessageStore::Log& log);

}  // namespace ndpx
