// Waiting for a provisioning file: created, already there, interrupted.

#include "support/TempDir.h"

#include <platform/FileCreationWaiter.h>

#include <gtest/gtest.h>

#include <fstream>
#include <future>

namespace ndpx::platform {
namespace {

using Result = FileCreationWaiter::Result;

TEST(FileCreationWaiter, ReturnsWhenTheFileAppearsOrAtOnceIfItExists) {
    test::TempDir dir;
    const auto file = dir.path() / "spec.json";
    FileCreationWaiter waiter;
    auto pending = std::async(std::launch::async, [&] {
        std::string error;
        int step = 0;
        return waiter.wait(file, error, step);
    });
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    std::ofstream(dir.path() / "other.txt") << "x";  // another file does not end the wait
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    std::ofstream(file) << "{}";
    ASSERT_EQ(pending.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(pending.get(), Result::Created);

    std::string error;
    int step = 0;
    EXPECT_EQ(waiter.wait(file, error, step), Result::Created);
}

TEST(FileCreationWaiter, InterruptEndsTheWaitAndMissingDirectoryFails) {
    test::TempDir dir;
    FileCreationWaiter waiter;
    auto pending = std::async(std::launch::async, [&] {
        std::string error;
        int step = 0;
        return waiter.wait(dir.path() / "never", error, step);
    });
    waiter.interrupt();
    ASSERT_EQ(pending.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(pending.get(), Result::Interrupted);
    waiter.reset();

    std::string error;
    int step = 0;
    EXPECT_EQ(waiter.wait(dir.path() / "no-such-dir" / "file", error, step), Result::Failed);
    EXPECT_EQ(step, 1);
    EXPECT_FALSE(error.empty());
}

}  // namespace
}  // namespace ndpx::platform
