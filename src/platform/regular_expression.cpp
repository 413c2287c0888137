#include "zul/platform/regular_expression.hpp"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>

namespace zul {

namespace {

// PCRE2's own "\w" under PCRE2_UCP is \p{L}, \p{N} and "_": it takes "²" or "½" and leaves out
// combining marks and connector punctuation other than "_". Our patterns follow the platform
// engine instead (letters, marks, decimal digits, connector punctuation), so "\w", "\W", "\b"
// and "\B" are rewritten into property classes before PCRE2 sees the pattern.
constexpr std::string_view kWordItems = "\\p{L}\\p{M}\\p{Nd}\\p{Pc}";
constexpr std::string_view kWordClass = "[\\p{L}\\p{M}\\p{Nd}\\p{Pc}]";
constexpr std::string_view kNonWordClass = "[^\\p{L}\\p{M}\\p{Nd}\\p{Pc}]";
constexpr std::string_view kWordBoundary =
    "(?:(?<=[\\p{L}\\p{M}\\p{Nd}\\p{Pc}])(?![\\p{L}\\p{M}\\p{Nd}\\p{Pc}])"
    "|(?<![\\p{L}\\p{M}\\p{Nd}\\p{Pc}])(?=[\\p{L}\\p{M}\\p{Nd}\\p{Pc}]))";
constexpr std::string_view kNotWordBoundary =
    "(?:(?<=[\\p{L}\\p{M}\\p{Nd}\\p{Pc}])(?=[\\p{L}\\p{M}\\p{Nd}\\p{Pc}])"
    "|(?<![\\p{L}\\p{M}\\p{Nd}\\p{Pc}])(?![\\p{L}\\p{M}\\p{Nd}\\p{Pc}]))";

class PatternRewriter {
public:
    explicit PatternRewriter(std::string_view pattern) : in_(pattern) {}

    std::string run() {
        out_.reserve(in_.size() + 16);
        while (pos_ < in_.size()) {
            const char c = in_[pos_];
            if (c == '\\') {
                escapeOutsideClass();
            } else if (c == '[') {
                characterClass();
            } else if (in_.substr(pos_, 3) == "(?#") {
                // A comment runs to the first ")"; nothing inside it is rewritten.
                const std::size_t close = in_.find(')', pos_);
                const std::size_t end = close == std::string_view::npos ? in_.size() : close + 1;
                out_.append(in_.substr(pos_, end - pos_));
                pos_ = end;
            } else {
                out_.push_back(c);
                ++pos_;
            }
        }
        return std::move(out_);
    }

private:
    // Copies "\Q...\E" (or "\Q..." to the end) untouched into `target`.
    void quoted(std::string& target) {
        const std::size_t end = in_.find("\\E", pos_ + 2);
        const std::size_t stop = end == std::string_view::npos ? in_.size() : end + 2;
        target.append(in_.substr(pos_, stop - pos_));
        pos_ = stop;
    }

    // Copies a backslash and the character after it ("\cX" takes one more).
    void plainEscape(std::string& target) {
        std::size_t length = 2;
        if (pos_ + 1 < in_.size() && in_[pos_ + 1] == 'c') length = 3;
        length = std::min(length, in_.size() - pos_);
        target.append(in_.substr(pos_, length));
        pos_ += length;
    }

    void escapeOutsideClass() {
        const char next = pos_ + 1 < in_.size() ? in_[pos_ + 1] : '\0';
        switch (next) {
            case 'w': out_.append(kWordClass); pos_ += 2; return;
            case 'W': out_.append(kNonWordClass); pos_ += 2; return;
            case 'b': out_.append(kWordBoundary); pos_ += 2; return;
            case 'B': out_.append(kNotWordBoundary); pos_ += 2; return;
            case 'Q': quoted(out_); return;
            default: plainEscape(out_); return;
        }
    }

