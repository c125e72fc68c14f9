// The zone backend is opened from the folder of the code that asks for it
// (the build links it next to this test program). One that is missing or of
// another version leaves the caller without it, said once, without a crash.

#include "timezone/ZoneBackend.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace ndpx {
namespace {

const int kAnchor = 0;  // an address inside this program

TEST(ZoneBackendTest, OpensNextToItsUserAndRefusesAMissingOrOtherVersion) {
    std::vector<std::string> reasons;
    const auto note = [&](const std::string& reason) { reasons.push_back(reason); };

    platform::BackendModule missing("ndpx_no_such_backend", kZoneBackendVersion, note);
    EXPECT_EQ(missing.table(&kAnchor, "test"), nullptr);
    EXPECT_EQ(missing.table(&kAnchor, "test"), nullptr);
    ASSERT_EQ(reasons.size(), 1u);
    EXPECT_NE(reasons[0].find("ndpx_no_such_backend.so"), std::string::npos) << reasons[0];

    platform::BackendModule newer(kZoneBackendStem, kZoneBackendVersion + 1, note);
    EXPECT_EQ(newer.table(&kAnchor, "test"), nullptr);
    ASSERT_EQ(reasons.size(), 2u);
    EXPECT_NE(reasons[1].find("is version " + std::to_string(kZoneBackendVersion)),
              std::string::npos)
        << reasons[1];

    platform::BackendModule zones(kZoneBackendStem, kZoneBackendVersion, note);
    const auto* table =
        reinterpret_cast<const ZoneBackendTable*>(zones.table(&kAnchor, "timezone_tests"));
    ASSERT_NE(table, nullptr);
    EXPECT_TRUE(table->database()->hasKey("India Standard Time"));
    EXPECT_EQ(reasons.size(), 2u);
}

}  // namespace
}  // namespace ndpx
