#pragma once
// Process-wide set-up of the TLS library (OpenSSL 3), with the FIPS switch.

namespace ndpx::platform::tls {

// Initialises the library (idempotent).
void initialize();
// Asks for FIPS mode: completeSetup() then loads the FIPS provider and turns
// on FIPS default properties. Without a FIPS provider installed the library
// stays in its default mode.
void requestFips(bool on);
// Loads the provider(s) chosen by requestFips. Returns isFipsMode().
bool completeSetup();
// True when the "fips" provider is available and FIPS default properties are on.
bool isFipsMode();
// Releases the providers loaded by completeSetup().
void cleanup();

}  // namespace ndpx::platform::tls
