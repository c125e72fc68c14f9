#include <platform/SettingsStore.h>

#include "support/FdLimit.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <fstream>
#include <thread>

namespace ndpx::platform {
namespace {

using namespace std::chrono_literals;

class SqliteStoreTest : public ::testing::Test {
protected:
    std::unique_ptr<SettingsStore> open() {
        std::string error;
        auto store = openSqliteSettingsStore(file_.string(), error);
        EXPECT_NE(store, nullptr) << error;
        return store;
    }
    static mode_t modeOf(const std::filesystem::path& p) {
        struct stat st {};
        EXPECT_EQ(::stat(p.c_str(), &st), 0) << p;
        return st.st_mode & 07777;
    }

    test::TempDir dir_;
    std::filesystem::path file_ = dir_.path() / "lib" / "Vendor" / "registry.sqlite";
};

TEST_F(SqliteStoreTest, AllTypesRoundTripAndPersist) {
    const std::string key = "HKLM\\Software\\Brasswick, Inc.\\Node Manager";
    const std::vector<std::pair<std::string, SettingValue>> values = {
        {"text", SettingValue::ofString("Grüße, ✓ 𝄞\nzweite Zeile")},
        {"empty", SettingValue::ofString("")},
        {"zero", SettingValue::ofDword(0)},
        {"max", SettingValue::ofDword(0xffffffffu)},
        {"list", SettingValue::ofMulti({"DOMAIN,AGENTUPDATE", "", "a\nb", "ü"})},
        {"trailingEmpty", SettingValue::ofMulti({"x", ""})},
        {"oneEmpty", SettingValue::ofMulti({""})},
        {"none", SettingValue::ofMulti({})},
        {"", SettingValue::ofString("default value")},
    };
    {
        auto store = open();
        ASSERT_NE(store, nullptr);
        for (const auto& [name, value] : values) {
            ASSERT_TRUE(store->set(key, name, value)) << name;
        }
        // Strings with NUL cannot be stored as multi-strings faithfully.
        EXPECT_FALSE(store->set(key, "bad", SettingValue::ofMulti({std::string("a\0b", 3)})));
        EXPECT_FALSE(store->set("", "x", SettingValue::ofString("no key")));
    }
    auto store = open();
    ASSERT_NE(store, nullptr);
    for (const auto& [name, value] : values) {
        EXPECT_EQ(store->get(key, name), value) << name;
    }
    EXPECT_EQ(store->get(key, "bad"), std::nullopt);
    EXPECT_EQ(store->get(key, "missing"), std::nullopt);

    // A value may change type.
    ASSERT_TRUE(store->set(key, "zero", SettingValue::ofString("now text")));
    EXPECT_EQ(store->get(key, "zero"), SettingValue::ofString("now text"));

    // A store in memory (used by regfile_test) has no file to watch.
    std::string error;
    auto memory = openSqliteSettingsStore(":memory:", error);
    ASSERT_NE(memory, nullptr) << error;
    EXPECT_EQ(memory->watch([] {}), nullptr);
}

TEST_F(SqliteStoreTest, KeyTreeIgnoresCase) {
    auto store = open();
    ASSERT_TRUE(store->set("HKLM\\Software\\Foo", "KeepAlive", SettingValue::ofDword(30)));
    EXPECT_EQ(store->get("hkey_local_machine\\SOFTWARE\\foo\\", "keepalive"),
              SettingValue::ofDword(30));
    ASSERT_TRUE(store->set("hklm\\software\\FOO", "KEEPALIVE", SettingValue::ofDword(60)));
    const auto listed = store->listValues("HKLM\\Software\\Foo");
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].first, "KeepAlive");  // the first spelling stays
    EXPECT_EQ(listed[0].second, SettingValue::ofDword(60));

