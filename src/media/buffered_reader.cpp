#include "zul/media/buffered_reader.hpp"

#include <iconv.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "zul/platform/error.hpp"

namespace zul {

namespace {

constexpr std::uint64_t highBits = 0x8080808080808080ULL;

bool isContinuation(unsigned char byte) { return (byte & 0xC0U) == 0x80U; }

// Well-formed UTF-8 as Unicode defines it: no overlong forms, no surrogates, nothing past
// U+10FFFF. Playlists are almost entirely ASCII, so eight bytes at a time are checked for a high
// bit before falling back to one sequence at a time.
bool isValidUtf8(const char* text, std::size_t size) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    std::size_t i = 0;
    while (i < size) {
        if (size - i >= 8) {
            std::uint64_t word;
            std::memcpy(&word, bytes + i, sizeof word);
            if ((word & highBits) == 0) {
                i += 8;
                continue;
            }
        }
        const unsigned char lead = bytes[i];
        if (lead < 0x80) {
            ++i;
            continue;
        }
        // The bounds the second byte must fall in, and how many bytes the sequence has.
        unsigned char low = 0x80;
        unsigned char high = 0xBF;
        std::size_t length;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;   // overlong below U+0800
            if (lead == 0xED) high = 0x9F;  // surrogates U+D800..U+DFFF
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;   // overlong below U+10000
            if (lead == 0xF4) high = 0x8F;  // past U+10FFFF
        } else {
            return false;
        }
        if (size - i < length) return false;
        if (bytes[i + 1] < low || bytes[i + 1] > high) return false;
        for (std::size_t k = 2; k < length; ++k) {
            if (!isContinuation(bytes[i + k])) return false;
        }
        i += length;
    }
    return true;
}

bool isAscii(const char* text, std::size_t size) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text);
    std::size_t i = 0;
    for (; size - i >= 8; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes + i, sizeof word);
        if ((word & highBits) != 0) return false;
    }
    for (; i < size; ++i) {
        if (bytes[i] >= 0x80) return false;
    }
    return true;
}

// The name glibc's iconv knows the encoding by. `utf16` never reaches here: it is resolved to
// one byte order when the file is opened.
const char* iconvName(TextEncoding encoding) {
    switch (encoding) {
        case TextEncoding::utf8: return "UTF-8";
        case TextEncoding::utf16:
        case TextEncoding::utf16BigEndian: return "UTF-16BE";
        case TextEncoding::utf16LittleEndian: return "UTF-16LE";
        case TextEncoding::ascii: return "ASCII";
        case TextEncoding::isoLatin1: return "ISO-8859-1";
        case TextEncoding::windowsCP1251: return "CP1251";
    }
    return "UTF-8";
}

const iconv_t noDescriptor = reinterpret_cast<iconv_t>(static_cast<std::intptr_t>(-1));

// Converts all of `input` with `descriptor`, or nothing when any of it is invalid or cut short.
// Without //TRANSLIT or //IGNORE iconv refuses what it cannot convert exactly, which is what
// makes the conversion lossless.
std::optional<std::string> convert(iconv_t descriptor, const char* input, std::size_t size) {
    iconv(descriptor, nullptr, nullptr, nullptr, nullptr);  // back to the initial state
    // Three bytes out per byte in covers every conversion made here (a CP1251 byte can become a
    // three-byte UTF-8 sequence); E2BIG is still handled in case that ever stops being true.
    std::string output(size * 3 + 4, '\0');
    char* in = const_cast<char*>(input);  // iconv's signature is not const-correct; it only reads
    std::size_t inLeft = size;
    std::size_t written = 0;
    for (;;) {
        char* out = output.data() + written;
        std::size_t outLeft = output.size() - written;
        const std::size_t result = in == nullptr ? iconv(descriptor, nullptr, nullptr, &out, &outLeft)
                                                 : iconv(descriptor, &in, &inLeft, &out, &outLeft);
        written = output.size() - outLeft;
        if (result != static_cast<std::size_t>(-1)) {
            if (in == nullptr) break;
            in = nullptr;  // all input taken: flush any pending shift sequence
            continue;
        }
        if (errno != E2BIG) return std::nullopt;  // EILSEQ: invalid; EINVAL: incomplete at the end
        output.resize(output.size() * 2);
    }
    output.resize(written);
    return output;
}

