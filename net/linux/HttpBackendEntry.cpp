// ndpx_http.so's one export: HttpRequest over libcurl for the module that
// opens it.
#include "net/HttpBackend.h"
#include "net/linux/CurlHttpRequest.h"

#include <mfw/moduleLog.h>

namespace {

ndpx::net::HttpRequest* newRequest() {
    return new ndpx::net::CurlHttpRequest();
}

const ndpx::net::HttpBackendTable kTable{{ndpx::net::kHttpBackendVersion}, &newRequest};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ndpx::platform::BackendTable*
ndpxBackendEntry(const char* logSource) {
    // This copy of the module's log code writes under the loader's name.
    CORE::setModuleSourceName(logSource != nullptr ? logSource : "ndpx");
    return &kTable.header;
}
