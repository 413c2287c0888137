#include "zul/platform/user_defaults.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/file_worker.hpp"
#include "platform/preferences_format.hpp"
#include "platform/preferences_state.hpp"
#include "support/child_process.hpp"
#include "support/wait.hpp"

namespace {

using zul::AnyList;
using zul::AnyMap;
using zul::AnyValue;
using zul::UserDefaults;

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Values of every kind the store holds.
AnyMap preferenceSamples() {
    using namespace std::chrono;
    zul::Data allBytes;
    for (int i = 0; i < 256; ++i) allBytes.push_back(static_cast<std::uint8_t>(i));
    AnyMap nested{{"name", "Anna"}, {"age", 31}, {"ratio", 0.5}, {"tags", AnyList{"a", AnyList{}, AnyMap{}}}};
    return AnyMap{
        {"text", "Grüße, \"quoted\"\n/slash\\ \t"},
        {"empty text", ""},
        {"yes", true},
        {"no", false},
        {"int min", std::numeric_limits<std::int64_t>::min()},
        {"uint max", std::numeric_limits<std::uint64_t>::max()},
        {"double", 0.1},
        {"whole double", 1.0},
        {"tiny double", 1e-300},
        {"infinity", std::numeric_limits<double>::infinity()},
        {"float", 0.1f},
        {"date", zul::Date(seconds(1551675967) + nanoseconds(123456789))},
        {"old date", zul::Date(-seconds(86400 * 365) + microseconds(250))},
        {"bytes", allBytes},
        {"no bytes", zul::Data{}},
        {"url", *zul::URL::fromString("https://example.com/a%20b?q=1#top")},
        {"list", AnyList{1, "two", 3.5, AnyList{true}}},
        {"map", nested},
        {"key with / and \u00e9", "odd key"},
    };
}

class UserDefaultsTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "zul-prefs-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
        file_ = directory_ / "app" / "preferences.json";  // the directory is made on first write
    }
    void TearDown() override {
        // Background writes of stores the test has dropped may still be under way.
        zul::detail::waitForFileWork();
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    // The values in the file as it is now, read strictly: a file that is not complete throws.
    zul::detail::PreferenceValues onDisk() const { return zul::detail::readPreferences(readText(file_)); }

    std::filesystem::path directory_;
    std::filesystem::path file_;
};

void expectSamples(const UserDefaults& store) {
    for (const auto& [key, value] : preferenceSamples()) {
        SCOPED_TRACE(key);
        const auto stored = store.object(key);
        ASSERT_TRUE(stored);
        EXPECT_EQ(*stored, value) << stored->debugDescription() << " vs " << value.debugDescription();
    }
}

TEST_F(UserDefaultsTest, ValuesReadBackAsTheKindTheyWereStoredAsBeforeAndAfterARestart) {
    {
        auto store = UserDefaults::create(file_);
        EXPECT_TRUE(store->dictionaryRepresentation().empty());
        for (const auto& [key, value] : preferenceSamples()) store->set(value, key);
        store->set(std::numeric_limits<double>::quiet_NaN(), "nan");
        store->set(-0.0, "negative zero");
        store->set(AnyValue::optional(AnyValue(5)), "optional");
        store->set(AnyList{AnyValue::optional(AnyValue("in a list"))}, "optional inside");
        expectSamples(*store);  // at once, before anything is written
        EXPECT_EQ(store->object("optional"), AnyValue(5)) << "a present optional is stored as what it holds";
        EXPECT_TRUE(store->synchronize());
    }
    // A new store on the file: the state survives the "restart" with every kind intact.
    auto reopened = UserDefaults::create(file_);
    expectSamples(*reopened);
    const auto number = [&](const char* key) {  // 0.0, neither NaN nor negative, when it is not a double
        const auto value = reopened->object(key);
        return value && value->asDouble() ? *value->asDouble() : 0.0;
    };
    EXPECT_TRUE(std::isnan(number("nan")));
    EXPECT_TRUE(std::signbit(number("negative zero")));
    EXPECT_EQ(reopened->object("optional inside"), AnyValue(AnyList{"in a list"}));
    EXPECT_EQ(reopened->dictionaryRepresentation().size(), preferenceSamples().size() + 4);

    // Nested maps come back in their own order (the file lists the top level sorted: see below).
    std::vector<std::string> nested;
    for (const auto& [key, value] : *reopened->object("map")->asMap()) nested.push_back(key);
    EXPECT_EQ(nested, (std::vector<std::string>{"name", "age", "ratio", "tags"}));
}

