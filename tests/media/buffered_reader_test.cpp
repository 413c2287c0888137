#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "zul/media/buffered_reader.hpp"

namespace {

using zul::FileBufferedReader;
using zul::StringBufferedReader;
using zul::TextEncoding;

// Each test gets a fresh directory of its own, removed afterwards.
class FileBufferedReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "zul-reader-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        directory_ = pattern;
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    // Writes `bytes` exactly as given to a file and returns its path.
    std::string write(const std::string& bytes, const std::string& name = "input.txt") const {
        const std::string path = (directory_ / name).string();
        std::ofstream out(path, std::ios::binary);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return path;
    }

    // Every line until the first absent one.
    static std::vector<std::string> readAll(FileBufferedReader& reader) {
        std::vector<std::string> lines;
        while (auto line = reader.readLine()) lines.push_back(*line);
        return lines;
    }

    std::vector<std::string> readAll(const std::string& bytes, std::string_view delimiter, std::int64_t chunkSize,
                                     TextEncoding encoding = TextEncoding::utf8) const {
        auto reader = FileBufferedReader::create(write(bytes), delimiter, encoding, chunkSize);
        EXPECT_NE(reader, nullptr);
        if (!reader) return {};
        return readAll(*reader);
    }

    std::filesystem::path directory_;
};

using Lines = std::vector<std::string>;

// --- Cutting lines -----------------------------------------------------------------------------

TEST_F(FileBufferedReaderTest, MultiByteDelimiterIsFoundWhenSplitAcrossChunks) {
    // With these chunk sizes "\r\n" and "||" land across a chunk boundary at some line or other.
    for (const std::int64_t chunkSize : {1, 2, 3, 4, 5, 7, 64}) {
        SCOPED_TRACE(chunkSize);
        EXPECT_EQ(readAll("first\r\nsecond line\r\nx\r\nlast", "\r\n", chunkSize),
                  (Lines{"first", "second line", "x", "last"}));
        EXPECT_EQ(readAll("ab||c||||defg||", "||", chunkSize), (Lines{"ab", "c", "", "defg"}));
    }
}

TEST_F(FileBufferedReaderTest, PartialDelimiterAtAChunkEdgeIsNotTakenForOne) {
    // "\r" alone, or "|" followed by something else, is text; the next bytes decide.
    for (const std::int64_t chunkSize : {1, 2, 3}) {
        SCOPED_TRACE(chunkSize);
        EXPECT_EQ(readAll("a\rb\r\nc\r", "\r\n", chunkSize), (Lines{"a\rb", "c\r"}));
        EXPECT_EQ(readAll("|x|||y", "||", chunkSize), (Lines{"|x", "|y"}));
    }
}

TEST_F(FileBufferedReaderTest, TrailingDelimiterGivesNoExtraEmptyLine) {
    EXPECT_EQ(readAll("one\ntwo\n", "\n", 3), (Lines{"one", "two"}));
    EXPECT_EQ(readAll("one\r\n", "\r\n", 1), (Lines{"one"}));
}

TEST_F(FileBufferedReaderTest, LastLineWithoutDelimiterIsReturnedThenAbsentForGood) {
    EXPECT_EQ(readAll("only", "\n", 100), (Lines{"only"}));
    auto reader = FileBufferedReader::create(write("a\nb"), "\n", TextEncoding::utf8, 1);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->readLine(), "a");
    EXPECT_EQ(reader->readLine(), "b");
    EXPECT_EQ(reader->readLine(), std::nullopt);
    EXPECT_EQ(reader->readLine(), std::nullopt);
}

TEST_F(FileBufferedReaderTest, ConsecutiveDelimitersGiveEmptyLines) {
    EXPECT_EQ(readAll("a\n\nb\n\n\n", "\n", 2), (Lines{"a", "", "b", "", ""}));
    EXPECT_EQ(readAll("\nx", "\n", 1), (Lines{"", "x"}));
}

TEST_F(FileBufferedReaderTest, EmptyFileIsAbsentAtOnceAndStaysAbsent) {
    auto reader = FileBufferedReader::create(write(""), "\n", TextEncoding::utf8, 16);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->readLine(), std::nullopt);
    EXPECT_EQ(reader->readLine(), std::nullopt);
}

