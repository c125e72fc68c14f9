#pragma once
// What the template handler needs from the MQTT session: the status
// publication, the reboot request and the change of the agent's IDs.

#include <string>

namespace ndpx {

class TemplateHost {
public:
    virtual ~TemplateHost() = default;
    // detailKind: 0 none, 1 an error text ("errMsg"), 2 a device ID.
    virtual void publishTemplateStatus(const std::string& status, int detailKind,
                                       const std::string& detail) = 0;
    // The machine restarts to finish a domain join.
    virtual void requestSystemReboot() = 0;
    // The control plane gave the desktop new edge and template IDs.
    virtual void updateIDs(const std::string& edgeId, const std::string& shortTemplateId) = 0;
};

}  // namespace ndpx
