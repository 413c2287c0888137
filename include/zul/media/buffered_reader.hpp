#pragma once

/// Line readers: the playlist parsers read their input one line at a time through a
/// `BufferedReader`, from a file (`FileBufferedReader`) or from text in memory
/// (`StringBufferedReader`).
///
///     auto reader = zul::FileBufferedReader::create("index.m3u8", "\n", zul::TextEncoding::utf8, 64 * 1024);
///     if (!reader) { /* cannot open the file (or encode the delimiter) */ }
///     while (auto line = reader->readLine()) { ... }
///
/// A line that cannot be decoded in the reader's encoding reads as absent, like the end of input.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zul {

/// The text encodings a `FileBufferedReader` reads.
enum class TextEncoding { utf8, utf16, utf16BigEndian, utf16LittleEndian, ascii, isoLatin1, windowsCP1251 };

class BufferedReader {
public:
    virtual ~BufferedReader() = default;
    /// Releases the source.
    virtual void close() = 0;
    /// The next line, or absent when the source is exhausted or the line cannot be decoded.
    virtual std::optional<std::string> readLine() = 0;
};

/// Reads a file in chunks and cuts lines at a delimiter (any byte sequence, in the reader's
/// encoding). Memory stays bounded by the longest line plus one chunk; the file is never read
/// whole. Lines are returned as UTF-8.
class FileBufferedReader final : public BufferedReader {
public:
    /// A reader, or null when the file cannot be opened for reading, the delimiter cannot be
    /// represented in `encoding`, or `chunkSize` is not positive.
    static std::unique_ptr<FileBufferedReader> create(const std::string& path, std::string_view delimiter,
                                                      TextEncoding encoding, std::int64_t chunkSize);
    ~FileBufferedReader() override;
    FileBufferedReader(const FileBufferedReader&) = delete;
    FileBufferedReader& operator=(const FileBufferedReader&) = delete;

    /// The next line without its delimiter. A delimiter split across two chunks is found; a
    /// file ending with the delimiter gives no extra empty line. Calling it after `close()` is a
    /// programming error that stops the process.
    std::optional<std::string> readLine() override;
    void close() override;

private:
    struct Decoder;  // the iconv descriptor for encodings other than UTF-8 and ASCII

    FileBufferedReader(std::FILE* file, std::string delimiter, TextEncoding encoding, std::size_t chunkSize,
                       std::unique_ptr<Decoder> decoder, std::string pending);
    std::size_t findDelimiter(std::size_t from) const;
    bool readChunk();
    std::optional<std::string> decode(std::size_t begin, std::size_t length);

    TextEncoding encoding_;  // `utf16` is resolved to the byte order of the file
    std::size_t chunkSize_;
    std::size_t unit_;         // bytes per code unit: a delimiter only matches at a multiple of it
    std::string buffer_;       // bytes read; those before `offset_` are already returned
    std::size_t offset_ = 0;
    std::string delimiter_;    // the delimiter in `encoding_`
    std::unique_ptr<Decoder> decoder_;
    std::FILE* file_;
    bool atEof_ = false;
};

/// Splits text at every newline character (U+000A to U+000D, U+0085, U+2028, U+2029), each a
/// separator of its own, so "a\r\nb" gives "a", "", "b". Empty pieces are kept.
class StringBufferedReader final : public BufferedReader {
public:
    explicit StringBufferedReader(std::string_view text);

    std::optional<std::string> readLine() override;
    /// Empties the reader: later reads give absent.
    void close() override;

private:
    std::int64_t line_ = 0;
    std::vector<std::string> buffer_;
};

}  // namespace zul
