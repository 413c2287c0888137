#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "zul/media/video_resolution.hpp"

namespace {

using zul::VideoResolution;
using zul::VideoSize;
using zul::VideoSizeError;

VideoSizeError::Kind failureOf(std::string_view text) {
    try {
        const VideoSize size = VideoSize::fromString(text);
        ADD_FAILURE() << "\"" << text << "\" parsed as " << size.width << "x" << size.height;
    } catch (const VideoSizeError& error) {
        return error.kind();
    }
    return VideoSizeError::Kind::invalid;
}

TEST(VideoSizeTest, ParsesWidthAndHeight) {
    EXPECT_EQ(VideoSize::fromString("1280x720"), (VideoSize{1280, 720}));
    EXPECT_EQ(VideoSize::fromString("1920x1080_hdr"), (VideoSize{1920, 1080}));
    EXPECT_EQ(VideoSize::fromString("0x0"), (VideoSize{0, 0}));
    EXPECT_EQ(VideoSize::fromString("+640x+360"), (VideoSize{640, 360}));
    EXPECT_EQ(VideoSize::fromString("007x08"), (VideoSize{7, 8}));
}

TEST(VideoSizeTest, DropsEmptyPiecesAndIgnoresExtraOnes) {
    EXPECT_EQ(VideoSize::fromString("__1280x720_a_b"), (VideoSize{1280, 720}));
    EXPECT_EQ(VideoSize::fromString("x1280xx720x"), (VideoSize{1280, 720}));
    EXPECT_EQ(VideoSize::fromString("1280x720x3"), (VideoSize{1280, 720}));
    EXPECT_EQ(VideoSize::fromString("9223372036854775807x1"), (VideoSize{std::numeric_limits<std::int64_t>::max(), 1}));
}

TEST(VideoSizeTest, RejectsTextThatIsNotTwoIntegers) {
    for (std::string_view text : {"", "_", "___", "abc", "1280", "1280x", "x720", "1280X720", "1280*720", "12.5x720",
                                  "1280x720p", " 1280x720", "1280 x720", "1280x 720", "+-1x2", "1x+", "1x-",
                                  "9223372036854775808x1", "1280_x720"}) {
        EXPECT_EQ(failureOf(text), VideoSizeError::Kind::parsingError) << text;
    }
}

TEST(VideoSizeTest, RejectsNegativeDimensionsAsInvalid) {
    EXPECT_EQ(failureOf("-1x720"), VideoSizeError::Kind::invalid);
    EXPECT_EQ(failureOf("1280x-720"), VideoSizeError::Kind::invalid);
    EXPECT_EQ(failureOf("-0x-5_hdr"), VideoSizeError::Kind::invalid);
    // An unparsable dimension wins over a negative one.
    EXPECT_EQ(failureOf("-1xabc"), VideoSizeError::Kind::parsingError);
    EXPECT_EQ(VideoSize::fromString("-0x0"), (VideoSize{0, 0}));
}

TEST(VideoSizeTest, ErrorsDescribeTheirKind) {
    EXPECT_STREQ(VideoSizeError::invalid().what(), "invalid");
    EXPECT_STREQ(VideoSizeError::parsingError().what(), "parsingError");
    EXPECT_EQ(VideoSizeError::parsingError().description(), "parsingError");
}

TEST(VideoResolutionTest, RawValuesAndDescriptions) {
    const std::string_view names[] = {"auto", "144p", "240p", "360p", "480p", "720p", "1080p", "2K", "4K"};
    for (std::uint8_t raw = 0; raw < 9; ++raw) {
        const auto resolution = zul::videoResolution(raw);
        ASSERT_TRUE(resolution.has_value()) << int{raw};
        EXPECT_EQ(static_cast<std::uint8_t>(*resolution), raw);
        EXPECT_EQ(zul::description(*resolution), names[raw]);
    }
    EXPECT_EQ(zul::videoResolution(9), std::nullopt);
    EXPECT_EQ(zul::videoResolution(255), std::nullopt);
}

TEST(VideoResolutionTest, HDStartsAt720p) {
    EXPECT_FALSE(zul::isHD(VideoResolution::auto_));
    EXPECT_FALSE(zul::isHD(VideoResolution::_144p));
    EXPECT_FALSE(zul::isHD(VideoResolution::_480p));
    EXPECT_TRUE(zul::isHD(VideoResolution::_720p));
    EXPECT_TRUE(zul::isHD(VideoResolution::_1080p));
    EXPECT_TRUE(zul::isHD(VideoResolution::_4K));
}

TEST(VideoResolutionTest, AreaLadderBoundaries) {
    const std::pair<std::int64_t, VideoResolution> cases[] = {
        {std::numeric_limits<std::int64_t>::min(), VideoResolution::_360p},
        {-1, VideoResolution::_360p},
        {0, VideoResolution::_360p},
        {250'000, VideoResolution::_360p},
        {250'001, VideoResolution::_480p},
        {600'000, VideoResolution::_480p},
        {600'001, VideoResolution::_720p},
        {1'300'000, VideoResolution::_720p},
        {1'300'001, VideoResolution::_1080p},
        {2'500'000, VideoResolution::_1080p},
        {2'500'001, VideoResolution::_2K},
        {6'400'000, VideoResolution::_2K},
        {6'400'001, VideoResolution::_4K},
        {std::numeric_limits<std::int64_t>::max(), VideoResolution::_4K},
    };
    for (const auto& [area, expected] : cases) EXPECT_EQ(zul::resolutionForVideoSizeArea(area), expected) << area;
}

TEST(VideoResolutionTest, SizeUsesItsArea) {
    EXPECT_EQ(zul::resolutionForSize({640, 360}), VideoResolution::_360p);   // 230400
    EXPECT_EQ(zul::resolutionForSize({854, 480}), VideoResolution::_480p);   // 409920
    EXPECT_EQ(zul::resolutionForSize({1280, 720}), VideoResolution::_720p);  // 921600
    EXPECT_EQ(zul::resolutionForSize({1920, 1080}), VideoResolution::_1080p);
    EXPECT_EQ(zul::resolutionForSize({2560, 1440}), VideoResolution::_2K);
    EXPECT_EQ(zul::resolutionForSize({3840, 2160}), VideoResolution::_4K);
    EXPECT_EQ(zul::resolutionForSize({500, 500}), VideoResolution::_360p);   // exactly 250000
    EXPECT_EQ(zul::resolutionForSize({3'037'000'499, 3'037'000'499}), VideoResolution::_4K);  // just below 2^63
}

TEST(VideoResolutionTest, BandwidthLadderBoundaries) {
    const std::pair<std::int64_t, VideoResolution> cases[] = {
        {0, VideoResolution::_144p},
        {500'000, VideoResolution::_144p},
        {500'001, VideoResolution::_240p},
        {1'000'000, VideoResolution::_240p},
        {1'000'001, VideoResolution::_360p},
        {1'500'000, VideoResolution::_360p},
        {1'500'001, VideoResolution::_480p},
        {3'000'000, VideoResolution::_480p},
        {3'000'001, VideoResolution::_720p},
        {4'800'000, VideoResolution::_720p},
        {4'800'001, VideoResolution::_1080p},
        {10'000'000, VideoResolution::_1080p},
        {10'000'001, VideoResolution::_4K},
        {std::numeric_limits<std::int64_t>::max(), VideoResolution::_4K},
    };
    for (const auto& [bandwidth, expected] : cases) {
        EXPECT_EQ(zul::resolutionForBandwidth(bandwidth), expected) << bandwidth;
    }
}

TEST(VideoResolutionDeathTest, AnOverflowingAreaStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(zul::resolutionForSize({3'037'000'500, 3'037'000'500}), "Fatal error: .*overflow");
    EXPECT_DEATH(zul::resolutionForSize({std::numeric_limits<std::int64_t>::max(), -2}), "Fatal error: .*overflow");
}

TEST(VideoResolutionDeathTest, ANegativeBandwidthStopsTheProcessNamingTheValue) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(zul::resolutionForBandwidth(-1),
                 "^Fatal error: Recieved -1: file ZulFoundation/VideoResolution, line 76\n$");
    EXPECT_DEATH(zul::resolutionForBandwidth(std::numeric_limits<std::int64_t>::min()),
                 "^Fatal error: Recieved -9223372036854775808: file ZulFoundation/VideoResolution, line 76\n$");
}

}  // namespace
