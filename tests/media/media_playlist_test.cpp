#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "media/tracking_reader.hpp"
#include "zul/media/buffered_reader.hpp"
#include "zul/media/media_playlist.hpp"

namespace {

using zul::MediaPlaylist;
using zul::MediaSegment;
using zul::test::TrackingReader;
using Range = std::pair<std::optional<std::int64_t>, std::optional<std::int64_t>>;  // length, start

MediaPlaylist parse(std::string_view text) {
    zul::StringBufferedReader reader(text);
    return MediaPlaylist::create(reader);
}

MediaSegment segment(std::optional<float> duration, std::int64_t sequence, std::optional<std::string> title,
                     std::string path) {
    return {.duration = duration, .sequence = sequence, .subrangeLength = {}, .subrangeStart = {},
            .title = std::move(title), .discontinuity = false, .path = std::move(path)};
}

// One field of every segment, in order, so a whole playlist's worth compares in one check.
template <class F>
auto each(const MediaPlaylist& playlist, F field) {
    std::vector<decltype(field(playlist.segments.front()))> values;
    for (const MediaSegment& item : playlist.segments) values.push_back(field(item));
    return values;
}
std::vector<std::int64_t> sequences(const MediaPlaylist& p) { return each(p, [](auto& s) { return s.sequence; }); }
std::vector<bool> breaks(const MediaPlaylist& p) { return each(p, [](auto& s) { return s.discontinuity; }); }
std::vector<Range> ranges(const MediaPlaylist& p) {
    return each(p, [](auto& s) { return Range{s.subrangeLength, s.subrangeStart}; });
}

TEST(MediaPlaylistTest, ReadsHeaderValuesAndSegmentsSkippingWhatItDoesNotKnowAndClosesTheReader) {
    TrackingReader reader(
        "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:10\n"
        "#EXTINF:9.97667,\nseg0.ts\n#EXTINF:10,Second segment\nseg1.ts\n#EXT-X-ENDLIST\n");
    const MediaPlaylist playlist = MediaPlaylist::create(reader);
    EXPECT_TRUE(reader.closed());
    // Compared whole: the stream attributes of a master playlist's variant stay at their defaults.
    MediaPlaylist expected;
    expected.version = 3;
    expected.targetDuration = 10;
    expected.segments = {segment(9.97667F, 0, "", "seg0.ts"), segment(10.0F, 1, "Second segment", "seg1.ts")};
    EXPECT_EQ(playlist, expected);
    EXPECT_EQ(playlist.getSegment(1), expected.segments[1]);
    EXPECT_EQ(playlist.getSegment(2), std::nullopt);
    EXPECT_EQ(playlist.getSegment(-1), std::nullopt);

    // Blank lines, comments, unknown tags and URIs before any segment tag are skipped. Prefixes are
    // case-sensitive: a lower-case tag is only a comment.
    EXPECT_EQ(parse("#extinf:8,lower\r\nearly.ts\r\n\r\n# a comment\n#EXT-X-UNKNOWN:1\n#EXTINF:1,t\r\n\r\n"
                    "late.ts\n").segments,
              std::vector<MediaSegment>{segment(1.0F, 0, "t", "late.ts")});
}

TEST(MediaPlaylistTest, SegmentTagsSplitAtTheLastColonBeforeADigitAndConvertOnlyWholeNumbers) {
    const struct {
        std::string_view tag;
        std::optional<float> duration;
        std::string_view title;
    } cases[] = {
        {"#EXTINF:5,a,b", std::nullopt, "b"},  // the title is after the last comma, the rest is the duration
        {"#EXTINF:6,tvg:name", 6.0F, "tvg:name"},  // a colon in the title not followed by a digit
        {"#EXTINF:7,a:8,b", 8.0F, "b"},            // a later colon followed by a digit wins
        // No digit right after the colon, or no comma: nothing matches and the title is the whole line.
        {"#EXTINF:abc,x", std::nullopt, "#EXTINF:abc,x"},
        {"#EXTINF:9", std::nullopt, "#EXTINF:9"},
        {"#EXTINF:1e1,sci", 10.0F, "sci"},
        {"#EXTINF:2s,", std::nullopt, ""},
        {"#EXTINF:1e39,", std::numeric_limits<float>::infinity(), ""},
        {"#EXTINF:1e-50,", 0.0F, ""},
    };
    for (const auto& c : cases) {
        const MediaPlaylist playlist = parse(std::string(c.tag) + "\nA.ts\n");
        ASSERT_EQ(playlist.getSegmentCount(), 1) << c.tag;
        EXPECT_EQ(playlist.segments[0], segment(c.duration, 0, std::string(c.title), "A.ts")) << c.tag;
    }
}

TEST(MediaPlaylistTest, MediaSequenceVersionAndTargetDurationTakeOnlyNumbers) {
    // A later tag restarts the numbering where it stands. Non-numeric values change nothing, nor does
    // a number that does not fit an integer.
    const MediaPlaylist playlist = parse("#EXTINF:2,\na.ts\n#EXT-X-MEDIA-SEQUENCE:100\nb.ts\n#EXTINF:2,\nc.ts\n"
                                         "#EXT-X-MEDIA-SEQUENCE:abc\n#EXT-X-MEDIA-SEQUENCE:\nd.ts\n");
    EXPECT_EQ(playlist.mediaSequence, 100);
    EXPECT_EQ(sequences(playlist), (std::vector<std::int64_t>{0, 100, 101, 102}));
    EXPECT_EQ(parse("#EXT-X-MEDIA-SEQUENCE:99999999999999999999\n").mediaSequence, std::nullopt);

    // The version and the target duration take the digits after the last colon. A later version
    // replaces the earlier one; a non-numeric one leaves it.
    const MediaPlaylist header =
        parse("#EXT-X-VERSION:3\n#EXT-X-VERSION:4;junk\n#EXT-X-VERSION:x\n#EXT-X-TARGETDURATION:1:6 \n");
    EXPECT_EQ(header.version, 4);
    EXPECT_EQ(header.targetDuration, 6);
    // A non-numeric target duration resets it.
    EXPECT_EQ(parse("#EXT-X-TARGETDURATION:10\n#EXT-X-TARGETDURATION:abc\n").targetDuration, std::nullopt);
}

TEST(MediaPlaylistTest, ByteRangesAndDiscontinuitiesApplyToThePendingSegmentOnly) {
    EXPECT_EQ(ranges(parse("#EXTINF:4,\n#EXT-X-BYTERANGE:1000@2000\na.ts\n"
                           "#EXTINF:4,\n#EXT-X-BYTERANGE:1000\nb.ts\n"
                           "#EXTINF:4,\n#EXT-X-BYTERANGE:12x@y\nc.ts\n"
                           "#EXTINF:4,\n#EXT-X-BYTERANGE:500@\nd.ts\n")),
              (std::vector<Range>{{1000, 2000}, {1000, std::nullopt}, {std::nullopt, std::nullopt}, {500, std::nullopt}}));
    // Every URI after a segment tag repeats it, range included; a range without a start then
    // clears the start an earlier range gave the same pending segment, leaving the listed ones.
    EXPECT_EQ(ranges(parse("#EXTINF:4,\n#EXT-X-BYTERANGE:10@20\na.ts\nb.ts\n#EXT-X-BYTERANGE:30\nc.ts\n")),
              (std::vector<Range>{{10, 20}, {10, 20}, {30, std::nullopt}}));
    // Before any segment tag a range (and a discontinuity) is ignored; a new segment tag drops one.
    EXPECT_EQ(parse("#EXT-X-BYTERANGE:1000@2000\n#EXT-X-DISCONTINUITY\n#EXTINF:4,\n#EXT-X-BYTERANGE:10@20\n"
                    "#EXTINF:5,\na.ts\n").segments,
              std::vector<MediaSegment>{segment(5.0F, 0, "", "a.ts")});

    // Before the segment tag, a discontinuity marks the segment still pending from "a.ts", which the
    // next #EXTINF replaces. After it, the next URI's segment is marked, and so is every later URI
    // until a new segment tag. Tags are matched by prefix, so the sequence tag also marks one.
    EXPECT_EQ(breaks(parse("#EXTINF:4,\na.ts\n#EXT-X-DISCONTINUITY\n#EXTINF:4,\n#EXT-X-DISCONTINUITY\nb.ts\nc.ts\n"
                           "#EXTINF:4,\nd.ts\n#EXTINF:4,\n#EXT-X-DISCONTINUITY-SEQUENCE:3\ne.ts\n")),
              (std::vector<bool>{false, true, true, false, true}));
}

TEST(MediaPlaylistTest, SampleAESKeyGivesTheContentKeyIdentifier) {
    const auto key = [](std::string_view text) { return parse(text).contentKeyIdentifier; };
    // The later key wins, even when it has no URI; other methods are ignored.
    EXPECT_EQ(key("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"a\"\n#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"b\"\n"), "b");
    EXPECT_EQ(key("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"a\"\n#EXT-X-KEY:METHOD=SAMPLE-AES\n"), "");
    EXPECT_EQ(key("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"a\"\n#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n"), "a");

    // The identifier needs both quotes; the attribute's name is matched in any case.
    const std::pair<std::string_view, std::string_view> lines[] = {
        {"x,UrI=\"skd://k\",y", "skd://k"}, {"URI=\"unterminated", ""}, {"URI=unquoted", ""},
        {"URI= \"spaced\"", ""}, {"URI=\"a\"URI=\"b\"", "a"}, {"URI", ""}};
    for (const auto& [line, expected] : lines) {
        EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier(line), expected) << line;
    }
}

TEST(MediaPlaylistTest, DurationSumsSegmentsInOrderCountingAbsentOnesAsZero) {
    EXPECT_EQ(parse("#EXTINF:x,\na.ts\n#EXTINF:2.25,\nb.ts\n#EXTINF:x,\nc.ts\n").duration(), 2.25F);
    // Summed as floats in list order: 2^24 + 1 + 1 stays 2^24.
    MediaPlaylist playlist;
    for (const float value : {16777216.0F, 1.0F, 1.0F}) playlist.addSegment(segment(value, 0, std::nullopt, ""));
    EXPECT_EQ(playlist.duration(), 16777216.0F);
}

}  // namespace
