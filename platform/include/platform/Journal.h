#pragma once
// The system journal: entries of named fields sent to the journal's socket.

#include <memory>
#include <string>
#include <vector>

namespace ndpx::platform {

inline constexpr const char* kDefaultJournalSocket = "/run/systemd/journal/socket";

// Names are upper-case letters, digits and '_', not starting with '_'.
struct JournalField {
    std::string name;
    std::string value;
};

struct JournalResult {
    bool written = false;
    // The entry was too large for the socket and "MESSAGE" was shortened.
    bool truncated = false;
    int error = 0;  // errno of the failed write
};

class Journal {
public:
    virtual ~Journal() = default;
    // Writes one entry without blocking: a journal that is absent, or too
    // busy to take it now, fails the write.
    virtual JournalResult write(const std::vector<JournalField>& fields) = 0;
};

// A journal reached through the Unix datagram socket at `socketPath`.
std::unique_ptr<Journal> makeJournal(std::string socketPath = kDefaultJournalSocket);

// The socket's wire form of one entry: "NAME=value\n" per field, and for a
// value holding a line feed "NAME\n", its length as 64-bit little-endian,
// the value and "\n".
std::string encodeJournalEntry(const std::vector<JournalField>& fields);

}  // namespace ndpx::platform
