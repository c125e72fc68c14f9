// Waiting for a provisioning file: created, already there, interrupted;
// polling when no inotify instance can be had.

#include "support/FdLimit.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <platform/FileCreationWaiter.h>
#include <platform/SettingsStore.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
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

// No descriptor left for inotify: the waiter says why once, polls, finds a
// file renamed into place (rename needs no descriptor) and still ends at once
// on an interrupt.
TEST(FileCreationWaiter, WithoutInotifyItPollsAfterSayingWhyAndStillEndsAtOnce) {
    if (test::FdLimit::kSanitizerNeedsDescriptors) {
        GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own";
    }
    test::TempDir dir;
    const auto file = dir.path() / "spec.json";
    std::ofstream(dir.path() / "spec.tmp") << "{}";
    FileCreationWaiter waiter;
    const test::FdLimit noMoreFds(0);
    std::vector<std::string> reasons;
    const auto waitFor = [&](const std::filesystem::path& f) {
        return std::async(std::launch::async, [&, f] {
            std::string error;
            int step = 0;
            return waiter.wait(f, error, step,
                               [&](const std::string& why) { reasons.push_back(why); });
        });
    };
    auto created = waitFor(file);
    EXPECT_EQ(created.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    ASSERT_EQ(std::rename((dir.path() / "spec.tmp").c_str(), file.c_str()), 0);
    ASSERT_EQ(created.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(created.get(), Result::Created);

    auto interrupted = waitFor(dir.path() / "never");
    EXPECT_EQ(interrupted.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    const auto start = std::chrono::steady_clock::now();
    waiter.interrupt();
    ASSERT_EQ(interrupted.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_EQ(interrupted.get(), Result::Interrupted);
    EXPECT_LT(std::chrono::steady_clock::now() - start, FileCreationWaiter::kPollInterval / 2);
    ASSERT_EQ(reasons.size(), 2u);  // one per wait
    EXPECT_NE(reasons[0].find("no inotify instance"), std::string::npos) << reasons[0];
}

// The settings watch's inotify instance serves the wait too (no descriptor
// is left for another), and the wait's end in the same directory leaves the
// settings watch seeing changes.
TEST(FileCreationWaiter, SharesTheProcesssInotifyInstanceWithTheSettingsWatch) {
    if (test::FdLimit::kSanitizerNeedsDescriptors) {
        GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own";
    }
    test::TempDir dir;
    std::string error;
    const auto store = openSqliteSettingsStore((dir.path() / "registry.sqlite").string(), error);
    ASSERT_NE(store, nullptr) << error;
    std::atomic<int> changes{0};
    const auto watch = store->watch([&] { ++changes; });
    ASSERT_NE(watch, nullptr);
    std::ofstream(dir.path() / "spec.tmp") << "{}";
    FileCreationWaiter waiter;
    bool polled = false;
    {
        const test::FdLimit noMoreFds(0);
        auto created = std::async(std::launch::async, [&] {
            int step = 0;
            return waiter.wait(dir.path() / "spec.json", error, step,
                               [&](const std::string&) { polled = true; });
        });
        EXPECT_EQ(created.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        const auto start = std::chrono::steady_clock::now();
        ASSERT_EQ(
            std::rename((dir.path() / "spec.tmp").c_str(), (dir.path() / "spec.json").c_str()), 0);
        ASSERT_EQ(created.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(created.get(), Result::Created);
        EXPECT_LT(std::chrono::steady_clock::now() - start, FileCreationWaiter::kPollInterval / 2);
    }
    EXPECT_FALSE(polled);
    const int before = changes;
    ASSERT_TRUE(store->set("HKLM\\W", "seq", SettingValue::ofDword(1)));
    EXPECT_TRUE(test::waitUntil([&] { return changes > before; }, std::chrono::seconds(5)));
}

}  // namespace
}  // namespace ndpx::platform
