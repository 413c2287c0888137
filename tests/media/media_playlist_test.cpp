#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zul/media/buffered_reader.hpp"
#include "zul/media/media_playlist.hpp"

namespace {

using zul::MediaPlaylist;
using zul::MediaSegment;

// Counts reads and records whether the parser closed it.
class TrackingReader final : public zul::BufferedReader {
public:
    explicit TrackingReader(std::string_view text) : inner_(text) {}
    std::optional<std::string> readLine() override { return closed_ ? std::nullopt : inner_.readLine(); }
    void close() override {
        closed_ = true;
        inner_.close();
    }
    bool closed() const { return closed_; }

private:
    zul::StringBufferedReader inner_;
    bool closed_ = false;
};

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

TEST(MediaPlaylistTest, ReadsHeaderValuesAndSegments) {
    const MediaPlaylist playlist = parse(
        "#EXTM3U\n"
        "#EXT-X-VERSION:3\n"
        "#EXT-X-TARGETDURATION:10\n"
        "#EXTINF:9.97667,\n"
        "seg0.ts\n"
        "#EXTINF:10,Second segment\n"
        "seg1.ts\n"
        "#EXT-X-ENDLIST\n");
    EXPECT_EQ(playlist.version, 3);
    EXPECT_EQ(playlist.targetDuration, 10);
    EXPECT_EQ(playlist.mediaSequence, std::nullopt);
    EXPECT_EQ(playlist.contentKeyIdentifier, "");
    EXPECT_EQ(playlist.path, std::nullopt);
    EXPECT_EQ(playlist.programId, 0);
    EXPECT_EQ(playlist.bandwidth, 0);
    EXPECT_EQ(playlist.resolution, std::nullopt);
    ASSERT_EQ(playlist.getSegmentCount(), 2);
    EXPECT_EQ(playlist.segments[0], segment(9.97667F, 0, "", "seg0.ts"));
    EXPECT_EQ(playlist.segments[1], segment(10.0F, 1, "Second segment", "seg1.ts"));
    EXPECT_FLOAT_EQ(playlist.duration(), 9.97667F + 10.0F);
}

TEST(MediaPlaylistTest, ParsesWithCarriageReturnLineEndingsAndBlankLines) {
    const MediaPlaylist playlist = parse("#EXTM3U\r\n\r\n#EXTINF:4.5,t\r\n\r\nsegment.ts\r\n");
    ASSERT_EQ(playlist.getSegmentCount(), 1);
    EXPECT_EQ(playlist.segments[0], segment(4.5F, 0, "t", "segment.ts"));
}

TEST(MediaPlaylistTest, SegmentDurationAndTitleComeFromTheLastColonBeforeADigit) {
    const MediaPlaylist playlist = parse(
        "#EXTINF:5,a,b\nA.ts\n"           // the title is after the last comma, the rest is the duration
        "#EXTINF:6,tvg:name\nB.ts\n"      // a colon in the title not followed by a digit
        "#EXTINF:7,a:8,b\nC.ts\n"         // a later colon followed by a digit wins
        "#extinf:8,lower\nD.ts\n"         // prefixes are case-sensitive: only a comment
        "#EXTINF:abc,x\nE.ts\n"           // no digit after the colon: nothing matches
        "#EXTINF:9\nF.ts\n"               // no comma
        "#EXTINF:1e1,sci\nG.ts\n"
        "#EXTINF:-2,neg\nH.ts\n");        // no digit right after the colon
    ASSERT_EQ(playlist.getSegmentCount(), 8);
    EXPECT_EQ(playlist.segments[0], segment(std::nullopt, 0, "b", "A.ts"));
    EXPECT_EQ(playlist.segments[1], segment(6.0F, 1, "tvg:name", "B.ts"));
    EXPECT_EQ(playlist.segments[2], segment(8.0F, 2, "b", "C.ts"));
    // "D.ts" repeats the pending "C" segment under the next number.
    EXPECT_EQ(playlist.segments[3], segment(8.0F, 3, "b", "D.ts"));
    // Unmatched lines come back whole: no duration, the whole line as the title.
    EXPECT_EQ(playlist.segments[4], segment(std::nullopt, 4, "#EXTINF:abc,x", "E.ts"));
    EXPECT_EQ(playlist.segments[5], segment(std::nullopt, 5, "#EXTINF:9", "F.ts"));
    EXPECT_EQ(playlist.segments[6], segment(10.0F, 6, "sci", "G.ts"));
    EXPECT_EQ(playlist.segments[7], segment(std::nullopt, 7, "#EXTINF:-2,neg", "H.ts"));
}

TEST(MediaPlaylistTest, SegmentDurationsConvertOnlyWholeNumbers) {
    const MediaPlaylist playlist = parse(
        "#EXTINF:10,\na\n#EXTINF:0.5,\nb\n#EXTINF:2s,\nc\n#EXTINF:1.2.3,\nd\n#EXTINF:1e39,\ne\n"
        "#EXTINF:1e-50,\nf\n#EXTINF:5 ,\ng\n");
    ASSERT_EQ(playlist.getSegmentCount(), 7);
    EXPECT_EQ(playlist.segments[0].duration, 10.0F);
    EXPECT_EQ(playlist.segments[1].duration, 0.5F);
    EXPECT_EQ(playlist.segments[2].duration, std::nullopt);
    EXPECT_EQ(playlist.segments[3].duration, std::nullopt);
    EXPECT_EQ(playlist.segments[4].duration, std::numeric_limits<float>::infinity());
    EXPECT_EQ(playlist.segments[5].duration, 0.0F);
    EXPECT_EQ(playlist.segments[6].duration, std::nullopt);
}

TEST(MediaPlaylistTest, MediaSequenceNumbersTheFollowingSegments) {
    const MediaPlaylist playlist = parse("#EXT-X-MEDIA-SEQUENCE:100\n#EXTINF:2,\na.ts\n#EXTINF:2,\nb.ts\n");
    EXPECT_EQ(playlist.mediaSequence, 100);
    ASSERT_EQ(playlist.getSegmentCount(), 2);
    EXPECT_EQ(playlist.segments[0].sequence, 100);
    EXPECT_EQ(playlist.segments[1].sequence, 101);

    // A later tag restarts the numbering where it stands.
    const MediaPlaylist restarted = parse("#EXTINF:2,\na.ts\n#EXT-X-MEDIA-SEQUENCE:7\nb.ts\n");
    EXPECT_EQ(restarted.mediaSequence, 7);
    ASSERT_EQ(restarted.getSegmentCount(), 2);
    EXPECT_EQ(restarted.segments[0].sequence, 0);
    EXPECT_EQ(restarted.segments[1].sequence, 7);
}

TEST(MediaPlaylistTest, NonNumericMediaSequenceChangesNothing) {
    const MediaPlaylist playlist =
        parse("#EXT-X-MEDIA-SEQUENCE:5\n#EXTINF:2,\na.ts\n#EXT-X-MEDIA-SEQUENCE:abc\n#EXT-X-MEDIA-SEQUENCE:\nb.ts\n");
    EXPECT_EQ(playlist.mediaSequence, 5);
    ASSERT_EQ(playlist.getSegmentCount(), 2);
    EXPECT_EQ(playlist.segments[1].sequence, 6);

    // "99999999999999999999" matches the pattern but does not fit an integer.
    const MediaPlaylist huge = parse("#EXT-X-MEDIA-SEQUENCE:99999999999999999999\n#EXTINF:2,\na.ts\n");
    EXPECT_EQ(huge.mediaSequence, std::nullopt);
    EXPECT_EQ(huge.segments.at(0).sequence, 0);
}

TEST(MediaPlaylistTest, IntegerTagsTakeTheDigitsAfterTheLastColon) {
    const MediaPlaylist playlist = parse("#EXT-X-VERSION:4;junk\n#EXT-X-TARGETDURATION:6 \n");
    EXPECT_EQ(playlist.version, 4);
    EXPECT_EQ(playlist.targetDuration, 6);
    EXPECT_EQ(parse("#EXT-X-TARGETDURATION:1:2\n").targetDuration, 2);
}

TEST(MediaPlaylistTest, NonNumericVersionLeavesTheEarlierOne) {
    EXPECT_EQ(parse("#EXT-X-VERSION:3\n#EXT-X-VERSION:x\n").version, 3);
    EXPECT_EQ(parse("#EXT-X-VERSION:three\n").version, std::nullopt);
    EXPECT_EQ(parse("#EXT-X-VERSION:3\n#EXT-X-VERSION:7\n").version, 7);
}

TEST(MediaPlaylistTest, NonNumericTargetDurationResetsTheEarlierOne) {
    EXPECT_EQ(parse("#EXT-X-TARGETDURATION:10\n#EXT-X-TARGETDURATION:abc\n").targetDuration, std::nullopt);
    EXPECT_EQ(parse("#EXT-X-TARGETDURATION:abc\n#EXT-X-TARGETDURATION:8\n").targetDuration, 8);
}

TEST(MediaPlaylistTest, ByteRangesApplyToThePendingSegment) {
    const MediaPlaylist playlist = parse(
        "#EXTINF:4,\n#EXT-X-BYTERANGE:1000@2000\nall.ts\n"
        "#EXTINF:4,\n#EXT-X-BYTERANGE:1000\nall.ts\n"
        "#EXTINF:4,\n#EXT-X-BYTERANGE:12x@y\nall.ts\n"
        "#EXTINF:4,\n#EXT-X-BYTERANGE:500@\nall.ts\n");
    ASSERT_EQ(playlist.getSegmentCount(), 4);
    EXPECT_EQ(playlist.segments[0].subrangeLength, 1000);
    EXPECT_EQ(playlist.segments[0].subrangeStart, 2000);
    EXPECT_EQ(playlist.segments[1].subrangeLength, 1000);
    EXPECT_EQ(playlist.segments[1].subrangeStart, std::nullopt);
    EXPECT_EQ(playlist.segments[2].subrangeLength, std::nullopt);
    EXPECT_EQ(playlist.segments[2].subrangeStart, std::nullopt);
    EXPECT_EQ(playlist.segments[3].subrangeLength, 500);
    EXPECT_EQ(playlist.segments[3].subrangeStart, std::nullopt);
}

TEST(MediaPlaylistTest, ByteRangeWithoutStartClearsAnEarlierStartOfTheSameSegment) {
    const MediaPlaylist playlist = parse("#EXTINF:4,\n#EXT-X-BYTERANGE:10@20\na.ts\n#EXT-X-BYTERANGE:30\nb.ts\n");
    ASSERT_EQ(playlist.getSegmentCount(), 2);
    EXPECT_EQ(playlist.segments[0].subrangeStart, 20);
    EXPECT_EQ(playlist.segments[1].subrangeLength, 30);
    EXPECT_EQ(playlist.segments[1].subrangeStart, std::nullopt);
}

TEST(MediaPlaylistTest, ByteRangeAndDiscontinuityWithoutAPendingSegmentAreIgnored) {
    const MediaPlaylist playlist =
        parse("#EXT-X-BYTERANGE:1000@2000\n#EXT-X-DISCONTINUITY\n#EXTINF:4,\na.ts\n");
    ASSERT_EQ(playlist.getSegmentCount(), 1);
    EXPECT_EQ(playlist.segments[0], segment(4.0F, 0, "", "a.ts"));
}

TEST(MediaPlaylistTest, ANewSegmentTagDropsTheEarlierByteRange) {
    const MediaPlaylist playlist = parse("#EXTINF:4,\n#EXT-X-BYTERANGE:10@20\n#EXTINF:5,\na.ts\n");
    ASSERT_EQ(playlist.getSegmentCount(), 1);
    EXPECT_EQ(playlist.segments[0], segment(5.0F, 0, "", "a.ts"));
}

TEST(MediaPlaylistTest, DiscontinuityMarksThePendingSegment) {
    // After the segment tag: the next URI's segment is marked, and so is every later URI
    // until a new segment tag.
    const MediaPlaylist playlist =
        parse("#EXTINF:4,\na.ts\n#EXTINF:4,\n#EXT-X-DISCONTINUITY\nb.ts\nc.ts\n#EXTINF:4,\nd.ts\n");
    ASSERT_EQ(playlist.getSegmentCount(), 4);
    EXPECT_FALSE(playlist.segments[0].discontinuity);
    EXPECT_TRUE(playlist.segments[1].discontinuity);
    EXPECT_TRUE(playlist.segments[2].discontinuity);
    EXPECT_FALSE(playlist.segments[3].discontinuity);
}

TEST(MediaPlaylistTest, DiscontinuityBeforeTheSegmentTagIsLost) {
    // The tag marks the segment still pending from "a.ts", which the next #EXTINF replaces.
    const MediaPlaylist playlist = parse("#EXTINF:4,\na.ts\n#EXT-X-DISCONTINUITY\n#EXTINF:4,\nb.ts\n");
    ASSERT_EQ(playlist.getSegmentCount(), 2);
    EXPECT_FALSE(playlist.segments[0].discontinuity);
    EXPECT_FALSE(playlist.segments[1].discontinuity);
    // Tags are matched by prefix, so the discontinuity sequence tag also marks the segment.
    EXPECT_TRUE(parse("#EXTINF:4,\n#EXT-X-DISCONTINUITY-SEQUENCE:3\na.ts\n").segments.at(0).discontinuity);
}

TEST(MediaPlaylistTest, EveryURIAfterASegmentTagRepeatsIt) {
    const MediaPlaylist playlist = parse("#EXTINF:3.5,title\n#EXT-X-BYTERANGE:10@0\na.ts\nb.ts\n");
    ASSERT_EQ(playlist.getSegmentCount(), 2);
    MediaSegment expected = segment(3.5F, 0, "title", "a.ts");
    expected.subrangeLength = 10;
    expected.subrangeStart = 0;
    EXPECT_EQ(playlist.segments[0], expected);
    expected.sequence = 1;
    expected.path = "b.ts";
    EXPECT_EQ(playlist.segments[1], expected);
}

TEST(MediaPlaylistTest, URIsBeforeAnySegmentTagAndCommentsAreSkipped) {
    const MediaPlaylist playlist = parse("early.ts\n# a comment\n#EXT-X-UNKNOWN:1\n#EXTINF:1,\nlate.ts\n");
    ASSERT_EQ(playlist.getSegmentCount(), 1);
    EXPECT_EQ(playlist.segments[0], segment(1.0F, 0, "", "late.ts"));
}

TEST(MediaPlaylistTest, SampleAESKeyGivesTheContentKeyIdentifier) {
    EXPECT_EQ(parse("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://key-1\",KEYFORMAT=\"x\"\n").contentKeyIdentifier,
              "skd://key-1");
    EXPECT_EQ(parse("#EXT-X-KEY:METHOD=SAMPLE-AES,uri=\"skd://lower\"\n").contentKeyIdentifier, "skd://lower");
    // The later key wins, even when it has no URI.
    EXPECT_EQ(parse("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"a\"\n#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"b\"\n")
                  .contentKeyIdentifier,
              "b");
    EXPECT_EQ(parse("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"a\"\n#EXT-X-KEY:METHOD=SAMPLE-AES\n").contentKeyIdentifier,
              "");
    // Other methods are ignored.
    EXPECT_EQ(parse("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"a\"\n#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n")
                  .contentKeyIdentifier,
              "a");
    EXPECT_EQ(parse("#EXT-X-KEY:METHOD=AES-128,URI=\"k\"\n").contentKeyIdentifier, "");
}

TEST(MediaPlaylistTest, ContentKeyIdentifierNeedsBothQuotes) {
    EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier("#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://k\""), "skd://k");
    EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier("x,UrI=\"\",y"), "");
    EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier("URI=\"unterminated"), "");
    EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier("URI=unquoted"), "");
    EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier("URI= \"spaced\""), "");
    EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier("URI=\"a\"URI=\"b\""), "a");
    EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier("URI"), "");
    EXPECT_EQ(MediaPlaylist::parseContentKeyIdentifier(""), "");
}