    // Rewrites one "[...]". "\w" becomes its properties in place; a "\W" cannot be written
    // inside a class without set subtraction, so a class holding one becomes an alternation
    // (or, negated, a lookahead excluding the rest of the class).
    void characterClass() {
        const std::size_t start = pos_;
        ++pos_;
        bool negated = false;
        if (pos_ < in_.size() && in_[pos_] == '^') {
            negated = true;
            ++pos_;
        }
        std::string body;
        bool nonWord = false;
        bool first = true;
        while (pos_ < in_.size()) {
            const char c = in_[pos_];
            if (c == ']' && !first) break;
            first = false;
            if (c == '\\') {
                const char next = pos_ + 1 < in_.size() ? in_[pos_ + 1] : '\0';
                if (next == 'w') {
                    body.append(kWordItems);
                    pos_ += 2;
                } else if (next == 'W') {
                    nonWord = true;
                    pos_ += 2;
                } else if (next == 'Q') {
                    quoted(body);
                } else {
                    plainEscape(body);
                }
            } else if (c == '[' && pos_ + 1 < in_.size() &&
                       (in_[pos_ + 1] == ':' || in_[pos_ + 1] == '.' || in_[pos_ + 1] == '=')) {
                // A POSIX item such as "[:alpha:]": its closing "]" does not end the class.
                const char kind = in_[pos_ + 1];
                const char terminator[] = {kind, ']', '\0'};
                const std::size_t close = in_.find(terminator, pos_ + 2);
                const std::size_t end = close == std::string_view::npos ? in_.size() : close + 2;
                body.append(in_.substr(pos_, end - pos_));
                pos_ = end;
            } else {
                body.push_back(c);
                ++pos_;
            }
        }
        if (pos_ >= in_.size()) {
            // Unterminated: hand PCRE2 the original text so it reports the error.
            out_.append(in_.substr(start));
            return;
        }
        ++pos_;  // the closing "]"
        if (!nonWord) {
            out_.push_back('[');
            if (negated) out_.push_back('^');
            out_.append(body);
            out_.push_back(']');
        } else if (!negated) {
            if (body.empty()) {
                out_.append(kNonWordClass);
            } else {
                out_.append("(?:[").append(body).append("]|").append(kNonWordClass).push_back(')');
            }
        } else {
            if (body.empty()) {
                out_.append(kWordClass);
            } else {
                out_.append("(?:(?![").append(body).append("])").append(kWordClass).push_back(')');
            }
        }
    }

    std::string_view in_;
    std::size_t pos_ = 0;
    std::string out_;
};

// One match data block per thread, grown to the largest pattern used on it, so a search never
// allocates.
class ThreadMatchData {
public:
    ThreadMatchData() = default;
    ThreadMatchData(const ThreadMatchData&) = delete;
    ThreadMatchData& operator=(const ThreadMatchData&) = delete;
    ~ThreadMatchData() { pcre2_match_data_free(data_); }

