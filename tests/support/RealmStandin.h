#pragma once
// Puts the stand-in `realm` (tests/support/realm-standin, which says what it
// records and how it answers) first on PATH for the life of the object, with
// a fresh folder for its records and answers. Link ndpx_realm_standin.

#include "support/TempDir.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>
#include <string>

namespace ndpx::test {

class RealmStandin {
public:
    RealmStandin() {
        const char* path = ::getenv("PATH");
        savedPath_ = path != nullptr ? path : "/usr/bin:/bin";
        ::setenv("REALM_STANDIN_DIR", dir_.path().c_str(), 1);
        ::setenv("PATH", (std::string(NDPX_REALM_STANDIN_BIN) + ":" + savedPath_).c_str(), 1);
    }
    ~RealmStandin() {
        ::setenv("PATH", savedPath_.c_str(), 1);
        ::unsetenv("REALM_STANDIN_DIR");
    }
    RealmStandin(const RealmStandin&) = delete;
    RealmStandin& operator=(const RealmStandin&) = delete;

    // "ok", "fail", "already" or "hang".
    void setJoinMode(const std::string& mode) { std::ofstream(dir_.path() / "join-mode") << mode; }
    void setList(const std::string& text) { std::ofstream(dir_.path() / "list") << text; }
    // A record of the calls ("calls", "join.args", "join.stdin", "join.env",
    // "list.args"); empty when there is none.
    std::string record(const std::string& name) const {
        std::stringstream text;
        text << std::ifstream(dir_.path() / name).rdbuf();
        return text.str();
    }

private:
    TempDir dir_;
    std::string savedPath_;
};

}  // namespace ndpx::test