TEST_F(FileBufferedReaderTest, ManyLinesOfVaryingLengthMatchASplitOfTheWholeText) {
    // Lines much shorter and much longer than a chunk, so lines are cut from the middle of a
    // buffer, across many chunks, and after the returned prefix has been dropped.
    std::string text;
    Lines expected;
    for (int i = 0; i < 300; ++i) {
        std::string line(static_cast<std::size_t>((i * 37) % 211), static_cast<char>('a' + i % 26));
        line += std::to_string(i);
        expected.push_back(line);
        text += line + "\r\n";
    }
    for (const std::int64_t chunkSize : {1, 13, 64, 4096, 1 << 20}) {
        SCOPED_TRACE(chunkSize);
        EXPECT_EQ(readAll(text, "\r\n", chunkSize), expected);
    }
}

TEST_F(FileBufferedReaderTest, ReadsTheFileAsItGoesRatherThanAllAtOnce) {
    const std::string path = write("a\nb\n");
    auto reader = FileBufferedReader::create(path, "\n", TextEncoding::utf8, 2);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->readLine(), "a");
    {
        std::ofstream out(path, std::ios::binary | std::ios::app);
        out << "c\n";
    }
    // A reader that had slurped the file when it began would never see "c".
    EXPECT_EQ(readAll(*reader), (Lines{"b", "c"}));
}

// --- Decoding ----------------------------------------------------------------------------------

TEST_F(FileBufferedReaderTest, UndecodableUtf8LineIsAbsentAndTheNextLineStillReads) {
    auto reader = FileBufferedReader::create(write("good\nba\xFF" "d\nnext\n\xE2\x82\nlast"), "\n",
                                             TextEncoding::utf8, 3);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->readLine(), "good");
    EXPECT_EQ(reader->readLine(), std::nullopt);  // stray 0xFF
    EXPECT_EQ(reader->readLine(), "next");
    EXPECT_EQ(reader->readLine(), std::nullopt);  // sequence cut short
    EXPECT_EQ(reader->readLine(), "last");
    EXPECT_EQ(reader->readLine(), std::nullopt);
}

TEST_F(FileBufferedReaderTest, Utf8AcceptsEveryWellFormedSequenceAndRejectsMalformedOnes) {
    const std::string wellFormed = "A\xC3\xA9\xE2\x82\xAC\xED\x9F\xBF\xEF\xBF\xBD\xF0\x9F\x8E\xAC\xF4\x8F\xBF\xBF";
    EXPECT_EQ(readAll(wellFormed + "\n" + wellFormed, "\n", 5), (Lines{wellFormed, wellFormed}));

    const std::vector<std::string> malformed = {
        "\xC0\xAF",          // overlong "/"
        "\xE0\x80\xAF",      // overlong three-byte form
        "\xED\xA0\x80",      // surrogate U+D800
        "\xF4\x90\x80\x80",  // past U+10FFFF
        "\xF5\x80\x80\x80",  // lead byte never used
        "\x80",              // continuation without a lead
        "\xC3",              // truncated at the end of the line
        "\xE2\x28\xA1",      // second byte not a continuation
        "abcdefgh\xFFijk",   // bad byte after a run of ASCII
    };
    for (const auto& bytes : malformed) {
        SCOPED_TRACE(::testing::PrintToString(bytes));
        auto reader = FileBufferedReader::create(write(bytes + "\nok"), "\n", TextEncoding::utf8, 64);
        ASSERT_NE(reader, nullptr);
        EXPECT_EQ(reader->readLine(), std::nullopt);
        EXPECT_EQ(reader->readLine(), "ok");
    }
}

TEST_F(FileBufferedReaderTest, Utf16WithByteOrderMarkReadsEitherByteOrderAndDropsTheMark) {
    // "é\n€" with the mark; the delimiter follows the mark's byte order.
    EXPECT_EQ(readAll(std::string("\xFF\xFE\xE9\x00\n\x00\xAC\x20", 8), "\n", 1, TextEncoding::utf16),
              (Lines{"\xC3\xA9", "\xE2\x82\xAC"}));
    EXPECT_EQ(readAll(std::string("\xFE\xFF\x00\xE9\x00\n\x20\xAC", 8), "\n", 3, TextEncoding::utf16),
              (Lines{"\xC3\xA9", "\xE2\x82\xAC"}));
}

TEST_F(FileBufferedReaderTest, Utf16WithoutMarkIsBigEndian) {
    EXPECT_EQ(readAll(std::string("\x00\xE9\x00\n\x00z", 6), "\n", 2, TextEncoding::utf16),
              (Lines{"\xC3\xA9", "z"}));
    // A lone character shorter than a mark is still read.
    EXPECT_EQ(readAll(std::string("\x04\x16", 2), "\n", 4, TextEncoding::utf16), (Lines{"\xD0\x96"}));
}

