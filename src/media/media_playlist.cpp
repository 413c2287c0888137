#include "zul/media/media_playlist.hpp"

#include <cfloat>
#include <charconv>
#include <cstdio>
#include <limits>
#include <memory>
#include <system_error>
#include <utility>

#include "zul/platform/regular_expression.hpp"

namespace zul {

namespace {

using Pattern = std::shared_ptr<const RegularExpression>;

// Each tag's value is cut out of its line by a pattern compiled once per process.
const RegularExpression* integerTagPattern() {
    static const Pattern pattern = RegularExpression::compile("(.*):(\\d+)(.*)", {.caseInsensitive = true});
    return pattern.get();
}

const RegularExpression* byteRangePattern() {
    static const Pattern pattern = RegularExpression::compile("(.*):(\\d.*)", {.caseInsensitive = true});
    return pattern.get();
}

const RegularExpression* byteRangeWithStartPattern() {
    static const Pattern pattern = RegularExpression::compile("(.*):(\\d.*)@(.*)", {.caseInsensitive = true});
    return pattern.get();
}

const RegularExpression* segmentInfoPattern() {
    static const Pattern pattern = RegularExpression::compile("(.*):(\\d.*),(.*)", {.caseInsensitive = true});
    return pattern.get();
}

void writeDiagnostic(std::string_view message, std::string_view line) {
    std::string text;
    text.reserve(message.size() + line.size() + 1);
    text.append(message).append(line).push_back('\n');
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

// `line` with every match of `pattern` replaced by `replacementTemplate`, or absent when the
// pattern is missing (it failed to compile); then `diagnostic`, when there is one, is written
// to standard output followed by the line.
std::optional<std::string> replaced(const RegularExpression* pattern, std::string_view line,
                                    std::string_view replacementTemplate, std::string_view diagnostic) {
    if (pattern == nullptr) {
        if (!diagnostic.empty()) writeDiagnostic(diagnostic, line);
        return std::nullopt;
    }
    return pattern->replacingMatches(line, replacementTemplate);
}

// The same for the templates "$<first>" and "$<second>", from one pass over the matches: a
// segment tag needs two values from each line, and searching the line once halves the cost.
std::optional<std::pair<std::string, std::string>> replacedByGroups(const RegularExpression* pattern,
                                                                    std::string_view line, std::size_t first,
                                                                    std::size_t second, std::string_view diagnostic) {
    if (pattern == nullptr) {
        if (!diagnostic.empty()) writeDiagnostic(diagnostic, line);
        return std::nullopt;
    }
    std::pair<std::string, std::string> result;
    std::size_t copied = 0;
    const auto appendGroup = [&](std::string& target, const RegularExpression::Match& match, std::size_t group) {
        if (group >= match.groups.size() || !match.groups[group]) return;
        target.append(line.substr(match.groups[group]->first, match.groups[group]->second));
    };
    for (const RegularExpression::Match& match : pattern->matches(line)) {
        const auto [start, length] = *match.groups.front();
        const std::string_view between = line.substr(copied, start - copied);
        result.first.append(between);
        result.second.append(between);
        appendGroup(result.first, match, first);
        appendGroup(result.second, match, second);
        copied = start + length;
    }
    result.first.append(line.substr(copied));
    result.second.append(line.substr(copied));
    return result;
}

// A base-10 integer with an optional sign, and nothing else.
std::optional<std::int64_t> integer(std::string_view text) noexcept {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (text.empty() || text.front() == '-') return std::nullopt;
    }
    if (text.empty()) return std::nullopt;
    std::int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value, 10);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return value;
}

std::optional<std::int64_t> integerOf(const std::optional<std::string>& text) noexcept {
    return text ? integer(std::string_view(*text)) : std::nullopt;
}

// A decimal number as a 32-bit float, and nothing else. Magnitudes beyond a float become
// infinity, and below its smallest denormal zero, as the C library's reading of them would.
std::optional<float> floatingPoint(std::string_view text) noexcept {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (text.empty() || text.front() == '-') return std::nullopt;
    }
    if (text.empty()) return std::nullopt;
    const char* end = text.data() + text.size();
    float value = 0;
    const auto [ptr, ec] = std::from_chars(text.data(), end, value, std::chars_format::general);
    if (ptr != end) return std::nullopt;
    if (ec == std::errc()) return value;
    if (ec != std::errc::result_out_of_range) return std::nullopt;

    const bool negative = text.front() == '-';
    double wide = 0;
    const auto [widePtr, wideEc] = std::from_chars(text.data(), end, wide, std::chars_format::general);
    bool huge = false;
    if (wideEc == std::errc() && widePtr == end) {
        if (wide >= -static_cast<double>(FLT_MAX) && wide <= static_cast<double>(FLT_MAX)) {
            return static_cast<float>(wide);
        }
        huge = true;
    } else {
        // Beyond a double too: a negative exponent or a zero integer part means tiny.
        const std::size_t exponent = text.find_first_of("eE");
        const bool negativeExponent = exponent != std::string_view::npos && exponent + 1 < text.size() &&
                                      text[exponent + 1] == '-';
        const std::string_view mantissa = text.substr(negative ? 1 : 0, exponent - (negative ? 1 : 0));
        const bool zeroIntegerPart = mantissa.find_first_not_of("0") == std::string_view::npos ||
                                     mantissa[mantissa.find_first_not_of("0")] == '.';
        huge = !negativeExponent && !zeroIntegerPart;
    }
    const float magnitude = huge ? std::numeric_limits<float>::infinity() : 0.0F;
    return negative ? -magnitude : magnitude;
}

