#pragma once
// Provisioning a desktop for pairing: a fresh one-time password recorded in
// the credential service's store, and the provisioning document (LCM spec)
// that tells the agent its identity, where to pair and with which password,
// written where the agent looks for it. A desktop provisioned in its root
// also trusts the devcloud CA (see AgentTrust.h), so that it can renew its
// certificate once its pairing pin is gone.

#include <chrono>
#include <filesystem>
#include <string>

namespace ndpx::devcloud {

struct ProvisionRequest {
    std::filesystem::path devcloudDir;  // holds the one-time password store
    std::filesystem::path agentRoot;    // the agent's root prefix; empty: trust nothing
    std::filesystem::path specFile;     // empty: the cloud-provisioning file under agentRoot
    std::string url;                    // the credential service URL the agent posts to
    std::string vmId;
    std::string edgeId;
    std::string shortTemplateId;
    std::string name;            // empty: the vmId
    std::string bootstrapTopic;  // empty: desktop/bootstrap/<identity>
    // The proxy the agent must use for the credential request; each is
    // written to "proxyInfo" only when not empty.
    std::string proxyServer;
    std::string proxyBypass;
    std::string proxyAutoConfig;  // PAC script URL
};

struct ProvisionResult {
    std::string agentIdentity;
    std::string bootstrapTopic;
    std::filesystem::path specFile;
    std::string trustStore;  // the certificate store given the CA; empty: none
    // When the document was in place: the agent may read and remove it at once.
    std::chrono::system_clock::time_point writtenAt;
};

// edge id + short template id + "_" + vm id
std::string agentIdentity(const std::string& edgeId, const std::string& shortTemplateId,
                          const std::string& vmId);
// AGENTROOT/AzureData/CustomData.bin
std::filesystem::path cloudProvisioningFile(const std::filesystem::path& agentRoot);

// Trusts the CA under agentRoot (when given), records the password, then
// writes the document (mode 0600, atomically; a missing directory is created
// 0700). Throws std::invalid_argument for
// missing or unusable values and std::runtime_error when a file cannot be
// written (the password is then withdrawn). The password appears in the
// document only, never in the result.
ProvisionResult provision(const ProvisionRequest& request);

}  // namespace ndpx::devcloud
