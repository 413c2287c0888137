#pragma once

/// `VideoSize`, a pixel size parsed from an HLS RESOLUTION attribute, and `VideoResolution`, the
/// quality ladder a stream is labelled with, from a size, a pixel area or a bandwidth.

#include <compare>
#include <cstdint>
#include <optional>
#include <string_view>

#include "zul/platform/error.hpp"

namespace zul {

class VideoSizeError final : public Error {
public:
    enum class Kind { invalid, parsingError };
    /// A negative dimension.
    static VideoSizeError invalid() noexcept { return VideoSizeError(Kind::invalid); }
    /// The text is not of the form WIDTHxHEIGHT.
    static VideoSizeError parsingError() noexcept { return VideoSizeError(Kind::parsingError); }
    Kind kind() const noexcept { return kind_; }
    const char* what() const noexcept override { return kind_ == Kind::invalid ? "invalid" : "parsingError"; }
    friend bool operator==(const VideoSizeError& a, const VideoSizeError& b) noexcept { return a.kind_ == b.kind_; }

private:
    explicit VideoSizeError(Kind kind) noexcept : kind_(kind) {}
    Kind kind_;
};

struct VideoSize {
    std::int64_t width = 0;
    std::int64_t height = 0;

    /// Parses "1280x720" (a suffix after "_" is ignored: "1920x1080_hdr"); the "x" is lower
    /// case. Throws `VideoSizeError`.
    static VideoSize fromString(std::string_view text);

    friend bool operator==(const VideoSize&, const VideoSize&) = default;
};

/// The quality ladder, ordered by raw value.
enum class VideoResolution : std::uint8_t {
    auto_ = 0,
    _144p = 1,
    _240p = 2,
    _360p = 3,
    _480p = 4,
    _720p = 5,
    _1080p = 6,
    _2K = 7,
    _4K = 8,
};

/// The resolution with that raw value; absent for 9 and above.
std::optional<VideoResolution> videoResolution(std::uint8_t rawValue) noexcept;
/// 720p and up.
bool isHD(VideoResolution resolution) noexcept;
/// "auto", "144p", ..., "1080p", "2K", "4K".
std::string_view description(VideoResolution resolution) noexcept;

/// The resolution for a pixel area: never below 360p.
VideoResolution resolutionForVideoSizeArea(std::int64_t area) noexcept;
/// The resolution for a size (width times height; an overflowing product stops the process).
VideoResolution resolutionForSize(const VideoSize& size);
/// The resolution for a bandwidth in bits per second; a negative bandwidth stops the process.
VideoResolution resolutionForBandwidth(std::int64_t bandwidth);

}  // namespace zul
