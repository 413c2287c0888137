#include "zul/platform/bundle.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/child_process.hpp"

namespace {

using zul::AnyList;
using zul::AnyMap;
using zul::AnyValue;
using zul::Bundle;

class BundleTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "zul-bundle-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    void writeInfo(const std::string& text) const {
        std::ofstream(directory_ / "Info.json", std::ios::binary) << text;
    }

    std::filesystem::path directory_;
};

TEST_F(BundleTest, ReadsTheInformationDictionaryFromInfoJson) {
    writeInfo(R"({
        "CFBundleIdentifier": "tv.example.player",
        "CFBundleShortVersionString": "2.4.1",
        "Build": 512, "Big": 18446744073709551615, "Ratio": 1.5, "Whole": 2.0, "Debug": false, "Nothing": null,
        "ZulTechSettings": {"Platform": "stb", "Extra": [1, "a"]}
    })");
    auto bundle = Bundle::create(directory_);
    // Compared whole, in the file's order. Numbers keep their JSON kind (an integer never equals a
    // double): integers stay integers, a number with a point is a double.
    EXPECT_EQ(*bundle->infoDictionary(),
              (AnyMap{{"CFBundleIdentifier", "tv.example.player"}, {"CFBundleShortVersionString", "2.4.1"},
                      {"Build", 512}, {"Big", 18446744073709551615ull}, {"Ratio", 1.5}, {"Whole", 2.0},
                      {"Debug", false}, {"Nothing", zul::Null{}},
                      {"ZulTechSettings", AnyMap{{"Platform", "stb"}, {"Extra", AnyList{1, "a"}}}}}));
    EXPECT_EQ(bundle->object("Missing"), std::nullopt);
}

TEST_F(BundleTest, AMissingInfoFileReadsAsEmptySilentlyAndAnUnusableOneWithOneLineOnStandardError) {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Bundle::create(directory_)->infoDictionary()->empty());  // no Info.json at all
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "a missing file is not an error";

    const std::string path = (directory_ / "Info.json").string();
    const struct {
        const char* text;
        const char* reason;
    } cases[] = {
        {R"({"CFBundleIdentifier": "a",})", "not valid JSON ("},
        {"", "not valid JSON ("},
        {R"(["CFBundleIdentifier", "a"])", "the top level is not a JSON object"},
        {R"({"n": 123456789012345678901234567890})", "not valid JSON ("},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        writeInfo(c.text);
        testing::internal::CaptureStderr();
        auto bundle = Bundle::create(directory_);
        EXPECT_TRUE(bundle->infoDictionary()->empty());
        EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);  // the file is read once: no second line
        const std::string error = testing::internal::GetCapturedStderr();
        EXPECT_EQ(error.rfind("ZulFoundation: ignoring the information dictionary " + path + ": " + c.reason, 0), 0u)
            << error;
        EXPECT_EQ(std::count(error.begin(), error.end(), '\n'), 1) << error;
    }

    // A directory where the file should be cannot be read either.
    std::filesystem::remove(directory_ / "Info.json");
    std::filesystem::create_directory(directory_ / "Info.json");
    testing::internal::CaptureStderr();
    EXPECT_TRUE(Bundle::create(directory_)->infoDictionary()->empty());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "ZulFoundation: ignoring the information dictionary " + path + ": Is a directory\n");
}

TEST_F(BundleTest, TheIdentifierMustBeTextTheFileIsReadOnceAndTheHostCanReplaceIt) {
    writeInfo(R"({"CFBundleIdentifier": 42})");
    auto numeric = Bundle::create(directory_);
    EXPECT_EQ(numeric->bundleIdentifier(), std::nullopt) << "an identifier that is not text";
    EXPECT_EQ(numeric->object("CFBundleIdentifier"), AnyValue(42));

    writeInfo(R"({"CFBundleIdentifier": "from.file"})");
    auto bundle = Bundle::create(directory_);
    auto snapshot = bundle->infoDictionary();
    EXPECT_EQ(bundle->bundleIdentifier(), "from.file");

    writeInfo(R"({"CFBundleIdentifier": "changed.file"})");
    EXPECT_EQ(bundle->bundleIdentifier(), "from.file") << "the file is read on first use only";

    bundle->setInfoDictionary(AnyMap{{"CFBundleIdentifier", "from.host"}, {"Key", 1}});
    EXPECT_EQ(bundle->bundleIdentifier(), "from.host");
    EXPECT_EQ(bundle->object("Key"), AnyValue(1));
    EXPECT_EQ(*snapshot, (AnyMap{{"CFBundleIdentifier", "from.file"}})) << "an earlier snapshot does not change";

    // Set before first use, the file is never read.
    writeInfo("not json at all");
    testing::internal::CaptureStderr();
    auto preset = Bundle::create(directory_);
    preset->setInfoDictionary(AnyMap{{"CFBundleIdentifier", "preset"}});
    EXPECT_EQ(preset->bundleIdentifier(), "preset");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(BundleTest, TheMainBundleIsTheExecutablesDirectoryUnlessTheHostOrZulBundlePathSetsOne) {
    Bundle::setMain(nullptr);
    const auto executableDirectory = std::filesystem::read_symlink("/proc/self/exe").parent_path();
    const char* override = std::getenv("ZUL_BUNDLE_PATH");
    const std::filesystem::path expected = override && *override ? std::filesystem::path(override) : executableDirectory;
    auto main = Bundle::main();
    EXPECT_EQ(main->bundlePath(), expected);
    EXPECT_EQ(Bundle::main(), main) << "the same object every time";

    auto custom = Bundle::create(directory_);
    Bundle::setMain(custom);
    EXPECT_EQ(Bundle::main(), custom);

    Bundle::setMain(nullptr);
    EXPECT_EQ(Bundle::main()->bundlePath(), expected);

    // In another process ZUL_BUNDLE_PATH names the main bundle; without it, the helper's own
    // directory, which has no Info.json. The helper prints the path and the identifier.
    const auto mainBundleOfHelper = [](const std::string& setting) {
        zul::test::ChildProcess helper(ZUL_PREFERENCES_HELPER, {"bundle"}, {"ZUL_BUNDLE_PATH=" + setting});
        std::string output = helper.readAll();
        EXPECT_EQ(helper.exitCode(), 0);
        return output;
    };
    writeInfo(R"({"CFBundleIdentifier": "tv.example.player"})");
    EXPECT_EQ(mainBundleOfHelper(directory_.string()), directory_.string() + "\ntv.example.player\n");
    EXPECT_EQ(mainBundleOfHelper(""),
              std::filesystem::canonical(ZUL_PREFERENCES_HELPER).parent_path().string() + "\n(none)\n");
}

TEST_F(BundleTest, ReadersAlwaysSeeAWholeDictionaryWhileTheHostReplacesIt) {
    writeInfo(R"({"n": 0, "copy": 0})");
    auto bundle = Bundle::create(directory_);
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                auto info = bundle->infoDictionary();
                if (!(*info->get("n") == *info->get("copy"))) torn.fetch_add(1);
                (void)bundle->object("n");
                (void)Bundle::main()->bundlePath();
            }
        });
    }
    for (int i = 1; i <= 2000; ++i) {
        bundle->setInfoDictionary(AnyMap{{"n", i}, {"copy", i}});
        if (i % 100 == 0) Bundle::setMain(i % 200 == 0 ? nullptr : bundle);
    }
    stop.store(true);
    for (auto& reader : readers) reader.join();
    Bundle::setMain(nullptr);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(bundle->object("n"), AnyValue(2000));
}

}  // namespace