// A prefix test on a literal, compared inline rather than through a library call.
template <std::size_t N>
bool startsWith(std::string_view text, const char (&prefix)[N]) noexcept {
    return text.size() >= N - 1 && __builtin_memcmp(text.data(), prefix, N - 1) == 0;
}

// The text between `URI="` (any case) and the next `"`; empty when either is missing.
std::string keyIdentifier(std::string_view line) {
    constexpr std::string_view marker = "uri=\"";
    if (line.size() < marker.size()) return {};
    for (std::size_t i = 0; i + marker.size() <= line.size(); ++i) {
        bool found = true;
        for (std::size_t j = 0; j < marker.size(); ++j) {
            char c = line[i + j];
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
            if (c != marker[j]) {
                found = false;
                break;
            }
        }
        if (!found) continue;
        const std::size_t valueStart = i + marker.size();
        const std::size_t close = line.find('"', valueStart);
        if (close == std::string_view::npos) return {};
        return std::string(line.substr(valueStart, close - valueStart));
    }
    return {};
}

}  // namespace

std::optional<MediaSegment> MediaPlaylist::getSegment(std::int64_t index) const {
    if (index < 0 || index >= getSegmentCount()) return std::nullopt;
    return segments[static_cast<std::size_t>(index)];
}

float MediaPlaylist::duration() const noexcept {
    float total = 0;
    for (const MediaSegment& segment : segments) total += segment.duration.value_or(0.0F);
    return total;
}

std::string MediaPlaylist::parseContentKeyIdentifier(std::string_view line) { return keyIdentifier(line); }

namespace {

// The segment being described by tags, which every following URI turns into a list entry.
// After a URI the description usually stays untouched until the next #EXTINF replaces it, so
// it is moved into the list rather than copied, and copied back out only if a later tag
// changes it or a second URI repeats it.
class PendingSegment {
public:
    bool exists() const noexcept { return exists_; }

    void replace(MediaSegment segment) {
        segment_ = std::move(segment);
        exists_ = true;
        inList_ = false;
    }

    // The description to change; it is no longer the last list entry's.
    MediaSegment& edit(const std::vector<MediaSegment>& segments) {
        if (inList_) {
            segment_ = segments.back();
            inList_ = false;
        }
        return segment_;
    }

    void emit(std::vector<MediaSegment>& segments, std::int64_t sequence, std::string path) {
        if (inList_) {
            segments.push_back(segments.back());
        } else {
            segments.push_back(std::move(segment_));
            inList_ = true;
        }
        segments.back().sequence = sequence;
        segments.back().path = std::move(path);
    }

private:
    MediaSegment segment_;
    bool exists_ = false;
    bool inList_ = false;  // moved into the list as its last entry
};

}  // namespace

MediaPlaylist MediaPlaylist::create(BufferedReader& reader) {
    MediaPlaylist playlist;
    PendingSegment pending;
    std::int64_t nextSequence = 0;

    while (std::optional<std::string> read = reader.readLine()) {
        const std::string_view line = *read;
        if (line.empty()) continue;
        if (!startsWith(line, "#EXT")) {
            if (line.front() == '#' || !pending.exists()) continue;
            // A URI: the segment described so far, numbered. The description stays pending, so
            // a further URI repeats it under the next number.
            pending.emit(playlist.segments, nextSequence++, std::move(*read));
            continue;
        }

        if (startsWith(line, "#EXTINF")) {
            MediaSegment segment;
            if (auto values = replacedByGroups(segmentInfoPattern(), line, 2, 3,
                                               "Failed to parse the segment duration and title. Line = ")) {
                segment.duration = floatingPoint(values->first);
                segment.title = std::move(values->second);
            }
            pending.replace(std::move(segment));
        } else if (startsWith(line, "#EXTM3U")) {
            continue;
        } else if (startsWith(line, "#EXT-X-VERSION")) {
            const auto value = replaced(integerTagPattern(), line, "$2", {});
            if (const auto version = integerOf(value)) playlist.version = version;
        } else if (startsWith(line, "#EXT-X-TARGETDURATION")) {
            if (const auto value = replaced(integerTagPattern(), line, "$2",
                                            "Failed to parse the target duration of media playlist. Line = ")) {
                playlist.targetDuration = integer(*value);
            }
        } else if (startsWith(line, "#EXT-X-KEY:METHOD=SAMPLE-AES")) {
            playlist.contentKeyIdentifier = keyIdentifier(line);
        } else if (startsWith(line, "#EXT-X-MEDIA-SEQUENCE")) {
            const auto value = replaced(integerTagPattern(), line, "$2",
                                        "Failed to parse the media sequence in media playlist. Line = ");
            if (const auto sequence = integerOf(value)) {
                playlist.mediaSequence = sequence;
                nextSequence = *sequence;
            }
        } else if (startsWith(line, "#EXT-X-BYTERANGE")) {
            if (!pending.exists()) continue;
            if (line.find('@') != std::string_view::npos) {
                if (const auto values = replacedByGroups(byteRangeWithStartPattern(), line, 2, 3,
                                                         "Failed to parse byte range. Line = ")) {
                    MediaSegment& segment = pending.edit(playlist.segments);
                    segment.subrangeLength = integer(values->first);
                    segment.subrangeStart = integer(values->second);
                }
            } else {
                if (const auto value = replaced(byteRangePattern(), line, "$2",
                                                "Failed to parse the byte range. Line =\xC2\xA0")) {
                    MediaSegment& segment = pending.edit(playlist.segments);
                    segment.subrangeLength = integer(*value);
                    segment.subrangeStart = std::nullopt;
                }
            }
        } else if (startsWith(line, "#EXT-X-DISCONTINUITY")) {
            if (pending.exists()) pending.edit(playlist.segments).discontinuity = true;
        }
    }
    reader.close();
    return playlist;
}

}  // namespace zul
