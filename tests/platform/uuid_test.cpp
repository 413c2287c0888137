#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "zul/platform/uuid.hpp"

namespace {

TEST(UUIDTest, RandomOnesAreCanonicalUpperCaseVersion4AndDistinctAndParsingTakesEitherCase) {
    const std::regex canonical("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$");
    std::set<std::string> seen;
    for (int i = 0; i < 5000; ++i) {
        const std::string text = zul::UUID::random().uuidString();
        ASSERT_TRUE(std::regex_match(text, canonical)) << text;
        seen.insert(text);
    }
    EXPECT_EQ(seen.size(), 5000u);

    const auto parsed = zul::UUID::fromString("6f9619ff-8b86-d011-b42d-00c04fc964ff");
    ASSERT_TRUE(parsed.has_value());
    EXPECT_EQ(parsed->uuidString(), "6F9619FF-8B86-D011-B42D-00C04FC964FF");
    EXPECT_EQ(parsed->bytes()[0], 0x6F);  // the text prints the bytes: the rest follow from it

    const zul::UUID random = zul::UUID::random();
    EXPECT_EQ(zul::UUID::fromString(random.uuidString()), random);
    EXPECT_EQ(zul::UUID().uuidString(), "00000000-0000-0000-0000-000000000000");

    EXPECT_FALSE(zul::UUID::fromString(""));
    EXPECT_FALSE(zul::UUID::fromString("6F9619FF8B86D011B42D00C04FC964FF"));     // no dashes
    EXPECT_FALSE(zul::UUID::fromString("6F9619FF-8B86-D011-B42D-00C04FC964FG"));  // not hex
    EXPECT_FALSE(zul::UUID::fromString("6F9619F-F8B86-D011-B42D-00C04FC964FF"));  // dash misplaced
    EXPECT_FALSE(zul::UUID::fromString("{6F9619FF-8B86-D011-B42D-00C04FC964F}"));
}

}  // namespace
