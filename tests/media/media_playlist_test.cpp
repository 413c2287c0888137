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
using Range = std::pair<std::optional<std::int64_t>, std::optional<std::int64_t>>;  // length, start

using zul::test::TrackingReader;

MediaPlaylist parse(std::string_view text) {
    zul::StringBufferedReader reader(text);
    return MediaPlaylist::create(reader);
}

MediaSegment segment(std::optional<float> duration, std::int64_t sequence, std::optional<std::string> title,
                     std::string path) {
    MediaSegment result;
    result.duration = duration;
    result.sequence = sequence;
    result.title = std::move(title);
    result.path = std::move(path);
    return result;
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
    EXPECT_FLOAT_EQ(playlist.duration(), 9.97667F + 10.0F);
    EXPECT_EQ(playlist.getSegment(1), expected.segments[1]);
    EXPECT_EQ(playlist.getSegment(2), std::nullopt);
    EXPECT_EQ(playlist.getSegment(-1), std::nullopt);

    // Blank lines, comments, unknown tags and URIs before any segment tag are skipped.
    EXPECT_EQ(parse("#EXTM3U\r\n\r\n#EXTINF:4.5,t\r\n\r\nsegment.ts\r\n").segments,
              std::vector<MediaSegment>{segment(4.5F, 0, "t", "segment.ts")});
    EXPECT_EQ(parse("early.ts\n# a comment\n#EXT-X-UNKNOWN:1\n#EXTINF:1,\nlate.ts\n").segments,
              std::vector<MediaSegment>{segment(1.0F, 0, "", "late.ts")});
    // Prefixes are case-sensitive: a lower-case tag is only a comment.
    EXPECT_EQ(parse("#extinf:8,lower\nD.ts\n").getSegmentCount(), 0);
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
        {"#EXTINF:0.5,", 0.5F, ""},
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
    const MediaPlaylist playlist = parse("#EXT-X-MEDIA-SEQUENCE:100\n#EXTINF:2,\na.ts\n#EXTINF:2,\nb.ts\n");
    EXPECT_EQ(playlist.mediaSequence, 100);
    EXPECT_EQ(sequences(playlist), (std::vector<std::int64_t>{100, 101}));

    // A later tag restarts the numbering where it stands.
    const MediaPlaylist restarted = parse("#EXTINF:2,\na.ts\n#EXT-X-MEDIA-SEQUENCE:7\nb.ts\n");
    EXPECT_EQ(restarted.mediaSequence, 7);
    EXPECT_EQ(sequences(restarted), (std::vector<std::int64_t>{0, 7}));

    // Non-numeric values change nothing, nor does a number that does not fit an integer.
    const MediaPlaylist junk =
        parse("#EXT-X-MEDIA-SEQUENCE:5\n#EXTINF:2,\na.ts\n#EXT-X-MEDIA-SEQUENCE:abc\n#EXT-X-MEDIA-SEQUENCE:\nb.ts\n");
    EXPECT_EQ(junk.mediaSequence, 5);
    EXPECT_EQ(sequences(junk), (std::vector<std::int64_t>{5, 6}));
    const MediaPlaylist huge = parse("#EXT-X-MEDIA-SEQUENCE:99999999999999999999\n#EXTINF:2,\na.ts\n");
    EXPECT_EQ(huge.mediaSequence, std::nullopt);
    EXPECT_EQ(sequences(huge), std::vector<std::int64_t>{0});

    // The version and the target duration take the digits after the last colon.
    const MediaPlaylist header = parse("#EXT-X-VERSION:4;junk\n#EXT-X-TARGETDURATION:6 \n");
    EXPECT_EQ(header.version, 4);
    EXPECT_EQ(header.targetDuration, 6);
    EXPECT_EQ(parse("#EXT-X-TARGETDURATION:1:2\n").targetDuration, 2);
    // A later version replaces the earlier one; a non-numeric one leaves it.
    EXPECT_EQ(parse("#EXT-X-VERSION:3\n#EXT-X-VERSION:7\n").version, 7);
    EXPECT_EQ(parse("#EXT-X-VERSION:3\n#EXT-X-VERSION:x\n").version, 3);
    EXPECT_EQ(parse("#EXT-X-VERSION:three\n").version, std::nullopt);
    // A non-numeric target duration resets it.
    EXPECT_EQ(parse("#EXT-X-TARGETDURATION:10\n#EXT-X-TARGETDURATION:abc\n").targetDuration, std::nullopt);
    EXPECT_EQ(parse("#EXT-X-TARGETDURATION:abc\n#EXT-X-TARGETDURATION:8\n").targetDuration, 8);
}