TEST(MediaPlaylistTest, DurationSumsSegmentsCountingAbsentOnesAsZero) {
    EXPECT_EQ(parse("").duration(), 0.0F);
    EXPECT_EQ(parse("#EXTINF:x,\na.ts\n#EXTINF:,\nb.ts\n").duration(), 0.0F);
    EXPECT_EQ(parse("#EXTINF:x,\na.ts\n#EXTINF:2.25,\nb.ts\n#EXTINF:x,\nc.ts\n").duration(), 2.25F);
    // Summed as floats in list order.
    MediaPlaylist playlist;
    float expected = 0;
    for (const float value : {16777216.0F, 1.0F, 1.0F}) {
        MediaSegment item;
        item.duration = value;
        playlist.addSegment(item);
        expected += value;
    }
    EXPECT_EQ(playlist.duration(), expected);
    EXPECT_EQ(playlist.duration(), 16777216.0F);
}

TEST(MediaPlaylistTest, GetSegmentIsAbsentOutOfRange) {
    const MediaPlaylist playlist = parse("#EXTINF:1,\na.ts\nb.ts\n");
    ASSERT_EQ(playlist.getSegmentCount(), 2);
    EXPECT_EQ(playlist.getSegment(0)->path, "a.ts");
    EXPECT_EQ(playlist.getSegment(1)->path, "b.ts");
    EXPECT_EQ(playlist.getSegment(2), std::nullopt);
    EXPECT_EQ(playlist.getSegment(-1), std::nullopt);
    EXPECT_EQ(MediaPlaylist{}.getSegment(0), std::nullopt);
}

