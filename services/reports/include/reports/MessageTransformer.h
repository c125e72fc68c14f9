#pragma once
// Edits made to what the desktop manager returns before it leaves the
// agent: fields the control plane must not get are taken out of session
// reports, and the answer to "StartSession" gets the address and listener
// ports a client connects to.

#include <mfw/PropertyBag.h>

#include <functional>
#include <string>

namespace ndpx {

class mqttConfig;

namespace MessageTransformer {

// The machine's own address, by default the platform's.
using AddressSource = std::function<std::string()>;

// Removes "mqtt_UnwantedFields" from the report's top level and
// "mqtt_UnwantedSessionFields" from each of its "SESSION" bags.
void UpdateSessionReport(CORE::PropertyBag& bag, mqttConfig& config);

// Sets "HOST" in the reply's "PROTOCOL" bag unless one is there: the
// configured external address, else the machine's own. Nothing on an error.
void AddHostAddress(CORE::PropertyBag& bag, mqttConfig& config,
                    const AddressSource& ownAddress = {});

// Adds a "LISTENERS" bag (name -> port) from the listener settings. Nothing
// on an error.
void AddListenerPorts(CORE::PropertyBag& bag, mqttConfig& config);

}  // namespace MessageTransformer
}  // namespace ndpx
