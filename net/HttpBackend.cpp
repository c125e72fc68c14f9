#include "net/HttpBackend.h"

#include <mfw/moduleLog.h>

namespace ndpx::net {
namespace {

const HttpBackendTable* backend() {
    static platform::BackendModule module(
        kHttpBackendStem, kHttpBackendVersion, [](const std::string& reason) {
            MFW_LOG(CORE::kLogError, "HTTPS client unavailable, its backend %s cannot be used: %s",
                    kHttpBackendStem, reason.c_str());
        });
    // The loader's own address names the module that links this code.
    return reinterpret_cast<const HttpBackendTable*>(
        module.table(&module, CORE::moduleSourceName()));
}

}  // namespace

HttpRequestPtr makeHttpRequest() {
    const HttpBackendTable* table = backend();
    if (table == nullptr) {
        return nullptr;
    }
    return HttpRequestPtr(table->newRequest());
}

}  // namespace ndpx::net
