#pragma once
// The client library's persistence interface, served by a MessageStore in
// the persistence folder in place of the library's one-file-per-message
// store. The library keeps a pointer to `callbacks` for the client's whole
// life: the owner destroys the client before this.

#include "mqtt/MessageStore.h"

#include <MQTTClientPersistence.h>

#include <filesystem>
#include <memory>

namespace ndpx {

class PahoPersistence {
public:
    PahoPersistence(std::filesystem::path folder, MessageStore::Log log);
    PahoPersistence(const PahoPersistence&) = delete;
    PahoPersistence& operator=(const PahoPersistence&) = delete;

    // What to hand the library with MQTTCLIENT_PERSISTENCE_USER.
    MQTTClient_persistence* callbacks() { return &callbacks_; }

    // The store's file for a client.
    static std::filesystem::path storeFile(const std::filesystem::path& folder,
                                           const std::string& clientId,
                                           const std::string& serverUri);

private:
    static int open(void** handle, const char* clientId, const char* serverUri, void* context);
    static int close(void* handle);
    static int put(void* handle, char* key, int count, char* buffers[], int lengths[]);
    static int get(void* handle, char* key, char** buffer, int* length);
    static int remove(void* handle, char* key);
    static int keys(void* handle, char*** keys, int* count);
    static int clear(void* handle);
    static int containsKey(void* handle, char* key);

    const std::filesystem::path folder_;
    const MessageStore::Log log_;
    MQTTClient_persistence callbacks_{};
    std::unique_ptr<MessageStore> store_;
};

}  // namespace ndpx