    ASSERT_TRUE(store->set("HKLM\\A\\b\\deep", "v", SettingValue::ofString("1")));
    ASSERT_TRUE(store->set("HKLM\\A\\b", "z", SettingValue::ofString("z")));
    ASSERT_TRUE(store->set("HKLM\\A\\b", "Y", SettingValue::ofString("y")));
    ASSERT_TRUE(store->set("HKLM\\A\\b", "x", SettingValue::ofString("x")));
    ASSERT_TRUE(store->createKey("HKLM\\A\\C"));
    ASSERT_TRUE(store->createKey("HKLM\\A\\a_1"));
    ASSERT_TRUE(store->createKey("HKLM\\App"));
    ASSERT_TRUE(store->createKey("HKLM\\Apple\\Core"));

    for (const char* parent : {"HKLM", "HKLM\\A", "hklm\\a\\B", "HKLM\\SOFTWARE\\FOO"}) {
        EXPECT_TRUE(store->keyExists(parent)) << parent;
    }
    EXPECT_FALSE(store->keyExists("HKLM\\A\\missing"));
    EXPECT_EQ(store->listSubkeys("HKLM\\A"), (std::vector<std::string>{"a_1", "b", "C"}));
    EXPECT_EQ(store->listSubkeys("HKLM\\App"), std::vector<std::string>{});
    EXPECT_EQ(store->listSubkeys(""), std::vector<std::string>{"HKLM"});

    std::vector<std::string> names;
    for (const auto& [name, value] : store->listValues("HKLM\\A\\b")) {
        names.push_back(name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"x", "Y", "z"}));

    EXPECT_TRUE(store->remove("HKLM\\A\\b", "x"));
    EXPECT_TRUE(store->remove("HKLM\\A\\b", "x"));  // already gone: still fine
    EXPECT_EQ(store->get("HKLM\\A\\b", "x"), std::nullopt);

    // Removing a key takes its subtree, and nothing that merely shares a prefix.
    ASSERT_TRUE(store->removeKey("hklm\\a\\B"));
    EXPECT_FALSE(store->keyExists("HKLM\\A\\b"));
    EXPECT_FALSE(store->keyExists("HKLM\\A\\b\\deep"));
    EXPECT_EQ(store->get("HKLM\\A\\b\\deep", "v"), std::nullopt);
    EXPECT_EQ(store->listSubkeys("HKLM\\A"), (std::vector<std::string>{"a_1", "C"}));
    ASSERT_TRUE(store->removeKey("HKLM\\App"));
    EXPECT_TRUE(store->keyExists("HKLM\\Apple\\Core"));
    ASSERT_TRUE(store->removeKey("HKLM\\a_"));  // LIKE wildcards mean nothing here
    EXPECT_TRUE(store->keyExists("HKLM\\A\\a_1"));
    EXPECT_FALSE(store->removeKey(""));
}

TEST_F(SqliteStoreTest, FilesArePrivate) {
    auto store = open();
    ASSERT_TRUE(store->set("HKLM\\A", "v", SettingValue::ofString("1")));
    EXPECT_EQ(modeOf(file_), 0600u);
    EXPECT_EQ(modeOf(file_.parent_path()), 0700u);
    EXPECT_EQ(modeOf(file_.parent_path().parent_path()), 0700u);
    // SQLite's side files take the database's mode while a connection is open.
    EXPECT_EQ(modeOf(file_.string() + "-wal"), 0600u);
    EXPECT_EQ(modeOf(file_.string() + "-shm"), 0600u);

    // A store file left readable by others is tightened when opened.
    store.reset();
    ::chmod(file_.c_str(), 0644);
    store = open();
    ASSERT_NE(store, nullptr);
    EXPECT_EQ(modeOf(file_), 0600u);

    std::ofstream(dir_.path() / "plainfile") << "x";
    std::string error;
    EXPECT_EQ(openSqliteSettingsStore((dir_.path() / "plainfile" / "r.sqlite").string(), error),
              nullptr);
    EXPECT_FALSE(error.empty());
}

