#include "zul/media/video_resolution.hpp"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <system_error>

namespace zul {

namespace {

// The first non-empty piece of `text` cut at `separator`, then the second one (empty views when
// there are fewer pieces).
struct Pieces {
    std::string_view first;
    std::string_view second;
    int count = 0;
};

Pieces firstTwoPieces(std::string_view text, char separator) noexcept {
    Pieces pieces;
    std::size_t position = 0;
    while (position <= text.size() && pieces.count < 2) {
        std::size_t end = text.find(separator, position);
        if (end == std::string_view::npos) end = text.size();
        if (end > position) {
            (pieces.count == 0 ? pieces.first : pieces.second) = text.substr(position, end - position);
            ++pieces.count;
        }
        position = end + 1;
    }
    return pieces;
}

// A base-10 integer with an optional sign, and nothing else.
std::optional<std::int64_t> integer(std::string_view text) noexcept {
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (text.empty() || text.front() == '-') return std::nullopt;
    }
    std::int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value, 10);
    if (ec != std::errc() || ptr != end || text.empty()) return std::nullopt;
    return value;
}

}  // namespace

VideoSize VideoSize::fromString(std::string_view text) {
    const Pieces beforeSuffix = firstTwoPieces(text, '_');
    if (beforeSuffix.count == 0) throw VideoSizeError::parsingError();
    const Pieces dimensions = firstTwoPieces(beforeSuffix.first, 'x');
    if (dimensions.count < 2) throw VideoSizeError::parsingError();
    const auto width = integer(dimensions.first);
    const auto height = integer(dimensions.second);
    if (!width || !height) throw VideoSizeError::parsingError();
    if (*width < 0 || *height < 0) throw VideoSizeError::invalid();
    return VideoSize{*width, *height};
}

std::optional<VideoResolution> videoResolution(std::uint8_t rawValue) noexcept {
    if (rawValue > static_cast<std::uint8_t>(VideoResolution::_4K)) return std::nullopt;
    return static_cast<VideoResolution>(rawValue);
}

bool isHD(VideoResolution resolution) noexcept {
    return static_cast<std::uint8_t>(resolution) > static_cast<std::uint8_t>(VideoResolution::_480p);
}

std::string_view description(VideoResolution resolution) noexcept {
    switch (resolution) {
        case VideoResolution::auto_: return "auto";
        case VideoResolution::_144p: return "144p";
        case VideoResolution::_240p: return "240p";
        case VideoResolution::_360p: return "360p";
        case VideoResolution::_480p: return "480p";
        case VideoResolution::_720p: return "720p";
        case VideoResolution::_1080p: return "1080p";
        case VideoResolution::_2K: return "2K";
        case VideoResolution::_4K: return "4K";
    }
    return "auto";
}

VideoResolution resolutionForVideoSizeArea(std::int64_t area) noexcept {
    if (area <= 250'000) return VideoResolution::_360p;
    if (area <= 600'000) return VideoResolution::_480p;
    if (area <= 1'300'000) return VideoResolution::_720p;
    if (area <= 2'500'000) return VideoResolution::_1080p;
    if (area <= 6'400'000) return VideoResolution::_2K;
    return VideoResolution::_4K;
}

VideoResolution resolutionForSize(const VideoSize& size) {
    std::int64_t area = 0;
    if (__builtin_mul_overflow(size.width, size.height, &area)) {
        fatalError("Arithmetic overflow: the area of a " + std::to_string(size.width) + "x" +
                   std::to_string(size.height) + " video size does not fit in 64 bits");
    }
    return resolutionForVideoSizeArea(area);
}

VideoResolution resolutionForBandwidth(std::int64_t bandwidth) {
    if (bandwidth < 0) {
        // Not `fatalError`: the message names the component and line that clients' crash reports
        // have always shown for this case, which a source location of this file would not.
        const std::string text =
            "Fatal error: Recieved " + std::to_string(bandwidth) + ": file ZulFoundation/VideoResolution, line 76\n";
        std::fwrite(text.data(), 1, text.size(), stderr);
        std::fflush(stderr);
        std::abort();
    }
    if (bandwidth <= 500'000) return VideoResolution::_144p;
    if (bandwidth <= 1'000'000) return VideoResolution::_240p;
    if (bandwidth <= 1'500'000) return VideoResolution::_360p;
    if (bandwidth <= 3'000'000) return VideoResolution::_480p;
    if (bandwidth <= 4'800'000) return VideoResolution::_720p;
    if (bandwidth <= 10'000'000) return VideoResolution::_1080p;
    return VideoResolution::_4K;
}

}  // namespace zul
