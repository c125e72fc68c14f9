#pragma once
// The system's side of the connection to the bridge, as a seam: a
// message-preserving local socket (AF_UNIX SOCK_SEQPACKET on Linux), and
// sends and receives whose waits end at a deadline or when a stop handle
// becomes readable.

#include <ipcclient/IpcError.h>
#include <platform/UniqueFd.h>

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace ndpx::ipcclient::detail {

using Clock = std::chrono::steady_clock;

// Descriptors whose readability ends a wait (-1: none).
struct StopHandles {
    int first = -1;
    int second = -1;
};

// Nothing (and `error`: NoListener, Denied or Failed) when it cannot connect.
platform::UniqueFd connectBridge(const std::filesystem::path& path, IpcError& error);

// Sends one message whole. Closed (without a message) when the bridge is gone.
IpcError sendPacket(int fd, std::string_view packet, Clock::time_point deadline, StopHandles stops);

// Receives one message into `buffer` (its size is the largest taken) and sets
// `size`. Closed (without a message) when the bridge closed the connection;
// TooLarge when the message did not fit (it is dropped).
IpcError receivePacket(int fd, std::vector<char>& buffer, std::size_t& size,
                       Clock::time_point deadline, StopHandles stops);

// True when a message from the bridge waits unread.
bool messageWaiting(int fd);

// The base name of this process's executable, the name the include list is
// keyed by ("" when the system cannot say).
std::string executableBaseName();

}  // namespace ndpx::ipcclient::detail
