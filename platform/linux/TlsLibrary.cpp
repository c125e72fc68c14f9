#include <platform/TlsLibrary.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/ssl.h>

#include <mutex>

namespace ndpx::platform::tls {
namespace {

std::mutex g_mutex;
bool g_fipsRequested = false;
OSSL_PROVIDER* g_fips = nullptr;
OSSL_PROVIDER* g_base = nullptr;
OSSL_PROVIDER* g_default = nullptr;

void unloadLockHeld() {
    for (OSSL_PROVIDER** p : {&g_fips, &g_base, &g_default}) {
        if (*p != nullptr) {
            OSSL_PROVIDER_unload(*p);
            *p = nullptr;
        }
    }
}

}  // namespace

void initialize() {
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
}

void requestFips(bool on) {
    std::lock_guard lock(g_mutex);
    g_fipsRequested = on;
}

bool completeSetup() {
    {
        std::lock_guard lock(g_mutex);
        unloadLockHeld();
        if (g_fipsRequested) {
            g_fips = OSSL_PROVIDER_load(nullptr, "fips");
            if (g_fips == nullptr) {
                ERR_clear_error();  // the failed load left its reasons on the queue
            } else {
                g_base = OSSL_PROVIDER_load(nullptr, "base");
                EVP_default_properties_enable_fips(nullptr, 1);
            }
        }
        if (g_fips == nullptr) {
            // No FIPS provider on this machine (or not asked for): the agent
            // must keep working, in the default mode.
            g_default = OSSL_PROVIDER_load(nullptr, "default");
            EVP_default_properties_enable_fips(nullptr, 0);
        }
    }
    return isFipsMode();
}

bool isFipsMode() {
    return OSSL_PROVIDER_available(nullptr, "fips") == 1 &&
           EVP_default_properties_is_fips_enabled(nullptr) == 1;
}

void cleanup() {
    std::lock_guard lock(g_mutex);
    unloadLockHeld();
}

}  // namespace ndpx::platform::tls