TEST_F(FileBufferedReaderTest, ExplicitUtf16ByteOrdersAndSurrogatePairs) {
    // U+1F3AC as a surrogate pair, then "ß".
    EXPECT_EQ(readAll(std::string("\xD8\x3C\xDF\xAC\x00\r\x00\n\x00\xDF", 10), "\r\n", 3,
                      TextEncoding::utf16BigEndian),
              (Lines{"\xF0\x9F\x8E\xAC", "\xC3\x9F"}));
    EXPECT_EQ(readAll(std::string("\x3C\xD8\xAC\xDF\r\x00\n\x00\xDF\x00", 10), "\r\n", 3,
                      TextEncoding::utf16LittleEndian),
              (Lines{"\xF0\x9F\x8E\xAC", "\xC3\x9F"}));
}

TEST_F(FileBufferedReaderTest, Utf16DelimiterMatchesOnlyOnACodeUnitBoundary) {
    // U+0100 U+0A41 is 01 00 0A 41 in big-endian: "\n" (00 0A) appears straddling the two.
    EXPECT_EQ(readAll(std::string("\x01\x00\x0A\x41\x00\n\x00q", 8), "\n", 1, TextEncoding::utf16BigEndian),
              (Lines{"\xC4\x80\xE0\xA9\x81", "q"}));
}

TEST_F(FileBufferedReaderTest, MalformedUtf16LineIsAbsentAndTheNextLineStillReads) {
    // A high surrogate followed by "A" instead of a low one, then an odd byte at the end of the file.
    auto reader = FileBufferedReader::create(write(std::string("\xD8\x00\x00\x41\x00\n\x00o\x00k\x00\n\x00", 13)), "\n",
                                             TextEncoding::utf16BigEndian, 4);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->readLine(), std::nullopt);
    EXPECT_EQ(reader->readLine(), "ok");
    EXPECT_EQ(reader->readLine(), std::nullopt);
}

TEST_F(FileBufferedReaderTest, SingleByteEncodingsDecodeTheirOwnCharacters) {
    EXPECT_EQ(readAll("caf\xE9\nna\xEFve", "\n", 2, TextEncoding::isoLatin1), (Lines{"caf\xC3\xA9", "na\xC3\xAFve"}));
    EXPECT_EQ(readAll("\xC6\n\x88", "\n", 2, TextEncoding::windowsCP1251), (Lines{"\xD0\x96", "\xE2\x82\xAC"}));
    EXPECT_EQ(readAll("plain text\n~", "\n", 4, TextEncoding::ascii), (Lines{"plain text", "~"}));
}

TEST_F(FileBufferedReaderTest, BytesOutsideTheEncodingMakeTheLineAbsent) {
    // Above 0x7F in ASCII, and 0x98, which CP1251 leaves unassigned.
    auto ascii = FileBufferedReader::create(write("caf\xE9\nok"), "\n", TextEncoding::ascii, 8);
    ASSERT_NE(ascii, nullptr);
    EXPECT_EQ(ascii->readLine(), std::nullopt);
    EXPECT_EQ(ascii->readLine(), "ok");

    auto cyrillic = FileBufferedReader::create(write("\x98\n\xC6"), "\n", TextEncoding::windowsCP1251, 8);
    ASSERT_NE(cyrillic, nullptr);
    EXPECT_EQ(cyrillic->readLine(), std::nullopt);
    EXPECT_EQ(cyrillic->readLine(), "\xD0\x96");
}

TEST_F(FileBufferedReaderTest, NonAsciiDelimiterIsEncodedForTheFile) {
    // "§" is A7 in ISO-8859-1 and C2 A7 in UTF-8; "Ж" is C6 in CP1251.
    EXPECT_EQ(readAll("a\xA7" "b", "\xC2\xA7", 1, TextEncoding::isoLatin1), (Lines{"a", "b"}));
    EXPECT_EQ(readAll("x\xC6y", "\xD0\x96", 1, TextEncoding::windowsCP1251), (Lines{"x", "y"}));
    EXPECT_EQ(readAll("a\xC2\xA7" "b", "\xC2\xA7", 1, TextEncoding::utf8), (Lines{"a", "b"}));
}

// --- Creation ----------------------------------------------------------------------------------