    pcre2_match_data* get(std::uint32_t pairs) {
        if (pairs > pairs_) {
            const std::uint32_t size = std::max<std::uint32_t>(pairs, 16);
            pcre2_match_data* fresh = pcre2_match_data_create(size, nullptr);
            if (fresh == nullptr) throw std::bad_alloc();
            pcre2_match_data_free(data_);
            data_ = fresh;
            pairs_ = size;
        }
        return data_;
    }

private:
    pcre2_match_data* data_ = nullptr;
    std::uint32_t pairs_ = 0;
};

pcre2_match_data* threadMatchData(std::uint32_t pairs) {
    thread_local ThreadMatchData cache;
    return cache.get(pairs);
}

// The byte length of the UTF-8 character at `offset` (a stray continuation byte counts alone).
std::size_t characterLength(std::string_view text, std::size_t offset) noexcept {
    std::size_t end = offset + 1;
    while (end < text.size() && end - offset < 4 &&
           (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        ++end;
    }
    return end - offset;
}

// True when `bytes` holds only ASCII and no line terminator other than LF. Eight bytes at a time:
// a set top bit is non-ASCII, and for ASCII bytes the classic "has a byte between m and n" test
// finds VT, FF and CR.
bool isPlainASCII(std::string_view bytes) noexcept {
    constexpr std::uint64_t ones = 0x0101010101010101U;
    constexpr std::uint64_t tops = ones * 0x80U;
    const char* data = bytes.data();
    std::size_t i = 0;
    for (; i + 8 <= bytes.size(); i += 8) {
        std::uint64_t word = 0;
        std::memcpy(&word, data + i, 8);
        if ((word & tops) != 0) return false;
        // Top bit of (127 + 0x0E - b) is set for b < 0x0E, of (b + 127 - 0x0A) for b > 0x0A.
        if ((((ones * (127 + 0x0E)) - word) & (word + ones * (127 - 0x0A)) & tops) != 0) return false;
    }
    for (; i < bytes.size(); ++i) {
        const auto byte = static_cast<unsigned char>(data[i]);
        if (byte >= 0x80U || (byte >= 0x0BU && byte <= 0x0DU)) return false;
    }
    return true;
}

// One compiled form of a pattern.
struct Program {
    pcre2_code* code = nullptr;
    std::size_t minimumLength = 0;  // no match is shorter: a search past that point is skipped
    bool jit = false;

    Program() = default;
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() { pcre2_code_free(code); }

    bool compile(std::string_view pattern, std::uint32_t flags, std::uint32_t newline) {
        pcre2_compile_context* context = pcre2_compile_context_create(nullptr);
        if (context == nullptr) throw std::bad_alloc();
        pcre2_set_newline(context, newline);
        int errorCode = 0;
        PCRE2_SIZE errorOffset = 0;
        code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(pattern.data()), pattern.size(), flags, &errorCode,
                             &errorOffset, context);
        pcre2_compile_context_free(context);
        if (code == nullptr) return false;
        // Without JIT support (or with executable memory refused) the interpreter runs instead.
        jit = pcre2_jit_compile(code, PCRE2_JIT_COMPLETE) == 0;
        std::uint32_t length = 0;
        pcre2_pattern_info(code, PCRE2_INFO_MINLENGTH, &length);
        minimumLength = length;
        return true;
    }

    int search(std::string_view text, std::size_t start, pcre2_match_data* data) const {
        const auto* subject = reinterpret_cast<PCRE2_SPTR>(text.data());
        // The JIT entry point skips the interpreter's option checks, which a per-line search pays
        // for noticeably; the pattern and options are known to be valid here.
        if (jit) return pcre2_jit_match(code, subject, text.size(), start, 0, data, nullptr);
        return pcre2_match(code, subject, text.size(), start, 0, data, nullptr);
    }
};

}  // namespace

// Every pattern is compiled for Unicode text (UTF-8, Unicode properties, every Unicode line
// terminator a newline). Matching that way costs about twice as much per character as matching
// bytes with LF as the only newline, and most text searched (playlist lines, identifiers) is
// plain ASCII. For such text both give the same result when the pattern is ASCII too: nothing
// non-ASCII can match or fold to an ASCII character, "\d", "\s" and the POSIX classes agree on
// ASCII, and without CR, VT or FF in pattern or subject the newline conventions find the same
// newlines. So an ASCII pattern gets a second, byte-oriented program, used for such subjects.
struct RegularExpression::Compiled {
    Program unicode;
    Program ascii;  // code is null when the pattern is not plain ASCII (or did not compile so)
    std::uint32_t captureCount = 0;

    const Program& programFor(std::string_view text) const noexcept {
        return ascii.code != nullptr && isPlainASCII(text) ? ascii : unicode;
    }

