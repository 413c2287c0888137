#pragma once

/// `MasterPlaylist`: the variant streams of an HLS master playlist, one `MediaPlaylist` per variant
/// URI with its PROGRAM-ID, BANDWIDTH and RESOLUTION.
///
///     zul::MasterPlaylist master = zul::MasterPlaylist::create(reader);
///     for (const auto& variant : master.playlists) { ... variant.bandwidth, *variant.path ... }

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zul/media/media_playlist.hpp"
#include "zul/platform/ordered_map.hpp"

namespace zul {

struct MasterPlaylist {
    std::optional<std::string> path;
    std::vector<MediaPlaylist> playlists;

    void addPlaylist(MediaPlaylist playlist) { playlists.push_back(std::move(playlist)); }
    std::optional<MediaPlaylist> getPlaylist(std::int64_t index) const;
    std::int64_t getPlaylistCount() const noexcept { return static_cast<std::int64_t>(playlists.size()); }

    /// Parses a master playlist; closes the reader before returning. Never fails.
    static MasterPlaylist create(BufferedReader& reader);

    /// The attributes of a tag line: KEY=value or KEY="quoted value" (quotes kept), later keys
    /// overwriting earlier ones. Absent only if the attribute pattern cannot be compiled.
    static std::optional<OrderedMap<std::string>> getParameters(std::string_view text);

    friend bool operator==(const MasterPlaylist&, const MasterPlaylist&) = default;
};

}  // namespace zul