TEST_F(FileBufferedReaderTest, CreateRefusesWhatCannotWork) {
    const std::string path = write("text");
    EXPECT_EQ(FileBufferedReader::create((directory_ / "missing.txt").string(), "\n", TextEncoding::utf8, 8), nullptr);
    EXPECT_EQ(FileBufferedReader::create(directory_.string(), "\n", TextEncoding::utf8, 8), nullptr);
    EXPECT_EQ(FileBufferedReader::create(path, "\n", TextEncoding::utf8, 0), nullptr);
    EXPECT_EQ(FileBufferedReader::create(path, "\n", TextEncoding::utf8, -1), nullptr);
    EXPECT_EQ(FileBufferedReader::create(path, "", TextEncoding::utf8, 8), nullptr);
    // "€" has no ISO-8859-1 or ASCII byte; "é" has no ASCII byte; the delimiter is not UTF-8.
    EXPECT_EQ(FileBufferedReader::create(path, "\xE2\x82\xAC", TextEncoding::isoLatin1, 8), nullptr);
    EXPECT_EQ(FileBufferedReader::create(path, "\xC3\xA9", TextEncoding::ascii, 8), nullptr);
    EXPECT_EQ(FileBufferedReader::create(path, "\xFF", TextEncoding::utf8, 8), nullptr);
    // The same file is fine with a usable delimiter and chunk size.
    EXPECT_NE(FileBufferedReader::create(path, "\xE2\x82\xAC", TextEncoding::windowsCP1251, 1), nullptr);
}

TEST_F(FileBufferedReaderTest, CloseIsIdempotentAndTheDestructorCopesWithIt) {
    auto reader = FileBufferedReader::create(write("a\nb"), "\n", TextEncoding::utf8, 8);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->readLine(), "a");
    reader->close();
    reader->close();
    reader.reset();  // must not close the file a second time (ASan or glibc would object)
}

using FileBufferedReaderDeathTest = FileBufferedReaderTest;

TEST_F(FileBufferedReaderDeathTest, ReadLineAfterCloseStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto reader = FileBufferedReader::create(write("a\nb"), "\n", TextEncoding::utf8, 8);
    ASSERT_NE(reader, nullptr);
    reader->close();
    EXPECT_DEATH(reader->readLine(), "FileBufferedReader::readLine called after close\\(\\)");
}

// --- StringBufferedReader ----------------------------------------------------------------------

Lines readAll(StringBufferedReader& reader) {
    Lines lines;
    while (auto line = reader.readLine()) lines.push_back(*line);
    return lines;
}

Lines split(std::string_view text) {
    StringBufferedReader reader(text);
    return readAll(reader);
}

TEST(StringBufferedReaderTest, EveryNewlineCharacterSeparatesOnItsOwn) {
    EXPECT_EQ(split("a\r\nb"), (Lines{"a", "", "b"}));
    EXPECT_EQ(split("a\nb\rc\vd\fe"), (Lines{"a", "b", "c", "d", "e"}));
    EXPECT_EQ(split("a\xC2\x85" "b\xE2\x80\xA8" "c\xE2\x80\xA9" "d"), (Lines{"a", "b", "c", "d"}));
}

TEST(StringBufferedReaderTest, EmptyPiecesAreKept) {
    EXPECT_EQ(split("a\n"), (Lines{"a", ""}));
    EXPECT_EQ(split("\n\na"), (Lines{"", "", "a"}));
    EXPECT_EQ(split(""), (Lines{""}));
    EXPECT_EQ(split("\xE2\x80\xA8"), (Lines{"", ""}));
}

TEST(StringBufferedReaderTest, LookalikeBytesAreNotSeparators) {
    // U+00A5 (C2 A5), U+2027 (E2 80 A7), U+202A (E2 80 AA), and a truncated U+2028 at the end.
    const std::string text = "\xC2\xA5\xE2\x80\xA7\xE2\x80\xAA\x09 \xE2\x80";
    EXPECT_EQ(split(text), (Lines{text}));
}

TEST(StringBufferedReaderTest, EndOfTextAndCloseBothStayAbsent) {
    StringBufferedReader finished("x\ny");
    EXPECT_EQ(readAll(finished), (Lines{"x", "y"}));
    EXPECT_EQ(finished.readLine(), std::nullopt);

    StringBufferedReader closed("one\ntwo\nthree");
    EXPECT_EQ(closed.readLine(), "one");
    closed.close();
    EXPECT_EQ(closed.readLine(), std::nullopt);
    EXPECT_EQ(closed.readLine(), std::nullopt);
}

}  // namespace