    // Calls `onMatch(ovector, setPairs)` for each non-overlapping match, in order. An empty
    // match moves the next search on by one character.
    template <class F>
    void forEachMatch(std::string_view text, F&& onMatch) const {
        const Program& program = programFor(text);
        pcre2_match_data* data = threadMatchData(captureCount + 1);
        std::size_t start = 0;
        while (start <= text.size() && text.size() - start >= program.minimumLength) {
            const int rc = program.search(text, start, data);
            if (rc <= 0) return;  // no match, or a resource limit: either way nothing more to find
            const PCRE2_SIZE* ovector = pcre2_get_ovector_pointer(data);
            const std::size_t matchStart = ovector[0];
            const std::size_t matchEnd = ovector[1];
            onMatch(ovector, static_cast<std::uint32_t>(rc));
            std::size_t next = matchEnd;
            if (matchEnd <= matchStart || matchEnd <= start) {
                if (matchEnd >= text.size()) return;
                next = std::max(matchEnd, start);
                next += characterLength(text, next);
            }
            start = next;
        }
    }
};

RegularExpression::RegularExpression(std::unique_ptr<Compiled> compiled) : compiled_(std::move(compiled)) {}

RegularExpression::~RegularExpression() = default;

std::shared_ptr<const RegularExpression> RegularExpression::compile(std::string_view pattern, Options options) {
    const std::string rewritten = PatternRewriter(pattern).run();
    const std::uint32_t caseFlag = options.caseInsensitive ? PCRE2_CASELESS : 0U;

    auto compiled = std::make_unique<Compiled>();
    // Every Unicode line terminator is a newline, so "." stops at U+000A..U+000D, U+0085,
    // U+2028 and U+2029.
    if (!compiled->unicode.compile(rewritten, PCRE2_UTF | PCRE2_UCP | PCRE2_MATCH_INVALID_UTF | caseFlag,
                                   PCRE2_NEWLINE_ANY)) {
        return nullptr;
    }
    pcre2_pattern_info(compiled->unicode.code, PCRE2_INFO_CAPTURECOUNT, &compiled->captureCount);
    // A failure here (an escape beyond one byte, say) leaves the Unicode program to do all work.
    if (isPlainASCII(rewritten)) (void)compiled->ascii.compile(rewritten, caseFlag, PCRE2_NEWLINE_LF);
    return std::shared_ptr<const RegularExpression>(new RegularExpression(std::move(compiled)));
}

std::vector<RegularExpression::Match> RegularExpression::matches(std::string_view text) const {
    std::vector<Match> result;
    const std::uint32_t groupCount = compiled_->captureCount + 1;
    compiled_->forEachMatch(text, [&](const PCRE2_SIZE* ovector, std::uint32_t setPairs) {
        Match& match = result.emplace_back();
        match.groups.resize(groupCount);
        for (std::uint32_t group = 0; group < setPairs; ++group) {
            const PCRE2_SIZE start = ovector[2 * group];
            const PCRE2_SIZE end = ovector[2 * group + 1];
            if (start != PCRE2_UNSET && end >= start) match.groups[group] = std::pair{start, end - start};
        }
    });
    return result;
}

bool RegularExpression::hasMatch(std::string_view text) const {
    const Program& program = compiled_->programFor(text);
    if (text.size() < program.minimumLength) return false;
    return program.search(text, 0, threadMatchData(compiled_->captureCount + 1)) > 0;
}

std::string RegularExpression::replacingMatches(std::string_view text, std::string_view replacementTemplate) const {
    std::string result;
    result.reserve(text.size());
    const std::uint32_t captureCount = compiled_->captureCount;
    std::size_t copied = 0;
    compiled_->forEachMatch(text, [&](const PCRE2_SIZE* ovector, std::uint32_t setPairs) {
        const std::size_t matchStart = std::max<std::size_t>(ovector[0], copied);
        result.append(text, copied, matchStart - copied);
        copied = std::max<std::size_t>(ovector[1], copied);

        for (std::size_t i = 0; i < replacementTemplate.size(); ++i) {
            const char c = replacementTemplate[i];
            if (c == '\\' && i + 1 < replacementTemplate.size()) {
                result.push_back(replacementTemplate[++i]);
                continue;
            }
            const bool digitFollows = i + 1 < replacementTemplate.size() && replacementTemplate[i + 1] >= '0' &&
                                      replacementTemplate[i + 1] <= '9';
            if (c != '$' || !digitFollows) {
                result.push_back(c);
                continue;
            }
            // The first digit always belongs to the group number; later ones only while the
            // number still names a group of the pattern, so "$12" with one group is "$1" then "2".
            ++i;
            std::uint32_t group = static_cast<std::uint32_t>(replacementTemplate[i] - '0');
            while (i + 1 < replacementTemplate.size() && replacementTemplate[i + 1] >= '0' &&
                   replacementTemplate[i + 1] <= '9') {
                const std::uint32_t longer = group * 10 + static_cast<std::uint32_t>(replacementTemplate[i + 1] - '0');
                if (longer > captureCount) break;
                group = longer;
                ++i;
            }
            if (group < setPairs) {
                const PCRE2_SIZE start = ovector[2 * group];
                const PCRE2_SIZE end = ovector[2 * group + 1];
                if (start != PCRE2_UNSET && end >= start) result.append(text, start, end - start);
            }
        }
    });
    result.append(text, copied, text.size() - copied);
    return result;
}

}  // namespace zul