// The delimiter, given as UTF-8, in `encoding`; nothing when it is not valid UTF-8 or a character
// has no exact counterpart in `encoding`.
std::optional<std::string> encodeDelimiter(std::string_view delimiter, TextEncoding encoding) {
    if (!isValidUtf8(delimiter.data(), delimiter.size())) return std::nullopt;
    if (encoding == TextEncoding::utf8) return std::string(delimiter);
    const iconv_t descriptor = iconv_open(iconvName(encoding), "UTF-8");
    if (descriptor == noDescriptor) return std::nullopt;
    auto encoded = convert(descriptor, delimiter.data(), delimiter.size());
    iconv_close(descriptor);
    return encoded;
}

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

}  // namespace

struct FileBufferedReader::Decoder {
    explicit Decoder(iconv_t opened) : descriptor(opened) {}
    ~Decoder() { iconv_close(descriptor); }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    iconv_t descriptor;
};

std::unique_ptr<FileBufferedReader> FileBufferedReader::create(const std::string& path, std::string_view delimiter,
                                                               TextEncoding encoding, std::int64_t chunkSize) {
    // An empty delimiter would match at every position and cut nothing but empty lines forever.
    if (chunkSize <= 0 || delimiter.empty()) return nullptr;

    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    if (!file) return nullptr;
    // fopen accepts a directory on Linux, but reading it fails: it cannot be read as a file.
    struct stat status {};
    if (::fstat(::fileno(file.get()), &status) != 0 || S_ISDIR(status.st_mode)) return nullptr;

    // Plain `utf16` takes its byte order from a byte-order mark at the start of the file and is
    // big-endian without one. The mark is not text, so it is consumed here; two bytes that are
    // not a mark are kept as the start of the first line. The delimiter is then encoded in the
    // byte order found, so that it matches the file.
    std::string pending;
    if (encoding == TextEncoding::utf16) {
        unsigned char mark[2] = {0, 0};
        const std::size_t got = std::fread(mark, 1, sizeof mark, file.get());
        if (got == 2 && mark[0] == 0xFF && mark[1] == 0xFE) {
            encoding = TextEncoding::utf16LittleEndian;
        } else {
            encoding = TextEncoding::utf16BigEndian;
            if (!(got == 2 && mark[0] == 0xFE && mark[1] == 0xFF)) {
                pending.assign(reinterpret_cast<const char*>(mark), got);
            }
        }
    }

    auto encodedDelimiter = encodeDelimiter(delimiter, encoding);
    if (!encodedDelimiter) return nullptr;

    std::unique_ptr<Decoder> decoder;
    if (encoding != TextEncoding::utf8 && encoding != TextEncoding::ascii) {
        const iconv_t descriptor = iconv_open("UTF-8", iconvName(encoding));
        if (descriptor == noDescriptor) return nullptr;
        decoder = std::make_unique<Decoder>(descriptor);
    }

    return std::unique_ptr<FileBufferedReader>(new FileBufferedReader(
        file.release(), std::move(*encodedDelimiter), encoding, static_cast<std::size_t>(chunkSize),
        std::move(decoder), std::move(pending)));
}

FileBufferedReader::FileBufferedReader(std::FILE* file, std::string delimiter, TextEncoding encoding,
                                       std::size_t chunkSize, std::unique_ptr<Decoder> decoder, std::string pending)
    : encoding_(encoding),
      chunkSize_(chunkSize),
      unit_(encoding == TextEncoding::utf16BigEndian || encoding == TextEncoding::utf16LittleEndian ? 2 : 1),
      buffer_(std::move(pending)),
      delimiter_(std::move(delimiter)),
      decoder_(std::move(decoder)),
      file_(file) {
    buffer_.reserve(chunkSize_ + buffer_.size());
}

FileBufferedReader::~FileBufferedReader() { close(); }

void FileBufferedReader::close() {
    if (file_ != nullptr) {
        std::fclose(file_);
        file_ = nullptr;
    }
}

// The first delimiter starting at or after `from`, or npos. In UTF-16 only matches on a code
// unit boundary count: the bytes of "\n" (00 0A) also occur straddling two characters such as
// U+0100 U+0A00, and cutting there would garble that line and every line after it.
std::size_t FileBufferedReader::findDelimiter(std::size_t from) const {
    const char* const data = buffer_.data();
    const std::size_t size = buffer_.size();
    const std::size_t length = delimiter_.size();
    while (from < size && size - from >= length) {
        const void* found = length == 1 ? std::memchr(data + from, delimiter_[0], size - from)
                                        : ::memmem(data + from, size - from, delimiter_.data(), length);
        if (found == nullptr) return std::string::npos;
        const auto at = static_cast<std::size_t>(static_cast<const char*>(found) - data);
        if ((at - offset_) % unit_ == 0) return at;
        from = at + 1;
    }
    return std::string::npos;
}