TEST_F(UserDefaultsTest, TheFileIsTypedJsonOnlyTheUserCanRead) {
    auto store = UserDefaults::create(file_);
    store->set(AnyMap{{"b", 1.0}, {"a", true}}, "user");
    store->set(zul::Data{0x01, 0xFF}, "bytes");
    store->set(zul::Date(std::chrono::seconds(1551675967)), "when");
    ASSERT_TRUE(store->synchronize());
    EXPECT_EQ(readText(file_),
              "{\n"
              "  \"format\" : \"dev.zul.preferences\",\n"
              "  \"version\" : 1,\n"
              "  \"values\" : {\n"
              "    \"bytes\" : {\n      \"data\" : \"Af8=\"\n    },\n"
              "    \"user\" : {\n      \"map\" : {\n"
              "        \"b\" : {\n          \"double\" : \"1.0\"\n        },\n"
              "        \"a\" : {\n          \"bool\" : true\n        }\n      }\n    },\n"
              "    \"when\" : {\n      \"date\" : \"2019-03-04T05:06:07.000000000Z\"\n    }\n"
              "  }\n"
              "}\n");
    struct stat status {};
    ASSERT_EQ(::stat(file_.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    EXPECT_FALSE(std::filesystem::exists(file_.string() + ".tmp"));
}

TEST_F(UserDefaultsTest, StringReadsTextNumbersAndBooleansOnly) {
    auto store = UserDefaults::create(file_);
    const std::optional<std::string> none;
    const std::pair<AnyValue, std::optional<std::string>> cases[] = {
        {"text", "text"}, {true, "1"}, {-42, "-42"}, {std::numeric_limits<std::uint64_t>::max(), "18446744073709551615"},
        {1.0, "1.0"}, {0.1f, "0.1"}, {zul::Data{1, 2}, none},  // numbers print as AnyValue prints them
    };
    for (const auto& [value, text] : cases) {
        store->set(value, "key");
        EXPECT_EQ(store->string("key"), text) << value.debugDescription();
    }
    EXPECT_EQ(store->string("missing"), std::nullopt);
}

TEST_F(UserDefaultsTest, SetsAndRemovalsReachTheDiskWithoutSynchronize) {
    auto store = UserDefaults::create(file_);
    store->set("x", "gone");
    store->set("y", "removed");
    store->set("z", "kept");
    ASSERT_TRUE(store->synchronize());
    store->set(std::nullopt, "gone");  // setting absent removes
    store->removeObject("removed");
    store->set(std::nullopt, "never there");
    store->set(7, "written in the background");
    EXPECT_EQ(store->object("gone"), std::nullopt);
    EXPECT_EQ(store->object("removed"), std::nullopt);
    const zul::detail::PreferenceValues expected{{"kept", "z"}, {"written in the background", 7}};
    EXPECT_TRUE(zul::test::waitUntil([&] { return onDisk() == expected; }));

    // Dropping a store writes what is still pending.
    auto other = directory_ / "other.json";
    {
        auto shortLived = UserDefaults::create(other);
        for (int i = 0; i < 100; ++i) shortLived->set(i, "counter");
    }
    EXPECT_EQ(UserDefaults::create(other)->object("counter"), AnyValue(99));
}

TEST_F(UserDefaultsTest, AKilledWriterLeavesTheOldOrTheNewCompleteFile) {
    std::mt19937 random(std::random_device{}());
    std::int64_t previous = -1;
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        zul::test::ChildProcess writer(ZUL_PREFERENCES_HELPER, {"loop", file_.string()});
        ASSERT_EQ(writer.readLine(), "ready\n");
        std::this_thread::sleep_for(std::chrono::microseconds(std::uniform_int_distribution<int>(0, 60000)(random)));
        ASSERT_EQ(::kill(writer.pid(), SIGKILL), 0);
        const int status = writer.wait();
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "the writer stopped by itself";

        zul::detail::PreferenceValues values;
        ASSERT_NO_THROW(values = onDisk());
        ASSERT_TRUE(values.count("state"));
        EXPECT_EQ(zul::test::checkState(values["state"]), "");
        // Each writer continues from the state its predecessor left and writes at least once.
        const std::int64_t number = zul::test::stateNumber(values["state"]);
        EXPECT_GT(number, previous);
        previous = number;
    }
    testing::internal::CaptureStderr();
    auto survivor = UserDefaults::create(file_);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "the file is in the store's format";
    EXPECT_EQ(zul::test::checkState(*survivor->object("state")), "");
}

TEST_F(UserDefaultsTest, ProcessesSharingAFileKeepEachOthersKeys) {
    auto parent = UserDefaults::create(file_);
    parent->set("parent", "owner");
    ASSERT_TRUE(parent->synchronize());

    constexpr int count = 60;
    zul::test::ChildProcess first(ZUL_PREFERENCES_HELPER, {"count", file_.string(), "a", std::to_string(count)});
    zul::test::ChildProcess second(ZUL_PREFERENCES_HELPER, {"count", file_.string(), "b", std::to_string(count)});
    EXPECT_EQ(first.exitCode(), 0);
    EXPECT_EQ(second.exitCode(), 0);

    // The parent sees the children's keys once it synchronises, and they kept its own.
    EXPECT_EQ(parent->object("a0"), std::nullopt);
    ASSERT_TRUE(parent->synchronize());
    EXPECT_EQ(parent->dictionaryRepresentation().size(), 2u * count + 1);
    for (int i = 0; i < count; ++i) {
        EXPECT_EQ(parent->object("a" + std::to_string(i)), AnyValue(i));
        EXPECT_EQ(parent->object("b" + std::to_string(i)), AnyValue(i));
    }
    EXPECT_EQ(parent->object("owner"), AnyValue("parent"));

    // A write merges too: the parent's new key joins the children's instead of replacing them.
    parent->set("later", "parent again");
    ASSERT_TRUE(parent->synchronize());
    EXPECT_EQ(onDisk().size(), 2u * count + 2);
}

TEST_F(UserDefaultsTest, ThreadsSetAndReadConcurrently) {
    auto store = UserDefaults::create(file_);
    constexpr int threads = 4;
    constexpr int rounds = 300;
    std::atomic<bool> writing{true};
    std::atomic<int> wrong{0};
    std::thread syncer([&] {
        while (writing.load()) {
            if (!store->synchronize()) wrong.fetch_add(1);
        }
    });
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const std::string mine = "thread" + std::to_string(t) + "-";
            for (int i = 0; i < rounds; ++i) {
                store->set(i, mine + std::to_string(i % 10));
                if (store->object(mine + std::to_string(i % 10)) != AnyValue(i)) wrong.fetch_add(1);
                store->set(AnyMap{{"from", t}, {"round", i}}, "shared");
                if (i % 7 == 0) store->removeObject(mine + "removed");
                else store->set("x", mine + "removed");
                (void)store->dictionaryRepresentation();
            }
        });
    }
    for (auto& worker : workers) worker.join();
    writing.store(false);
    syncer.join();
    ASSERT_TRUE(store->synchronize());
    EXPECT_EQ(wrong.load(), 0) << "a thread did not read its own latest value back, or a write failed";

    for (int k = 0; k < threads * 10; ++k) {  // each thread's last value of each of its keys
        EXPECT_EQ(store->object("thread" + std::to_string(k / 10) + "-" + std::to_string(k % 10)), AnyValue(rounds - 10 + k % 10));
    }
    EXPECT_EQ(UserDefaults::create(file_)->dictionaryRepresentation(), store->dictionaryRepresentation());
}

