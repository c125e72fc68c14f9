#pragma once
// The HTTPS client's backend: HttpRequest over libcurl lives in ndpx_http.so,
// next to the module, opened on the first request (pairing and certificate
// renewal are hours apart, and an idle agent need not map libcurl and the
// libraries it pulls in).

#include "net/HttpRequest.h"

#include <platform/Backend.h>

#include <cstdint>

namespace ndpx::net {

inline constexpr const char* kHttpBackendStem = "ndpx_http";
inline constexpr std::uint32_t kHttpBackendVersion = 1;

// What ndpx_http.so's entry point returns.
struct HttpBackendTable {
    platform::BackendTable header;
    // A fresh request, checked against the machine's trusted roots; the
    // caller owns it.
    HttpRequest* (*newRequest)();
};

// A fresh request over the backend; null when the backend cannot be opened
// (the log says why, once), which a caller treats as a failed exchange.
HttpRequestPtr makeHttpRequest();

}  // namespace ndpx::net
