#pragma once
// The checks IpcClient makes before it sends, so that a mistake the bridge
// would only log is reported to the caller; callers may also use them to
// judge their input before connecting. InvalidArgument and the reason.

#include <ipcclient/IpcError.h>

#include <string>
#include <string_view>
#include <vector>

namespace ndpx::ipcclient {

// A publish: the topic not empty, UTF-8, without NUL or wildcard (+ or #);
// qos 0, 1 or 2.
IpcError checkPublish(std::string_view topic, int qos);
// Subscribe filters: at least one; each not empty, UTF-8, no NUL and no comma
// (commas separate them on the wire).
IpcError checkSubscribe(const std::vector<std::string>& topics);

}  // namespace ndpx::ipcclient
