#include "Provision.h"

#include "AgentTrust.h"
#include "OtpStore.h"
#include "devca/DevCa.h"
#include "devcloud/Home.h"

#include <json/json.h>
#include <sys/stat.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace ndpx::devcloud {
namespace {

namespace fs = std::filesystem;

void require(const std::string& value, const char* what) {
    if (value.empty()) {
        throw std::invalid_argument(std::string("devcloud: ") + what + " must not be empty");
    }
}

// Creates `dir` (and missing parents) with mode 0700 for what is created; an
// existing directory is left as it is.
void makePrivateDirectory(const fs::path& dir) {
    if (dir.empty() || fs::is_directory(dir)) {
        return;
    }
    makePrivateDirectory(dir.parent_path());
    if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
        throw std::runtime_error("devcloud: cannot create " + dir.string() + ": " +
                                 std::generic_category().message(errno));
    }
}

}  // namespace

std::string agentIdentity(const std::string& edgeId, const std::string& shortTemplateId,
                          const std::string& vmId) {
    return edgeId + shortTemplateId + "_" + vmId;
}

fs::path cloudProvisioningFile(const fs::path& agentRoot) {
    return agentRoot / "AzureData" / "CustomData.bin";
}

ProvisionResult provision(const ProvisionRequest& r) {
    require(r.vmId, "the vm id");
    require(r.edgeId, "the edge id");
    require(r.shortTemplateId, "the short template id");
    require(r.url, "the credential service URL");
    if (r.url.rfind("https://", 0) != 0) {
        throw std::invalid_argument(
            "devcloud: the credential service URL must be https:// "
            "(the agent speaks HTTPS only)");
    }
    if (r.specFile.empty() && r.agentRoot.empty()) {
        throw std::invalid_argument("devcloud: give the agent's root or a spec file");
    }

    ProvisionResult result;
    result.agentIdentity = agentIdentity(r.edgeId, r.shortTemplateId, r.vmId);
    result.bootstrapTopic =
        r.bootstrapTopic.empty() ? "desktop/bootstrap/" + result.agentIdentity : r.bootstrapTopic;
    result.specFile =
        fs::absolute(r.specFile.empty() ? cloudProvisioningFile(r.agentRoot) : r.specFile);

    // Trusted before the agent can pair, so that it never holds a
    // certificate it could not renew.
    if (!r.agentRoot.empty()) {
        result.trustStore = trustCa(r.agentRoot, Home(r.devcloudDir).loadCa());
    }

    // The password is on record before the agent can see it, so an agent
    // that pairs at once is not refused.
    OtpStore store(r.devcloudDir);
    const std::string otp = store.issue({r.vmId, result.agentIdentity, result.bootstrapTopic});

    Json::Value spec(Json::objectValue);
    spec["name"] = r.name.empty() ? r.vmId : r.name;
    spec["shortTemplateId"] = r.shortTemplateId;
    spec["vmId"] = r.vmId;
    spec["edgeGateway"]["id"] = r.edgeId;
    spec["nexHub"]["url"] = r.url;
    spec["nexHub"]["oneTimePassword"] = otp;
    for (const auto& [key, value] :
         {std::pair{"server", &r.proxyServer}, std::pair{"bypass", &r.proxyBypass},
          std::pair{"autoConfig", &r.proxyAutoConfig}}) {
        if (!value->empty()) {
            spec["proxyInfo"][key] = *value;
        }
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "  ";
    try {
        makePrivateDirectory(result.specFile.parent_path());
        // mode 0600, temp file in the same directory + rename: the agent
        // never reads a half-written document.
        if (!devca::writePrivateFile(result.specFile.string(),
                                     Json::writeString(writer, spec) + "\n")) {
            throw std::runtime_error("devcloud: cannot write " + result.specFile.string() + ": " +
                                     std::generic_category().message(errno));
        }
        result.writtenAt = std::chrono::system_clock::now();
    } catch (...) {
        try {
            store.withdraw(otp);
        } catch (const std::exception&) {
            // The write failure is the news; an unused entry does no harm.
        }
        throw;
    }
    return result;
}

}  // namespace ndpx::devcloud