TEST_F(SqliteStoreTest, ChangeCounterSeesEveryWriter) {
    auto a = open();
    auto b = open();
    const auto c0 = a->changeCounter();
    EXPECT_EQ(a->get("HKLM\\A", "v"), std::nullopt);
    EXPECT_EQ(a->changeCounter(), c0);  // reads change nothing

    ASSERT_TRUE(a->set("HKLM\\A", "v", SettingValue::ofString("1")));
    const auto c1 = a->changeCounter();
    EXPECT_NE(c1, c0);

    const auto b1 = b->changeCounter();
    ASSERT_TRUE(a->set("HKLM\\A", "v", SettingValue::ofString("2")));
    EXPECT_NE(b->changeCounter(), b1);
    EXPECT_EQ(b->get("HKLM\\A", "v"), SettingValue::ofString("2"));

    const auto c2 = a->changeCounter();
    ASSERT_TRUE(b->removeKey("HKLM\\A"));
    EXPECT_NE(a->changeCounter(), c2);
    EXPECT_FALSE(a->keyExists("HKLM\\A"));
}

TEST_F(SqliteStoreTest, ConcurrentWritersOnOneObjectAndTwoConnections) {
    auto a = open();
    auto b = open();
    constexpr int kPerThread = 50;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        SettingsStore* store = t % 2 == 0 ? a.get() : b.get();
        threads.emplace_back([store, t, &failures] {
            const std::string key = "HKLM\\T" + std::to_string(t);
            for (int i = 0; i < kPerThread; ++i) {
                const auto v = SettingValue::ofDword(static_cast<std::uint32_t>(i));
                if (!store->set(key, "v" + std::to_string(i), v) ||
                    store->get(key, "v" + std::to_string(i)) != v) {
                    ++failures;
                }
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(failures, 0);
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(a->listValues("HKLM\\T" + std::to_string(t)).size(),
                  static_cast<std::size_t>(kPerThread));
    }
}

// The watch reports writes through a second store object (as another process
// would write) and coalesces bursts.
TEST_F(SqliteStoreTest, WatchReportsWritesOfOthersAndCoalesces) {
    auto writer = open();
    auto reader = open();
    std::atomic<int> calls{0};
    std::atomic<std::uint32_t> lastSeen{0};
    auto watch = reader->watch([&] {
        const auto v = reader->get("HKLM\\W", "seq");
        ++calls;
        lastSeen = v ? v->dword : 0;
    });
    ASSERT_NE(watch, nullptr);
    EXPECT_EQ(watch->pollingReason(), "");

    ASSERT_TRUE(writer->set("HKLM\\W", "seq", SettingValue::ofDword(1)));
    ASSERT_TRUE(test::waitUntil([&] { return lastSeen == 1; }, 5s));
    const int before = calls;
    constexpr std::uint32_t kBurst = 30;
    for (std::uint32_t i = 2; i <= kBurst; ++i) {
        ASSERT_TRUE(writer->set("HKLM\\W", "seq", SettingValue::ofDword(i)));
    }
    ASSERT_TRUE(test::waitUntil([&] { return lastSeen == kBurst; }, 5s));
    EXPECT_LE(calls - before, 10) << "a burst should give few calls, not one per write";

    const auto start = std::chrono::steady_clock::now();
    watch.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

// With no inotify instance to be had the watch says why, polls the store and
// still stops at once.
TEST_F(SqliteStoreTest, WithoutInotifyTheWatchPollsAndSaysWhy) {
    if (test::FdLimit::kSanitizerNeedsDescriptors) {
        GTEST_SKIP() << "the sanitizer runtime needs descriptors of its own";
    }
    auto writer = open();
    auto reader = open();
    std::atomic<std::uint32_t> lastSeen{0};
    std::unique_ptr<SettingsWatch> watch;
    {
        const test::FdLimit onlyItsOwnEvents(2);  // stop and wake-up
        watch = reader->watch([&] {
            const auto v = reader->get("HKLM\\W", "seq");
            lastSeen = v ? v->dword : 0;
        });
    }
    ASSERT_NE(watch, nullptr);
    EXPECT_NE(watch->pollingReason().find("no inotify instance"), std::string::npos)
        << watch->pollingReason();
    ASSERT_TRUE(writer->set("HKLM\\W", "seq", SettingValue::ofDword(7)));
    EXPECT_TRUE(test::waitUntil([&] { return lastSeen == 7; }, 5s));

    const auto start = std::chrono::steady_clock::now();
    watch.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
}

}  // namespace
}  // namespace ndpx::platform
