#pragma once
// Asks the system to restart the machine (a domain join takes effect only
// after one). The request returns once the system has taken it.

#include <string>

namespace ndpx::platform {

// False, with the reason in `error`, when the system cannot be asked or
// refuses.
bool requestSystemReboot(std::string& error);

}  // namespace ndpx::platform