TEST_F(UserDefaultsTest, AnUnreadableFileReadsAsEmptyAndIsKeptAside) {
    std::filesystem::create_directories(file_.parent_path());
    const auto inFormat = [](const std::string& values) {
        return R"({"format": "dev.zul.preferences", "version": 1, "values": {"k": )" + values + "}}";
    };
    const std::pair<std::string, std::string> cases[] = {
        {"{ not json", "not valid JSON ("},
        {R"({"format": "other", "version": 1, "values": {}})", "\"format\" is not \"dev.zul.preferences\""},
        {R"({"format": "dev.zul.preferences", "version": 2, "values": {}})", "unsupported \"version\""},
        {inFormat(R"({"complex": 1})"), "values.k: unknown kind \"complex\""},
        {inFormat(R"({"int": "1"})"), "values.k: the payload of a \"int\" value has the wrong type"},
        {inFormat(R"({"list": [{"date": "yesterday"}]})"), "values.k[0]: \"yesterday\" is not a date"},
        {inFormat(R"({"data": "abc"})"), "values.k: not valid base64"},
        {inFormat(R"({"string": "a", "int": 1})"), "values.k: expected an object with one member naming the kind"},
    };
    for (const auto& [text, reason] : cases) {
        SCOPED_TRACE(text);
        std::ofstream(file_, std::ios::binary) << text;
        testing::internal::CaptureStderr();
        auto store = UserDefaults::create(file_);
        EXPECT_TRUE(store->dictionaryRepresentation().empty());
        EXPECT_FALSE(store->synchronize());
        const std::string error = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(error.starts_with("ZulFoundation: the preferences file " + file_.string() +
                                      " is not in the store's format (" + reason))
            << error;
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << "reported once: " << error;

        // The next write keeps the unreadable file aside instead of destroying it.
        store->set("fresh", "key");
        EXPECT_TRUE(store->synchronize());
        EXPECT_EQ(readText(file_.string() + ".corrupt"), text);
        EXPECT_EQ(onDisk().size(), 1u);
    }
}

