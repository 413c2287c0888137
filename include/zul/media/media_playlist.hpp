#pragma once

/// `MediaPlaylist` and `MediaSegment`: one HLS variant, with its stream attributes (from a master
/// playlist) and, when read from a media playlist, its header values, segments and content key.
///
///     zul::StringBufferedReader reader(text);
///     zul::MediaPlaylist playlist = zul::MediaPlaylist::create(reader);
///     float seconds = playlist.duration();
///
/// Parsing never fails: values that do not convert become absent (or leave a field as it was),
/// unknown tags are skipped.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zul/media/buffered_reader.hpp"
#include "zul/media/video_resolution.hpp"

namespace zul {

struct MediaSegment {
    std::optional<float> duration;          ///< seconds, from #EXTINF
    std::int64_t sequence = 0;              ///< media sequence number
    std::optional<std::int64_t> subrangeLength;  ///< byte count, from #EXT-X-BYTERANGE
    std::optional<std::int64_t> subrangeStart;   ///< byte offset, when the byte range has "@"
    std::optional<std::string> title;       ///< from #EXTINF
    bool discontinuity = false;             ///< set by #EXT-X-DISCONTINUITY
    std::optional<std::string> path;        ///< the segment URI

    friend bool operator==(const MediaSegment&, const MediaSegment&) = default;
};

struct MediaPlaylist {
    std::int64_t programId = 0;
    std::int64_t bandwidth = 0;
    std::optional<VideoSize> resolution;
    std::optional<std::string> path;
    std::optional<std::int64_t> version;
    std::optional<std::int64_t> targetDuration;
    std::optional<std::int64_t> mediaSequence;
    std::vector<MediaSegment> segments;
    /// The URI of the #EXT-X-KEY:METHOD=SAMPLE-AES key; empty when there is none.
    std::string contentKeyIdentifier;

    void addSegment(MediaSegment segment) { segments.push_back(std::move(segment)); }
    /// The segment at `index`, or absent when out of range.
    std::optional<MediaSegment> getSegment(std::int64_t index) const;
    std::int64_t getSegmentCount() const noexcept { return static_cast<std::int64_t>(segments.size()); }
    /// The sum of the segments' durations, an absent duration counting as 0.
    float duration() const noexcept;

    /// Parses a media playlist; closes the reader before returning.
    static MediaPlaylist create(BufferedReader& reader);
    /// The text between `URI="` (any case) and the next `"` of `line`; empty when there is none.
    /// (Named apart from the `contentKeyIdentifier` field, which C++ cannot overload.)
    static std::string parseContentKeyIdentifier(std::string_view line);

    friend bool operator==(const MediaPlaylist&, const MediaPlaylist&) = default;
};

}  // namespace zul
