#pragma once
// The outcome of an IpcClient call: a code to branch on and a sentence to
// show a person. Success is IpcErrc::Ok with an empty message.

#include <string>

namespace ndpx::ipcclient {

enum class IpcErrc {
    Ok,
    NotConnected,     // no connection: call connect first
    NoListener,       // nothing listens at the socket: the agent is not running
    Denied,           // the system denied access to the socket file
    Refused,          // the bridge closed the connection before its first message:
                      // this program is (most likely) not in the include list
    Closed,           // the bridge closed the connection later (the agent stopped)
    TimedOut,         // nothing came within the time given
    Stopped,          // stop() was called, or the stop handle became readable
    InvalidArgument,  // refused here, nothing sent: empty topic, qos not 0..2, ...
    TooLarge,         // a message above kMaxMessageBytes (nothing sent, or skipped)
    Malformed,        // the bridge sent something outside the protocol; skipped,
                      // the connection stays usable
    Failed,           // a system call failed; the message says which and why
};

struct IpcError {
    IpcErrc code = IpcErrc::Ok;
    std::string message;

    bool ok() const { return code == IpcErrc::Ok; }
};

}  // namespace ndpx::ipcclient
