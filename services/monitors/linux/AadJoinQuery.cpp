// Linux has no Azure AD join state to ask for: the query is never available,
// and the monitor's Init() logs that it could not load the system's API.

#include "monitors/AadJoinQuery.h"

#include <mfw/moduleLog.h>

namespace ndpx {
namespace {

class UnavailableAadJoinQuery : public AadJoinQuery {
public:
    bool available() override {
        MFW_LOG(CORE::kLogWarning, "AzureADMonitor::Init(): Failed to load Netpi32.dll");
        return false;
    }
    AadJoinInfo query() override {
        return {.failed = true, .error = "Azure AD join status cannot be queried on Linux"};
    }
};

}  // namespace

std::unique_ptr<AadJoinQuery> makeAadJoinQuery() {
    return std::make_unique<UnavailableAadJoinQuery>();
}

}  // namespace ndpx
