#include "LoadedZoneDatabase.h"

#include "ZoneBackendAccess.h"

namespace ndpx {
namespace {

// The backend's database; null without the backend.
const ZoneDatabase* database() {
    static const ZoneDatabase* const db = [] {
        const ZoneBackendTable* table = zonebackend::table();
        return table != nullptr ? table->database() : nullptr;
    }();
    return db;
}

}  // namespace

std::string LoadedZoneDatabase::location() const {
    const ZoneDatabase* db = database();
    return db != nullptr ? db->location() : zonebackend::failure();
}

bool LoadedZoneDatabase::isOpen() const {
    const ZoneDatabase* db = database();
    return db != nullptr && db->isOpen();
}

std::optional<std::size_t> LoadedZoneDatabase::keyCount() const {
    const ZoneDatabase* db = database();
    return db != nullptr ? db->keyCount() : std::nullopt;
}

std::optional<std::string> LoadedZoneDatabase::keyName(std::size_t index) const {
    const ZoneDatabase* db = database();
    return db != nullptr ? db->keyName(index) : std::nullopt;
}

bool LoadedZoneDatabase::hasKey(const std::string& key) const {
    const ZoneDatabase* db = database();
    return db != nullptr && db->hasKey(key);
}

std::optional<std::string> LoadedZoneDatabase::text(const std::string& key,
                                                    const std::string& value) const {
    const ZoneDatabase* db = database();
    return db != nullptr ? db->text(key, value) : std::nullopt;
}

std::optional<ZoneRules> LoadedZoneDatabase::rules(const std::string& key) const {
    const ZoneDatabase* db = database();
    return db != nullptr ? db->rules(key) : std::nullopt;
}

}  // namespace ndpx
