#include "zul/core/environment.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include "core/environment_state.hpp"
#include "platform/file_worker.hpp"
#include "zul/platform/bundle.hpp"
#include "zul/platform/user_defaults.hpp"

namespace {

using zul::AnyList;
using zul::AnyMap;
using zul::AnyValue;
using zul::Bundle;
using zul::ZulTechSettings;
using zul::detail::EnvironmentState;

std::shared_ptr<Bundle> bundleWith(AnyMap info) {
    auto bundle = Bundle::create("/nonexistent/zul-test-bundle");
    bundle->setInfoDictionary(std::move(info));
    return bundle;
}

// A state over `bundle` that counts how often it asks for the bundle.
struct CountingState {
    explicit CountingState(std::shared_ptr<Bundle> b)
        : bundle(std::move(b)), state([this] {
              lookups.fetch_add(1);
              return bundle;
          }) {}
    std::shared_ptr<Bundle> bundle;
    std::atomic<int> lookups{0};
    EnvironmentState state;
};

TEST(ZulEnvironmentStateTest, ReadsIdentifierAndVersionOnceOnFirstAccessUnlessAssignedAndDefaultsWhenUnusable) {
    CountingState s(bundleWith({{"CFBundleIdentifier", "tv.example.player"}, {"CFBundleShortVersionString", "2.4.1"}}));
    EXPECT_EQ(s.lookups.load(), 0) << "nothing is read before it is asked for";
    EXPECT_EQ(s.state.bundleIdentifier(), "tv.example.player");
    EXPECT_EQ(s.state.appVersion(), "2.4.1");
    EXPECT_EQ(s.lookups.load(), 2);

    // Once read, the values stay, whatever the bundle says later.
    s.bundle->setInfoDictionary({{"CFBundleIdentifier", "changed"}, {"CFBundleShortVersionString", "9"}});
    EXPECT_EQ(s.state.bundleIdentifier(), "tv.example.player");
    EXPECT_EQ(s.state.appVersion(), "2.4.1");

    // Until assigned.
    s.state.setBundleIdentifier("assigned");
    s.state.setAppVersion(std::nullopt);
    EXPECT_EQ(s.state.bundleIdentifier(), "assigned");
    EXPECT_EQ(s.state.appVersion(), std::nullopt);

    // An assignment before first access means the bundle is never read.
    CountingState early(bundleWith({{"CFBundleIdentifier", "from.bundle"}, {"CFBundleShortVersionString", "1.0"}}));
    early.state.setBundleIdentifier("from.host");
    early.state.setAppVersion(std::nullopt);
    EXPECT_EQ(early.state.bundleIdentifier(), "from.host");
    EXPECT_EQ(early.state.appVersion(), std::nullopt) << "an assigned absent is not replaced by the bundle's version";
    EXPECT_EQ(early.lookups.load(), 0);

    // Defaults when the bundle has no entries (a version of the wrong kind: see the fresh-process
    // test); an absent version is a value like any other: it is not read again.
    CountingState empty(bundleWith({}));
    EXPECT_EQ(empty.state.bundleIdentifier(), "dev.zul.foundation");
    EXPECT_EQ(empty.state.appVersion(), std::nullopt);
    empty.bundle->setInfoDictionary({{"CFBundleShortVersionString", "2.5"}});
    EXPECT_EQ(empty.state.appVersion(), std::nullopt);
}

TEST(ZulEnvironmentStateTest, SettingsAreReadAnewOnEveryCallAndTakeOnlyADictionaryWithATextPlatform) {
    CountingState s(bundleWith({}));
    EXPECT_EQ(s.state.settings().platform, std::nullopt) << "no entry";
    s.bundle->setInfoDictionary({{"ZulTechSettings", AnyMap{{"Platform", "stb"}}}});
    EXPECT_EQ(s.state.settings().platform, "stb");
    s.bundle->setInfoDictionary({{"ZulTechSettings", AnyList{AnyMap{{"Platform", "stb"}}}}});
    EXPECT_EQ(s.state.settings(), ZulTechSettings()) << "settings that are not a dictionary";

    EXPECT_EQ(ZulTechSettings(AnyMap{{"Platform", "stb"}, {"Other", 1}}).platform, "stb");
    EXPECT_EQ(ZulTechSettings(AnyMap{{"Platform", ""}}).platform, "");
    EXPECT_EQ(ZulTechSettings(AnyMap{{"Platform", AnyList{"stb"}}}).platform, std::nullopt);
    EXPECT_EQ(ZulTechSettings(AnyMap{{"platform", "lower-case key"}}).platform, std::nullopt);
}

TEST(ZulEnvironmentStateTest, ConcurrentFirstAccessesReadTheBundleOnce) {
    for (int round = 0; round < 20; ++round) {
        CountingState s(bundleWith({{"CFBundleIdentifier", "id"}, {"CFBundleShortVersionString", "1"}}));
        constexpr int threads = 6;
        std::latch start(threads);
        std::atomic<int> wrong{0};
        std::vector<std::thread> readers;
        for (int t = 0; t < threads; ++t) {
            readers.emplace_back([&, t] {
                start.arrive_and_wait();
                if (t == 0) {
                    s.state.setBundleIdentifier("assigned");
                    s.state.setAppVersion("2");
                }
                const std::string id = s.state.bundleIdentifier();
                const auto version = s.state.appVersion();
                if (id != "id" && id != "assigned") wrong.fetch_add(1);
                if (version != "1" && version != "2") wrong.fetch_add(1);
            });
        }
        for (auto& reader : readers) reader.join();
        EXPECT_EQ(wrong.load(), 0);
        EXPECT_LE(s.lookups.load(), 2) << "each value is read from the bundle at most once";
        EXPECT_EQ(s.state.bundleIdentifier(), "assigned");
    }
}

TEST(ZulUserDefaultsReaderTest, ReadsAndWritesTextThroughTheStore) {
    std::string pattern = (std::filesystem::temp_directory_path() / "zul-reader-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    const std::filesystem::path directory = pattern;
    {
        auto store = zul::UserDefaults::create(directory / "preferences.json");
        std::shared_ptr<zul::ValueReader> reader = zul::ZulUserDefaultsReader::create(store);

        // How each kind reads as text is the store's own; here, that values and absences reach it.
        reader->set(AnyValue(720), "height");
        EXPECT_EQ(reader->stringValue("height"), "720");
        EXPECT_EQ(store->object("height"), AnyValue(720)) << "the store keeps the value's own kind";
        reader->set(std::nullopt, "height");
        EXPECT_EQ(store->object("height"), std::nullopt);
    }
    zul::detail::waitForFileWork();
    std::filesystem::remove_all(directory);
}

// ZulEnvironment's values are process-wide and initialised once, so they are checked in a
// process of their own (the death-test machinery runs this test again in a fresh child).
TEST(ZulEnvironmentDeathTest, ReadsTheMainBundleLazilyInAFreshProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto check = [] {
        // A failure shows on the standard error, which must stay empty.
        auto expect = [](bool ok, const char* what) {
            if (!ok) std::fprintf(stderr, "failed: %s\n", what);
        };
        std::string pattern = (std::filesystem::temp_directory_path() / "zul-env-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::exit(2);
        const std::filesystem::path config = pattern;
        ::setenv("XDG_CONFIG_HOME", config.c_str(), 1);

        auto bundle = bundleWith({{"CFBundleShortVersionString", 7}, {"ZulTechSettings", AnyMap{{"Platform", 5}}}});
        Bundle::setMain(bundle);
        expect(zul::ZulEnvironment::bundleIdentifier() == "dev.zul.foundation", "default identifier");
        expect(zul::ZulEnvironment::appVersion() == std::nullopt, "numeric version reads absent");

        bundle->setInfoDictionary({{"CFBundleIdentifier", "late"},
                                   {"CFBundleShortVersionString", "2.0"},
                                   {"ZulTechSettings", AnyMap{{"Platform", "stb"}}}});
        expect(zul::ZulEnvironment::settings().platform == "stb", "settings read anew");
        zul::ZulEnvironment::setBundleIdentifier("assigned");
        zul::ZulEnvironment::setAppVersion("3.1");
        expect(zul::ZulEnvironment::bundleIdentifier() == "assigned", "assigned identifier");
        expect(zul::ZulEnvironment::appVersion() == "3.1", "assigned version");
        zul::ZulEnvironment unused;  // it can be made, though it has nothing of its own
        (void)unused;

        // The default reader writes the standard store, named after the main bundle ("late").
        auto reader = zul::ZulUserDefaultsReader::create();
        reader->set(AnyValue(12.34), "price");
        expect(reader->stringValue("price") == "12.34", "reader converts the double");
        expect(zul::UserDefaults::standard()->synchronize(), "standard store synchronises");
        expect(zul::UserDefaults::standard()->path() == config / "late" / "preferences.json", "standard path");
        expect(zul::UserDefaults::create(config / "late" / "preferences.json")->object("price") == AnyValue(12.34),
               "value on disk");
        std::filesystem::remove_all(config);
        std::exit(0);
    };
    EXPECT_EXIT(check(), testing::ExitedWithCode(0), "^$");
}

}  // namespace
