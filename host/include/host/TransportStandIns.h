#pragma once
// Stand-ins for the agent's message-transport side, so that a migration from
// the older transport can be walked on a machine without the full agent:
// - the notify queue, kept by the desktop manager: the workers that receive
//   the agent's notifications, and the registered message transport, which
//   is kept in the setting "MS Transport" (so a commit shows in the settings);
// - "JMSBridge", the older transport's worker;
// - "DaasAgent", the old cloud agent plug-in, which a commit tells to switch
//   itself off ("ShutdownNotify" with "DISABLE" = "1").
// Each logs what it receives and answers success.

#include <mfw/PropertyBag.h>

#include <string>
#include <vector>

namespace ndpx::host {

// Registers "JMSBridge" and "DaasAgent".
void addTransportStandIns();

// "NotifyQueueAdd", "NotifyQueueRemove", "NotifyQueueRegisterMessageTransport"
// (each naming its queue in "QUEUE"), sent to the desktop manager. False when
// `operation` is none of them.
bool handleNotifyQueueMessage(const std::wstring& operation, const CORE::PropertyBag& request,
                              CORE::PropertyBag& response);

// The queues now in the notify queue, in name order.
std::vector<std::wstring> notifyQueueMembers();

}  // namespace ndpx::host