TEST(MediaPlaylistTest, ClosesTheReader) {
    TrackingReader reader("#EXTM3U\n#EXTINF:1,\na.ts\n");
    const MediaPlaylist playlist = MediaPlaylist::create(reader);
    EXPECT_TRUE(reader.closed());
    EXPECT_EQ(playlist.getSegmentCount(), 1);
}

TEST(MediaPlaylistTest, LargePlaylistKeepsEverySegment) {
    std::string text = "#EXTM3U\n#EXT-X-MEDIA-SEQUENCE:10\n";
    for (int i = 0; i < 1000; ++i) {
        text += "#EXTINF:2.5,t" + std::to_string(i) + "\n#EXT-X-BYTERANGE:100@" + std::to_string(i * 100) + "\n";
        if (i % 10 == 0) text += "#EXT-X-DISCONTINUITY\n";
        text += "s.ts\n";
    }
    const MediaPlaylist playlist = parse(text);
    ASSERT_EQ(playlist.getSegmentCount(), 1000);
    for (int i = 0; i < 1000; ++i) {
        const MediaSegment& item = playlist.segments[static_cast<std::size_t>(i)];
        ASSERT_EQ(item.sequence, 10 + i);
        ASSERT_EQ(item.title, "t" + std::to_string(i));
        ASSERT_EQ(item.subrangeStart, i * 100);
        ASSERT_EQ(item.discontinuity, i % 10 == 0);
    }
    EXPECT_FLOAT_EQ(playlist.duration(), 2500.0F);
}

}  // namespace
