#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zul/media/buffered_reader.hpp"

namespace {

using zul::FileBufferedReader;
using zul::StringBufferedReader;
using zul::TextEncoding;
using Lines = std::vector<std::string>;
using Reads = std::vector<std::optional<std::string>>;

// Every line until the first absent one.
Lines readAll(zul::BufferedReader& reader) {
    Lines lines;
    while (auto line = reader.readLine()) lines.push_back(*line);
    return lines;
}

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
    std::string write(const std::string& bytes) const {
        const std::string path = (directory_ / "input.txt").string();
        std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return path;
    }

    std::unique_ptr<FileBufferedReader> open(const std::string& bytes, std::string_view delimiter,
                                             std::int64_t chunkSize, TextEncoding encoding) const {
        auto reader = FileBufferedReader::create(write(bytes), delimiter, encoding, chunkSize);
        EXPECT_NE(reader, nullptr);
        return reader;
    }

    Lines readAll(const std::string& bytes, std::string_view delimiter, std::int64_t chunkSize,
                  TextEncoding encoding = TextEncoding::utf8) const {
        auto reader = open(bytes, delimiter, chunkSize, encoding);
        return reader ? ::readAll(*reader) : Lines{};
    }

    // The next `count` reads, absent ones included.
    Reads reads(const std::string& bytes, std::string_view delimiter, std::int64_t chunkSize, TextEncoding encoding,
                std::size_t count) const {
        auto reader = open(bytes, delimiter, chunkSize, encoding);
        Reads result;
        while (reader && result.size() < count) result.push_back(reader->readLine());
        return result;
    }

    std::filesystem::path directory_;
};

TEST_F(FileBufferedReaderTest, LinesAreCutAtTheDelimiterWhereverTheChunksEndUntilTheEndForGood) {
    const struct {
        std::string bytes, delimiter;
        Lines expected;
    } cases[] = {
        // "\r\n" and "||" land across a chunk boundary at some line or other.
        {"first\r\nsecond line\r\nx\r\nlast", "\r\n", {"first", "second line", "x", "last"}},
        {"ab||c||||defg||", "||", {"ab", "c", "", "defg"}},
        // "\r" alone, or "|" followed by something else, is text: the next bytes decide.
        {"a\rb\r\nc\r", "\r\n", {"a\rb", "c\r"}},
        {"|x|||y", "||", {"|x", "|y"}},
        // Consecutive delimiters give empty lines, but a trailing one gives no extra empty line.
        {"a\n\nb\n\n\n", "\n", {"a", "", "b", "", ""}},
        {"\nx", "\n", {"", "x"}},
    };
    for (const std::int64_t chunkSize : {1, 2, 3, 4, 5, 7, 64}) {
        for (const auto& c : cases) {
            EXPECT_EQ(readAll(c.bytes, c.delimiter, chunkSize), c.expected)
                << ::testing::PrintToString(c.bytes) << " in chunks of " << chunkSize;
        }
    }
    // The end is absent for good; an empty file is absent at once.
    EXPECT_EQ(reads("a\nb", "\n", 1, TextEncoding::utf8, 4), (Reads{"a", "b", std::nullopt, std::nullopt}));
    EXPECT_EQ(reads("", "\n", 16, TextEncoding::utf8, 2), (Reads{std::nullopt, std::nullopt}));
}

TEST_F(FileBufferedReaderTest, ReadsTheFileAsItGoesRatherThanAllAtOnce) {
    auto reader = open("a\nb\n", "\n", 2, TextEncoding::utf8);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->readLine(), "a");
    std::ofstream(directory_ / "input.txt", std::ios::binary | std::ios::app) << "c\n";
    // A reader that had slurped the file when it began would never see "c".
    EXPECT_EQ(::readAll(*reader), (Lines{"b", "c"}));
}