// Appends up to one chunk from the file; false when nothing more could be read.
bool FileBufferedReader::readChunk() {
    const std::size_t oldSize = buffer_.size();
    buffer_.resize(oldSize + chunkSize_);
    const std::size_t got = std::fread(buffer_.data() + oldSize, 1, chunkSize_, file_);
    buffer_.resize(oldSize + got);
    return got > 0;
}

std::optional<std::string> FileBufferedReader::decode(std::size_t begin, std::size_t length) {
    const char* const bytes = buffer_.data() + begin;
    switch (encoding_) {
        case TextEncoding::utf8:
            if (!isValidUtf8(bytes, length)) return std::nullopt;
            return std::string(bytes, length);
        case TextEncoding::ascii:
            if (!isAscii(bytes, length)) return std::nullopt;
            return std::string(bytes, length);
        default:
            return convert(decoder_->descriptor, bytes, length);
    }
}

std::optional<std::string> FileBufferedReader::readLine() {
    if (file_ == nullptr) fatalError("FileBufferedReader::readLine called after close()");
    if (atEof_) return std::nullopt;

    std::size_t searchFrom = offset_;
    for (;;) {
        const std::size_t at = findDelimiter(searchFrom);
        if (at != std::string::npos) {
            auto line = decode(offset_, at - offset_);
            offset_ = at + delimiter_.size();
            if (offset_ == buffer_.size()) {
                buffer_.clear();
                offset_ = 0;
            }
            return line;
        }
        // No delimiter in what is left, so more must be read. Returned lines are dropped from the
        // front first: the bytes moved are only the unfinished line, once per chunk, rather than
        // the whole buffer once per line.
        if (offset_ > 0) {
            buffer_.erase(0, offset_);
            offset_ = 0;
        }
        const std::size_t oldSize = buffer_.size();
        if (!readChunk()) break;
        // The old bytes hold no delimiter, so the first match ends in the new bytes and starts no
        // earlier than oldSize - length + 1 (a delimiter split across the two chunks starts
        // there). Searching from that point, rounded down to a code unit, finds exactly the match
        // a search from the front would, without scanning a long line over and over.
        const std::size_t length = delimiter_.size();
        searchFrom = oldSize >= length ? oldSize - length + 1 : 0;
        searchFrom -= searchFrom % unit_;
    }

    atEof_ = true;
    if (offset_ == buffer_.size()) {
        buffer_.clear();
        offset_ = 0;
        return std::nullopt;  // the file was empty or ended with the delimiter
    }
    auto line = decode(offset_, buffer_.size() - offset_);
    buffer_.clear();
    offset_ = 0;
    return line;
}

StringBufferedReader::StringBufferedReader(std::string_view text) {
    const auto byteAt = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    std::size_t start = 0;
    std::size_t i = 0;
    while (i < text.size()) {
        const unsigned char byte = byteAt(i);
        std::size_t separator = 0;
        if (byte >= 0x0A && byte <= 0x0D) {
            separator = 1;
        } else if (byte == 0xC2 && i + 1 < text.size() && byteAt(i + 1) == 0x85) {
            separator = 2;  // U+0085 NEXT LINE
        } else if (byte == 0xE2 && i + 2 < text.size() && byteAt(i + 1) == 0x80 &&
                   (byteAt(i + 2) == 0xA8 || byteAt(i + 2) == 0xA9)) {
            separator = 3;  // U+2028 LINE SEPARATOR, U+2029 PARAGRAPH SEPARATOR
        }
        if (separator == 0) {
            ++i;
            continue;
        }
        buffer_.emplace_back(text.substr(start, i - start));
        i += separator;
        start = i;
    }
    // Text ending in a separator ends with an empty piece, and empty text is one empty piece.
    buffer_.emplace_back(text.substr(start));
}

std::optional<std::string> StringBufferedReader::readLine() {
    const auto index = static_cast<std::size_t>(line_);
    if (index >= buffer_.size()) return std::nullopt;
    ++line_;
    return std::move(buffer_[index]);  // each piece is read once
}

void StringBufferedReader::close() {
    buffer_.clear();
    line_ = 0;
}

}  // namespace zul
