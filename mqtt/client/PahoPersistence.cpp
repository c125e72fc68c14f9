#include "PahoPersistence.h"

#include "mqtt/LegacyStore.h"

#include <MQTTAsync.h>

#include <cstring>
#include <vector>

namespace ndpx {
namespace {

constexpr int kOk = 0;
constexpr int kError = MQTTCLIENT_PERSISTENCE_ERROR;

MessageStore* storeOf(void* handle) {
    return static_cast<MessageStore*>(handle);
}

// The library frees what it is given through its own allocator, which may
// keep books on every block: memory it is handed comes from that allocator.
void* libraryAlloc(std::size_t bytes) {
    return MQTTAsync_malloc(bytes);
}

char* mallocCopy(const std::string& text) {
    auto* out = static_cast<char*>(libraryAlloc(text.size() + 1));
    if (out != nullptr) {
        std::memcpy(out, text.data(), text.size());
        out[text.size()] = '\0';
    }
    return out;
}

std::string fileSafe(const std::string& text) {
    std::string out = text;
    for (char& c : out) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '.' || c == '_';
        if (!plain) {
            c = '-';
        }
    }
    return out;
}

}  // namespace

PahoPersistence::PahoPersistence(std::filesystem::path folder, MessageStore::Log log)
    : folder_(std::move(folder)), log_(std::move(log)) {
    callbacks_.context = this;
    callbacks_.popen = &PahoPersistence::open;
    callbacks_.pclose = &PahoPersistence::close;
    callbacks_.pput = &PahoPersistence::put;
    callbacks_.pget = &PahoPersistence::get;
    callbacks_.premove = &PahoPersistence::remove;
    callbacks_.pkeys = &PahoPersistence::keys;
    callbacks_.pclear = &PahoPersistence::clear;
    callbacks_.pcontainskey = &PahoPersistence::containsKey;
}

std::filesystem::path PahoPersistence::storeFile(const std::filesystem::path& folder,
                                                 const std::string& clientId,
                                                 const std::string& serverUri) {
    return folder / ("mqtt-" + fileSafe(clientId) + "-" + fileSafe(serverUri) + ".store");
}

int PahoPersistence::open(void** handle, const char* clientId, const char* serverUri,
                          void* context) {
    auto* self = static_cast<PahoPersistence*>(context);
    const std::string id = clientId != nullptr ? clientId : "";
    const std::string uri = serverUri != nullptr ? serverUri : "";
    std::string error;
    const auto file = storeFile(self->folder_, id, uri);
    self->store_ = MessageStore::open(file, self->log_, error);
    if (!self->store_) {
        self->log_("Unable to open the message store " + file.string() + ": " + error);
        return kError;
    }
    importLegacyStore(self->folder_, id, uri, *self->store_, self->log_);
    *handle = self->store_.get();
    return kOk;
}

int PahoPersistence::close(void* handle) {
    (void)handle;  // the store goes with its owner, after the client
    return kOk;
}

int PahoPersistence::put(void* handle, char* key, int count, char* buffers[], int lengths[]) {
    MessageStore* store = storeOf(handle);
    if (store == nullptr || key == nullptr || count < 0) {
        return kError;
    }
    std::vector<std::string_view> parts;
    parts.reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        parts.emplace_back(buffers[i], static_cast<std::size_t>(lengths[i]));
    }
    return store->put(key, parts) ? kOk : kError;
}

int PahoPersistence::get(void* handle, char* key, char** buffer, int* length) {
    MessageStore* store = storeOf(handle);
    const auto value = store != nullptr && key != nullptr ? store->get(key) : std::nullopt;
    if (!value) {
        return kError;
    }
    *buffer = mallocCopy(*value);
    *length = static_cast<int>(value->size());
    return *buffer != nullptr ? kOk : kError;
}

int PahoPersistence::remove(void* handle, char* key) {
    MessageStore* store = storeOf(handle);
    return store != nullptr && key != nullptr && store->remove(key) ? kOk : kError;
}

int PahoPersistence::keys(void* handle, char*** keys, int* count) {
    MessageStore* store = storeOf(handle);
    if (store == nullptr) {
        return kError;
    }
    const std::vector<std::string> all = store->keys();
    *keys = nullptr;
    *count = 0;
    if (all.empty()) {
        return kOk;
    }
    auto** out = static_cast<char**>(libraryAlloc(all.size() * sizeof(char*)));
    if (out == nullptr) {
        return kError;
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
        out[i] = mallocCopy(all[i]);
        if (out[i] == nullptr) {
            for (std::size_t j = 0; j < i; ++j) {
                MQTTAsync_free(out[j]);
            }
            MQTTAsync_free(static_cast<void*>(out));
            return kError;
        }
    }
    *keys = out;
    *count = static_cast<int>(all.size());
    return kOk;
}

int PahoPersistence::clear(void* handle) {
    MessageStore* store = storeOf(handle);
    return store != nullptr && store->clear() ? kOk : kError;
}

int PahoPersistence::containsKey(void* handle, char* key) {
    MessageStore* store = storeOf(handle);
    return store != nullptr && key != nullptr && store->contains(key) ? kOk : kError;
}

}  // namespace ndpx
