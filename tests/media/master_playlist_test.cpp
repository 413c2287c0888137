#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "media/tracking_reader.hpp"
#include "zul/media/buffered_reader.hpp"
#include "zul/media/master_playlist.hpp"

namespace {

using zul::MasterPlaylist;
using zul::MediaPlaylist;
using zul::VideoSize;
using Parameters = zul::OrderedMap<std::string>;

MasterPlaylist parse(std::string_view text) {
    zul::StringBufferedReader reader(text);
    return MasterPlaylist::create(reader);
}

MediaPlaylist variant(std::int64_t programId, std::int64_t bandwidth, std::optional<VideoSize> resolution,
                      std::string path) {
    MediaPlaylist result;
    result.programId = programId;
    result.bandwidth = bandwidth;
    result.resolution = resolution;
    result.path = std::move(path);
    return result;
}

using Variants = std::vector<MediaPlaylist>;

TEST(MasterPlaylistTest, ReadsVariantsInOrderWithTheirAttributes) {
    zul::test::TrackingReader reader(
        "#EXTM3U\n"
        "#EXT-X-VERSION:3\n"
        "#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=1280000,RESOLUTION=1280x720,CODECS=\"avc1.4d401f,mp4a.40.2\"\n"
        "http://example.com/720.m3u8\n"
        "\n"
        "# a comment\n"
        "#EXT-X-STREAM-INF:PROGRAM-ID=2,BANDWIDTH=400000,RESOLUTION=640x360_low\n"
        "low.m3u8\n");
    const MasterPlaylist master = MasterPlaylist::create(reader);
    EXPECT_TRUE(reader.closed());
    // Compared whole: a variant has no path of its own, no header values and no segments.
    MasterPlaylist expected;
    expected.playlists = {variant(1, 1280000, VideoSize{1280, 720}, "http://example.com/720.m3u8"),
                          variant(2, 400000, VideoSize{640, 360}, "low.m3u8")};
    EXPECT_EQ(master, expected);
    EXPECT_EQ(master.getPlaylist(1), expected.playlists[1]);
    EXPECT_EQ(master.getPlaylist(2), std::nullopt);
    EXPECT_EQ(master.getPlaylist(-1), std::nullopt);
}

TEST(MasterPlaylistTest, UnusableAttributeValuesBecomeDefaultsAndEachURIPairsWithTheLatestStreamTag) {
    // (The header tag is optional: none of these playlists has one.)
    EXPECT_EQ(parse("#EXT-X-STREAM-INF:PROGRAM-ID=abc,BANDWIDTH=,RESOLUTION=1280X720\na.m3u8\n"
                    "#EXT-X-STREAM-INF:BANDWIDTH=12.5,RESOLUTION=-1x720\nb.m3u8\n"
                    // Quoted values keep their quotes, so they are not numbers or sizes.
                    "#EXT-X-STREAM-INF:BANDWIDTH=\"100\",RESOLUTION=\"640x360\"\nc.m3u8\n"
                    // A sign is outside the value class, so signed values are not attributes at all.
                    "#EXT-X-STREAM-INF:PROGRAM-ID=-3,BANDWIDTH=+7,RESOLUTION=-1x2\nd.m3u8\n")
                  .playlists,
              (Variants{variant(0, 0, std::nullopt, "a.m3u8"), variant(0, 0, std::nullopt, "b.m3u8"),
                        variant(0, 0, std::nullopt, "c.m3u8"), variant(0, 0, std::nullopt, "d.m3u8")}));

    // A stream tag without attributes still replaces the earlier one.
    EXPECT_EQ(parse("#EXT-X-STREAM-INF:BANDWIDTH=5,RESOLUTION=2x2\n#EXT-X-STREAM-INF\nplain.m3u8\n").playlists,
              Variants{variant(0, 0, std::nullopt, "plain.m3u8")});
    // Every URI after a stream tag repeats its attributes.
    EXPECT_EQ(parse("#EXT-X-STREAM-INF:BANDWIDTH=800000\nmain.m3u8\nbackup.m3u8\n").playlists,
              (Variants{variant(0, 800000, std::nullopt, "main.m3u8"), variant(0, 800000, std::nullopt, "backup.m3u8")}));
    // URIs before any stream tag, and other tags (prefixes are case-sensitive), are ignored.
    EXPECT_EQ(parse("orphan.m3u8\n"
                    "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"English\",URI=\"audio.m3u8\"\n"
                    "#EXT-X-I-FRAME-STREAM-INF:BANDWIDTH=9,URI=\"iframe.m3u8\"\n"
                    "#ext-x-stream-inf:BANDWIDTH=9\n"
                    "still-orphan.m3u8\n"
                    "#EXT-X-STREAM-INF:BANDWIDTH=1\n"
                    "kept.m3u8\n")
                  .playlists,
              Variants{variant(0, 1, std::nullopt, "kept.m3u8")});
}

TEST(MasterPlaylistTest, GetParametersTakesWordOrQuotedValuesInOrderLaterKeysOverwritingInPlace) {
    const std::pair<std::string_view, Parameters> cases[] = {
        {"#EXT-X-STREAM-INF:BANDWIDTH=1280000,RESOLUTION=1280x720,CODECS=\"avc1.4d401f,mp4a.40.2\"",
         {{"BANDWIDTH", "1280000"}, {"RESOLUTION", "1280x720"}, {"CODECS", "\"avc1.4d401f,mp4a.40.2\""}}},
        {"NAME=\"English (US)\",LANGUAGE=\"en US.x\"", {{"LANGUAGE", "\"en US.x\""}}},
        // A value stops at a character outside its class; the rest is not an attribute.
        {"URI=http://host/a,FRAME-RATE=29.97", {{"URI", "http"}, {"FRAME-RATE", "29.97"}}},
        {"K=\u00E9t\u00E9\u0663", {{"K", "\u00E9t\u00E9\u0663"}}},
        {"no attributes here", {}},
        {"=1,A=,B=\"\"", {}},
        {"A=1,B=2,A=3", {{"A", "3"}, {"B", "2"}}},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(MasterPlaylist::getParameters(text), expected) << text;
}

}  // namespace
