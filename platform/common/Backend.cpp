#include <platform/Backend.h>

#include <filesystem>
#include <utility>

namespace ndpx::platform {

BackendModule::BackendModule(std::string stem, std::uint32_t version, FailureLog onFailure)
    : stem_(std::move(stem)), version_(version), onFailure_(std::move(onFailure)) {}

const BackendTable* BackendModule::table(const void* anchor, const char* logSource) {
    // call_once publishes table_ to every caller that returns from it.
    std::call_once(once_, [&] {
        std::string error;
        table_ = open(anchor, logSource, error);
        if (table_ == nullptr && onFailure_) {
            onFailure_(error);
        }
    });
    return table_;
}

const BackendTable* BackendModule::open(const void* anchor, const char* logSource,
                                        std::string& error) {
    LoadedModule self;
    if (!moduleContaining(anchor, self) || self.path.empty()) {
        error = "the loading module's own file is unknown";
        return nullptr;
    }
    const std::string path =
        (std::filesystem::path(self.path).parent_path() / moduleFileName(stem_)).string();
    if (!library_.load(path, error, SharedLibrary::Residency::Permanent)) {
        return nullptr;
    }
    const auto entry = reinterpret_cast<BackendEntry>(library_.symbol(kBackendEntryName));
    if (entry == nullptr) {
        error = path + " exports no " + kBackendEntryName;
        return nullptr;
    }
    const BackendTable* table = entry(logSource);
    if (table == nullptr || table->version != version_) {
        error = path + " is version " + std::to_string(table != nullptr ? table->version : 0) +
                ", not " + std::to_string(version_);
        return nullptr;
    }
    return table;
}

}  // namespace ndpx::platform
