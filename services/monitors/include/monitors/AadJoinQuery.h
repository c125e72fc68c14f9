#pragma once
// The seam onto the system's Azure AD join state. Linux cannot tell it: its
// backend (linux/AadJoinQuery.cpp) reports the query as unavailable.

#include <memory>
#include <string>

namespace ndpx {

enum class AadJoinType { None, Device, Workplace, Unknown };

struct AadJoinInfo {
    // The query itself failed; `error` holds the system's text.
    bool failed = false;
    AadJoinType type = AadJoinType::None;  // None: the system returned no join information
    std::string deviceId{};
    std::string error{};
};

class AadJoinQuery {
public:
    virtual ~AadJoinQuery() = default;
    // Whether the join state can be queried here at all. Called once, by the
    // monitor's Init(), which the backend's log lines are named after.
    virtual bool available() = 0;
    // Called by the poll thread and by the owner's direct question, possibly
    // at once.
    virtual AadJoinInfo query() = 0;
};

// This system's backend.
std::unique_ptr<AadJoinQuery> makeAadJoinQuery();

}  // namespace ndpx