TEST_F(UserDefaultsTest, AFailedWriteKeepsTheChangesPendingUntilItCanWrite) {
    // A regular file where the directory should be: nothing can be written below it, even by root.
    const auto blocker = directory_ / "blocked";
    std::ofstream(blocker) << "in the way";
    const auto path = blocker / "preferences.json";
    testing::internal::CaptureStderr();  // the background write may fail first
    auto store = UserDefaults::create(path);
    store->set(1, "first");
    EXPECT_FALSE(store->synchronize());
    store->set(2, "second");
    EXPECT_FALSE(store->synchronize());
    const std::string error = testing::internal::GetCapturedStderr();
    EXPECT_EQ(error, "ZulFoundation: cannot lock " + path.string() + ".lock: Not a directory\n")
        << "one line for the failure, not one per attempt";

    std::filesystem::remove(blocker);
    EXPECT_TRUE(store->synchronize());
    EXPECT_EQ(UserDefaults::create(path)->dictionaryRepresentation(), (AnyMap{{"first", 1}, {"second", 2}}));
}

TEST_F(UserDefaultsTest, TheStandardStoreLivesInTheConfigDirectoryNamedAfterTheBundle) {
    const auto bundle = directory_ / "bundle";
    std::filesystem::create_directories(bundle);
    const auto config = directory_ / "config";

    struct Case {
        std::string info;         // the bundle's Info.json, none when empty
        std::vector<std::string> environment;
        std::filesystem::path expected;
    };
    const std::string xdg = "XDG_CONFIG_HOME=" + config.string();
    const std::vector<Case> cases = {
        {R"({"CFBundleIdentifier": "../escape/x"})", {xdg}, config / ".._escape_x" / "preferences.json"},
        {R"({"CFBundleIdentifier": ".."})", {xdg}, config / "dev.zul.foundation" / "preferences.json"},
        // Without an identifier the default name; a relative XDG_CONFIG_HOME is ignored for ~/.config.
        {"", {"XDG_CONFIG_HOME=relative", "HOME=" + directory_.string()},
         directory_ / ".config" / "dev.zul.foundation" / "preferences.json"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        std::filesystem::remove(bundle / "Info.json");
        if (!c.info.empty()) std::ofstream(bundle / "Info.json") << c.info;
        auto environment = c.environment;
        environment.push_back("ZUL_BUNDLE_PATH=" + bundle.string());
        zul::test::ChildProcess child(ZUL_PREFERENCES_HELPER, {"standard", "greeting", "hello"}, environment);
        EXPECT_EQ(child.readAll(), c.expected.string() + "\n");
        ASSERT_EQ(child.exitCode(), 0);
        // The child did not synchronise: what it set was written as it exited.
        EXPECT_EQ(UserDefaults::create(c.expected)->object("greeting"), AnyValue("hello"));
    }
}

TEST(UserDefaultsDeathTest, ValuesTheStoreCannotHoldStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto path = std::filesystem::temp_directory_path() / "zul-prefs-death-never-written.json";
    auto store = UserDefaults::create(path);
    EXPECT_DEATH(store->set(zul::Null{}, "k"), "Fatal error: Attempt to insert non-property list object <null> for key k");
    EXPECT_DEATH(store->set(AnyMap{{"ok", 1}, {"bad", zul::OpaqueValue{std::make_shared<int>(1), "Thing"}}}, "map"),
                 "Attempt to insert non-property list object .*Thing.* for key map");
    EXPECT_DEATH(store->set(AnyList{AnyValue::optional(std::nullopt)}, "list"),
                 "Attempt to insert non-property list object \\[nil\\] for key list");
    EXPECT_FALSE(std::filesystem::exists(path));
}

}  // namespace
