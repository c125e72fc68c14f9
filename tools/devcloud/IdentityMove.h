#pragma once
// Moving a desktop to new IDs, as the control plane orders it: the move goes
// on record (so that the renewer grants a certificate for the new identity),
// then the desktop is told its IDs on its template topic.

#include "OtpStore.h"

#include <filesystem>
#include <string>

namespace ndpx::devcloud {

// {"msgType": "SET_ID", "edgeId", "templateId"}
std::string setIdMessage(const std::string& edgeId, const std::string& shortTemplateId);

// Records the move of the paired desktop `desktopId` (as in its topics) to
// the new IDs in the store in `dir`, and returns the new grant; its
// bootstrap topic is `bootstrapTopic`, by default that of the new identity.
// Throws std::runtime_error when no pairing of the desktop is on record.
OtpGrant orderMove(const std::filesystem::path& dir, const std::string& desktopId,
                   const std::string& edgeId, const std::string& shortTemplateId,
                   const std::string& bootstrapTopic = {});

}  // namespace ndpx::devcloud
