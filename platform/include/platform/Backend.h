#pragma once
// A backend: code with heavy library dependencies (ICU, libcurl) kept in its
// own shared object next to the module that uses it and opened on first use,
// so that a process which never needs it never maps those libraries. Once
// opened it stays for the process's life: the libraries it pulls in cannot
// be unloaded safely.
//
// A backend exports one C function, kBackendEntryName, of type BackendEntry.
// It sets the backend up for the module that loaded it (log lines carry that
// module's source name) and returns the backend's table of entry points,
// whose first member is a BackendTable with the table's version.

#include <platform/SharedLibrary.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace ndpx::platform {

struct BackendTable {
    std::uint32_t version = 0;
};

extern "C" {
using BackendEntry = const BackendTable* (*)(const char* logSource);
}
inline constexpr const char* kBackendEntryName = "ndpxBackendEntry";

class BackendModule {
public:
    using FailureLog = std::function<void(const std::string& reason)>;

    // `stem`: the backend's file name without suffix; `version`: the table
    // version this build expects; `onFailure` is told, once, why the backend
    // cannot be used.
    BackendModule(std::string stem, std::uint32_t version, FailureLog onFailure);

    // The backend's table, opened on the first call from the folder of the
    // module that holds `anchor`; null, on this and every later call, when it
    // cannot be opened, lacks the entry or has another version.
    const BackendTable* table(const void* anchor, const char* logSource);

private:
    const BackendTable* open(const void* anchor, const char* logSource, std::string& error);

    const std::string stem_;
    const std::uint32_t version_;
    const FailureLog onFailure_;
    std::once_flag once_;
    SharedLibrary library_;
    const BackendTable* table_ = nullptr;
};

}  // namespace ndpx::platform
