#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "support/thrown.hpp"
#include "zul/media/video_resolution.hpp"

namespace {

using zul::VideoResolution;
using zul::VideoSize;
using zul::VideoSizeError;

VideoSizeError::Kind failureOf(std::string_view text) {
    return zul::test::thrown<VideoSizeError>([&] { (void)VideoSize::fromString(text); }).kind();
}

TEST(VideoSizeTest, ParsesTheFirstTwoNonEmptyPiecesAsWidthAndHeightAndRejectsTheRest) {
    const std::pair<std::string_view, VideoSize> cases[] = {
        {"1280x720", {1280, 720}},          {"1920x1080_hdr", {1920, 1080}}, {"0x0", {0, 0}},
        {"-0x0", {0, 0}},                   {"+640x+360", {640, 360}},       {"007x08", {7, 8}},
        {"__1280x720_a_b", {1280, 720}},    {"x1280xx720x", {1280, 720}},    {"1280x720x3", {1280, 720}},
        {"9223372036854775807x1", {std::numeric_limits<std::int64_t>::max(), 1}},
    };
    for (const auto& [text, size] : cases) EXPECT_EQ(VideoSize::fromString(text), size) << text;

    for (std::string_view text : {"", "_", "1280", "1280x", "x720", "1280X720", "12.5x720", "1280x720p", " 1280x720",
                                  "+-1x2", "1x+", "1x-", "9223372036854775808x1", "1280_x720",
                                  "-1xabc"}) {  // an unparsable dimension wins over a negative one
        EXPECT_EQ(failureOf(text), VideoSizeError::Kind::parsingError) << text;
    }
    for (std::string_view text : {"-1x720", "1280x-720", "-0x-5_hdr"}) {
        EXPECT_EQ(failureOf(text), VideoSizeError::Kind::invalid) << text;
    }
    EXPECT_STREQ(VideoSizeError::invalid().what(), "invalid");
    EXPECT_EQ(VideoSizeError::parsingError().description(), "parsingError");  // what() by default
}

TEST(VideoResolutionTest, RawValuesDescriptionsAndHD) {
    const std::string_view names[] = {"auto", "144p", "240p", "360p", "480p", "720p", "1080p", "2K", "4K"};
    for (std::uint8_t raw = 0; raw < 9; ++raw) {
        const auto resolution = zul::videoResolution(raw);
        ASSERT_TRUE(resolution.has_value()) << int{raw};
        EXPECT_EQ(zul::description(*resolution), names[raw]);
        EXPECT_EQ(zul::isHD(*resolution), raw >= 5) << names[raw];  // from 720p up
    }
    EXPECT_EQ(zul::videoResolution(9), std::nullopt);
}

TEST(VideoResolutionTest, AreaAndBandwidthLadderBoundaries) {
    using enum VideoResolution;
    // Each boundary and the value just past it.
    const std::pair<std::int64_t, VideoResolution> cases[] = {
        {std::numeric_limits<std::int64_t>::min(), _360p}, {0, _360p},
        {250'000, _360p},   {250'001, _480p},   {600'000, _480p},   {600'001, _720p},
        {1'300'000, _720p}, {1'300'001, _1080p}, {2'500'000, _1080p}, {2'500'001, _2K},
        {6'400'000, _2K},   {6'400'001, _4K},   {std::numeric_limits<std::int64_t>::max(), _4K},
    };
    for (const auto& [area, expected] : cases) EXPECT_EQ(zul::resolutionForVideoSizeArea(area), expected) << area;

    // A size goes by its area, width times height; the ladder itself is checked above.
    EXPECT_EQ(zul::resolutionForSize({500, 500}), _360p);   // exactly 250000
    EXPECT_EQ(zul::resolutionForSize({501, 500}), _480p);
    EXPECT_EQ(zul::resolutionForSize({3'037'000'499, 3'037'000'499}), _4K);  // just below 2^63

    const std::pair<std::int64_t, VideoResolution> bandwidths[] = {
        {0, _144p},          {500'000, _144p},    {500'001, _240p},     {1'000'000, _240p},
        {1'000'001, _360p},  {1'500'000, _360p},  {1'500'001, _480p},   {3'000'000, _480p},
        {3'000'001, _720p},  {4'800'000, _720p},  {4'800'001, _1080p},  {10'000'000, _1080p},
        {10'000'001, _4K},   {std::numeric_limits<std::int64_t>::max(), _4K},
    };
    for (const auto& [bandwidth, expected] : bandwidths) EXPECT_EQ(zul::resolutionForBandwidth(bandwidth), expected) << bandwidth;
}

TEST(VideoResolutionDeathTest, AnOverflowingAreaOrANegativeBandwidthStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(zul::resolutionForSize({3'037'000'500, 3'037'000'500}), "Fatal error: .*overflow");
    EXPECT_DEATH(zul::resolutionForSize({std::numeric_limits<std::int64_t>::max(), -2}), "Fatal error: .*overflow");
    EXPECT_DEATH(zul::resolutionForBandwidth(-1),
                 "^Fatal error: Recieved -1: file ZulFoundation/VideoResolution, line 76\n$");
}

}  // namespace