TEST_F(FileBufferedReaderTest, EachEncodingDecodesItsOwnBytesAndDelimiter) {
    const std::string wellFormed = "A\xC3\xA9\xE2\x82\xAC\xED\x9F\xBF\xEF\xBF\xBD\xF0\x9F\x8E\xAC\xF4\x8F\xBF\xBF";
    const Lines eEuro{"\xC3\xA9", "\xE2\x82\xAC"};  // "é", "€"
    const Lines clapperEszett{"\xF0\x9F\x8E\xAC", "\xC3\x9F"};
    const struct {
        std::string bytes, delimiter;
        std::int64_t chunkSize;
        TextEncoding encoding;
        Lines expected;
    } cases[] = {
        {wellFormed + "\n" + wellFormed, "\n", 5, TextEncoding::utf8, {wellFormed, wellFormed}},
        // UTF-16 with a mark, in either byte order: the mark is dropped and the delimiter follows it.
        {std::string("\xFF\xFE\xE9\x00\n\x00\xAC\x20", 8), "\n", 1, TextEncoding::utf16, eEuro},
        {std::string("\xFE\xFF\x00\xE9\x00\n\x20\xAC", 8), "\n", 3, TextEncoding::utf16, eEuro},
        // Without a mark it is big-endian; a lone character shorter than a mark is still read.
        {std::string("\x00\xE9\x00\n\x00z", 6), "\n", 2, TextEncoding::utf16, {"\xC3\xA9", "z"}},
        {std::string("\x04\x16", 2), "\n", 4, TextEncoding::utf16, {"\xD0\x96"}},
        // Explicit byte orders, and U+1F3AC as a surrogate pair.
        {std::string("\xD8\x3C\xDF\xAC\x00\r\x00\n\x00\xDF", 10), "\r\n", 3, TextEncoding::utf16BigEndian,
         clapperEszett},
        {std::string("\x3C\xD8\xAC\xDF\r\x00\n\x00\xDF\x00", 10), "\r\n", 3, TextEncoding::utf16LittleEndian,
         clapperEszett},
        // U+0100 U+0A41 is 01 00 0A 41: "\n" (00 0A) straddles the two and is not a delimiter.
        {std::string("\x01\x00\x0A\x41\x00\n\x00q", 8), "\n", 1, TextEncoding::utf16BigEndian,
         {"\xC4\x80\xE0\xA9\x81", "q"}},
        {"caf\xE9\nna\xEFve", "\n", 2, TextEncoding::isoLatin1, {"caf\xC3\xA9", "na\xC3\xAFve"}},
        {"\xC6\n\x88", "\n", 2, TextEncoding::windowsCP1251, {"\xD0\x96", "\xE2\x82\xAC"}},
        // A non-ASCII delimiter is encoded for the file: "§" is A7 in ISO-8859-1, "Ж" C6 in CP1251.
        {"a\xA7" "b", "\xC2\xA7", 1, TextEncoding::isoLatin1, {"a", "b"}},
        {"x\xC6y", "\xD0\x96", 1, TextEncoding::windowsCP1251, {"x", "y"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(readAll(c.bytes, c.delimiter, c.chunkSize, c.encoding), c.expected)
            << ::testing::PrintToString(c.bytes) << " as encoding " << static_cast<int>(c.encoding);
    }
}

TEST_F(FileBufferedReaderTest, AnUndecodableLineIsAbsentAndTheNextLineStillReads) {
    constexpr std::nullopt_t none = std::nullopt;
    const struct {
        std::string bytes;
        std::int64_t chunkSize;
        TextEncoding encoding;
        Reads expected;
    } cases[] = {
        // A stray 0xFF, then a sequence cut short, across chunks.
        {"good\nba\xFF" "d\nnext\n\xE2\x82\nlast", 3, TextEncoding::utf8,
         {"good", none, "next", none, "last", none}},
        // A high surrogate followed by "A" instead of a low one, then an odd byte at the end.
        {std::string("\xD8\x00\x00\x41\x00\n\x00o\x00k\x00\n\x00", 13), 4, TextEncoding::utf16BigEndian,
         {none, "ok", none}},
        // Above 0x7F in ASCII, and 0x98, which CP1251 leaves unassigned.
        {"caf\xE9\nok", 8, TextEncoding::ascii, {none, "ok"}},
        {"\x98\n\xC6", 8, TextEncoding::windowsCP1251, {none, "\xD0\x96"}},
        // Overlong "/", an overlong three-byte form, surrogate U+D800, past U+10FFFF, a lead byte
        // never used, a third byte that is not a continuation, and a bad byte after a run of ASCII.
        {"\xC0\xAF\n\xE0\x80\xAF\n\xED\xA0\x80\n\xF4\x90\x80\x80\n\xF5\x80\x80\x80\n\xE2\x82\x28\n"
         "abcdefgh\xFFijk\nok", 64, TextEncoding::utf8, {none, none, none, none, none, none, none, "ok"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(reads(c.bytes, "\n", c.chunkSize, c.encoding, c.expected.size()), c.expected)
            << ::testing::PrintToString(c.bytes);
    }
}

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

using FileBufferedReaderDeathTest = FileBufferedReaderTest;

TEST_F(FileBufferedReaderDeathTest, CloseIsIdempotentAndReadLineAfterCloseStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto reader = open("a\nb", "\n", 8, TextEncoding::utf8);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->readLine(), "a");
    reader->close();
    reader->close();
    // The death test runs this test again in a child process that never reaches TearDown: the
    // directory goes now, in both, since a closed reader needs no file.
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
    EXPECT_DEATH(reader->readLine(), "FileBufferedReader::readLine called after close\\(\\)");
    reader.reset();  // must not close the file a second time (ASan or glibc would object)
}

Lines split(std::string_view text) {
    StringBufferedReader reader(text);
    Lines lines = readAll(reader);
    EXPECT_EQ(reader.readLine(), std::nullopt);  // the end stays absent
    return lines;
}

TEST(StringBufferedReaderTest, EveryNewlineCharacterSeparatesAndTheEndAndCloseStayAbsent) {
    // U+00A5 (C2 A5), U+2027 (E2 80 A7), U+202A (E2 80 AA), and a truncated U+2028 at the end.
    const std::string lookalikes = "\xC2\xA5\xE2\x80\xA7\xE2\x80\xAA\x09 \xE2\x80";
    const std::pair<std::string, Lines> cases[] = {
        {"a\r\nb", {"a", "", "b"}},
        {"a\nb\rc\vd\fe", {"a", "b", "c", "d", "e"}},
        {"a\xC2\x85" "b\xE2\x80\xA8" "c\xE2\x80\xA9" "d", {"a", "b", "c", "d"}},
        {"a\n", {"a", ""}},
        {"\n\na", {"", "", "a"}},
        {"", {""}},
        {"\xE2\x80\xA8", {"", ""}},
        {lookalikes, {lookalikes}},  // bytes that resemble separators are not
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(split(text), expected) << ::testing::PrintToString(text);

    StringBufferedReader closed("one\ntwo\nthree");
    EXPECT_EQ(closed.readLine(), "one");
    closed.close();
    EXPECT_EQ(closed.readLine(), std::nullopt);
}

}  // namespace