TEST(MediaPlaylistTest, ByteRangesApplyToThePendingSegmentOnly) {
    EXPECT_EQ(ranges(parse("#EXTINF:4,\n#EXT-X-BYTERANGE:1000@2000\na.ts\n"
                           "#EXTINF:4,\n#EXT-X-BYTERANGE:1000\nb.ts\n"
                           "#EXTINF:4,\n#EXT-X-BYTERANGE:12x@y\nc.ts\n"
                           "#EXTINF:4,\n#EXT-X-BYTERANGE:500@\nd.ts\n")),
              (std::vector<Range>{{1000, 2000}, {1000, std::nullopt}, {std::nullopt, std::nullopt}, {500, std::nullopt}}));
    // A range without a start clears the start an earlier range gave the same pending segment.
    EXPECT_EQ(ranges(parse("#EXTINF:4,\n#EXT-X-BYTERANGE:10@20\na.ts\n#EXT-X-BYTERANGE:30\nb.ts\n")),
              (std::vector<Range>{{10, 20}, {30, std::nullopt}}));
    // Before any segment tag a range (and a discontinuity) is ignored; a new segment tag drops it.
    EXPECT_EQ(parse("#EXT-X-BYTERANGE:1000@2000\n#EXT-X-DISCONTINUITY\n#EXTINF:4,\na.ts\n").segments,
              std::vector<MediaSegment>{segment(4.0F, 0, "", "a.ts")});
    EXPECT_EQ(parse("#EXTINF:4,\n#EXT-X-BYTERANGE:10@20\n#EXTINF:5,\na.ts\n").segments,
              std::vector<MediaSegment>{segment(5.0F, 0, "", "a.ts")});

    // Every URI after a segment tag repeats it, range included, under the next number.
    std::vector<MediaSegment> expected = {segment(3.5F, 0, "title", "a.ts"), segment(3.5F, 1, "title", "b.ts")};
    for (MediaSegment& item : expected) {
        item.subrangeLength = 10;
        item.subrangeStart = 0;
    }
    EXPECT_EQ(parse("#EXTINF:3.5,title\n#EXT-X-BYTERANGE:10@0\na.ts\nb.ts\n").segments, expected);
}

TEST(MediaPlaylistTest, DiscontinuityMarksThePendingSegment) {
    // After the segment tag: the next URI's segment is marked, and so is every later URI until a
    // new segment tag.
    EXPECT_EQ(breaks(parse("#EXTINF:4,\na.ts\n#EXTINF:4,\n#EXT-X-DISCONTINUITY\nb.ts\nc.ts\n#EXTINF:4,\nd.ts\n")),
              (std::vector<bool>{false, true, true, false}));
    // Before it, the tag marks the segment still pending from "a.ts", which the next #EXTINF replaces.
    EXPECT_EQ(breaks(parse("#EXTINF:4,\na.ts\n#EXT-X-DISCONTINUITY\n#EXTINF:4,\nb.ts\n")),
              (std::vector<bool>{false, false}));
    // Tags are matched by prefix, so the discontinuity sequence tag also marks the segment.
    EXPECT_EQ(breaks(parse("#EXTINF:4,\n#EXT-X-DISCONTINUITY-SEQUENCE:3\na.ts\n")), std::vector<bool>{true});
}

TEST(MediaPlaylistTest, SampleAESKeyGivesTheContentKeyIdentifier) {
    const auto key = [](std::string_view text) { return parse(text).contentKeyIdentifier; };
    EXPECT_EQ(key("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://key-1\",KEYFORMAT=\"x\"\n"), "skd://key-1");
    // The later key wins, even when it has no URI; other methods are ignored.
    EXPECT_EQ(key("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"a\"\n#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"b\"\n"), "b");
    EXPECT_EQ(key("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"a\"\n#EXT-X-KEY:METHOD=SAMPLE-AES\n"), "");
    EXPECT_EQ(key("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"a\"\n#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n"), "a");
    EXPECT_EQ(key("#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n"), "");

    // The identifier needs both quotes; the attribute's name is matched in any case.
    const std::pair<std::string_view, std::string_view> lines[] = {
        {"#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://k\"", "skd://k"}, {"x,UrI=\"k\",y", "k"},
        {"URI=\"unterminated", ""}, {"URI=unquoted", ""}, {"URI= \"spaced\"", ""}, {"URI=\"a\"URI=\"b\"", "a"},
        {"URI", ""}, {"", ""}};
    for (const auto& [line, expected] : lines) {
        EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier(line), expected) << line;
    }
}

TEST(MediaPlaylistTest, DurationSumsSegmentsInOrderCountingAbsentOnesAsZero) {
    EXPECT_EQ(parse("").duration(), 0.0F);
    EXPECT_EQ(parse("#EXTINF:x,\na.ts\n#EXTINF:,\nb.ts\n").duration(), 0.0F);
    EXPECT_EQ(parse("#EXTINF:x,\na.ts\n#EXTINF:2.25,\nb.ts\n#EXTINF:x,\nc.ts\n").duration(), 2.25F);
    // Summed as floats in list order: 2^24 + 1 + 1 stays 2^24.
    MediaPlaylist playlist;
    for (const float value : {16777216.0F, 1.0F, 1.0F}) playlist.addSegment(segment(value, 0, std::nullopt, ""));
    EXPECT_EQ(playlist.duration(), 16777216.0F);
}

TEST(MediaPlaylistTest, LargePlaylistKeepsEverySegment) {
    std::string text = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:10\n";
    for (int i = 0; i < 1000; ++i) text += "#EXTINF:2.5,t" + std::to_string(i) + "\ns.ts\n";
    const MediaPlaylist playlist = parse(text);
    ASSERT_EQ(playlist.getSegmentCount(), 1000);
    EXPECT_EQ(playlist.segments.back(), segment(2.5F, 1009, "t999", "s.ts"));
    EXPECT_FLOAT_EQ(playlist.duration(), 2500.0F);
}

}  // namespace
