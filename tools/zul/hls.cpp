// zul hls: reads an HLS playlist and shows what the library makes of it.

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "commands.hpp"
#include "zul/media/master_playlist.hpp"
#include "zul/platform/json_serialization.hpp"

namespace zul::tool {

namespace {

constexpr std::int64_t kChunkSize = 64 * 1024;

std::unique_ptr<FileBufferedReader> open(const std::string& path) {
    return FileBufferedReader::create(path, "\n", TextEncoding::utf8, kChunkSize);
}

// A master playlist is one with a variant stream tag on any line.
bool isMasterPlaylist(const std::string& path) {
    auto reader = open(path);
    if (!reader) return false;
    bool master = false;
    while (auto line = reader->readLine()) {
        if (line->starts_with("#EXT-X-STREAM-INF")) {
            master = true;
            break;
        }
    }
    reader->close();
    return master;
}

template <class T>
AnyValue orNull(const std::optional<T>& value) {
    return value ? AnyValue(*value) : AnyValue(Null{});
}

AnyValue masterJSON(const MasterPlaylist& master) {
    AnyList variants;
    for (const MediaPlaylist& variant : master.playlists) {
        AnyValue resolution = Null{};
        if (variant.resolution) {
            resolution = AnyMap{{"width", variant.resolution->width}, {"height", variant.resolution->height}};
        }
        variants.push_back(AnyMap{{"programId", variant.programId},
                                  {"bandwidth", variant.bandwidth},
                                  {"resolution", resolution},
                                  {"path", variant.path.value_or("")}});
    }
    return AnyMap{{"kind", "master"}, {"playlists", std::move(variants)}};
}

AnyValue mediaJSON(const MediaPlaylist& media) {
    AnyList segments;
    segments.reserve(media.segments.size());
    for (const MediaSegment& segment : media.segments) {
        segments.push_back(AnyMap{{"duration", orNull(segment.duration)},
                                  {"sequence", segment.sequence},
                                  {"subrangeLength", orNull(segment.subrangeLength)},
                                  {"subrangeStart", orNull(segment.subrangeStart)},
                                  {"title", orNull(segment.title)},
                                  {"discontinuity", segment.discontinuity},
                                  {"path", orNull(segment.path)}});
    }
    return AnyMap{{"kind", "media"},
                  {"version", orNull(media.version)},
                  {"targetDuration", orNull(media.targetDuration)},
                  {"mediaSequence", orNull(media.mediaSequence)},
                  {"contentKeyIdentifier", media.contentKeyIdentifier},
                  {"duration", media.duration()},
                  {"segments", std::move(segments)}};
}

std::string text(const std::optional<std::int64_t>& value) { return value ? std::to_string(*value) : "-"; }

void printMaster(const std::string& path, const MasterPlaylist& master) {
    std::printf("%s: master playlist, %lld variants\n\n", path.c_str(),
                static_cast<long long>(master.getPlaylistCount()));
    std::printf("  %-3s %10s  %-11s %-9s %-14s %s\n", "#", "bandwidth", "size", "by size", "by bandwidth", "path");
    int index = 0;
    for (const MediaPlaylist& variant : master.playlists) {
        std::string size = "-";
        std::string bySize = "-";
        if (variant.resolution) {
            size = std::to_string(variant.resolution->width) + "x" + std::to_string(variant.resolution->height);
            bySize = std::string(description(resolutionForSize(*variant.resolution)));
        }
        const std::string byBandwidth(description(resolutionForBandwidth(variant.bandwidth)));
        std::printf("  %-3d %10lld  %-11s %-9s %-14s %s\n", index++, static_cast<long long>(variant.bandwidth),
                    size.c_str(), bySize.c_str(), byBandwidth.c_str(), variant.path.value_or("").c_str());
    }
}

void printMedia(const std::string& path, const MediaPlaylist& media) {
    int discontinuities = 0;
    int byteRanges = 0;
    for (const MediaSegment& segment : media.segments) {
        if (segment.discontinuity) ++discontinuities;
        if (segment.subrangeLength) ++byteRanges;
    }
    std::printf("%s: media playlist\n\n", path.c_str());
    std::printf("  segments          %lld\n", static_cast<long long>(media.getSegmentCount()));
    std::printf("  total duration    %.3f s\n", static_cast<double>(media.duration()));
    std::printf("  target duration   %s\n", text(media.targetDuration).c_str());
    std::printf("  media sequence    %s\n", text(media.mediaSequence).c_str());
    std::printf("  version           %s\n", text(media.version).c_str());
    std::printf("  content key       %s\n", media.contentKeyIdentifier.empty() ? "-" : media.contentKeyIdentifier.c_str());
    std::printf("  discontinuities   %d\n", discontinuities);
    std::printf("  byte ranges       %d\n", byteRanges);
}

// Shows one playlist file; returns false when it cannot be read.
bool show(const std::string& path, bool json) {
    const bool master = isMasterPlaylist(path);
    auto reader = open(path);
    if (!reader) {
        std::fprintf(stderr, "zul hls: cannot read %s\n", path.c_str());
        return false;
    }
    if (master) {
        const MasterPlaylist playlist = MasterPlaylist::create(*reader);
        if (json) {
            const Data out = JSONSerialization::data(masterJSON(playlist), {.prettyPrinted = true});
            std::printf("%.*s\n", static_cast<int>(out.size()), reinterpret_cast<const char*>(out.data()));
        } else {
            printMaster(path, playlist);
        }
    } else {
        const MediaPlaylist playlist = MediaPlaylist::create(*reader);
        if (json) {
            const Data out = JSONSerialization::data(mediaJSON(playlist), {.prettyPrinted = true});
            std::printf("%.*s\n", static_cast<int>(out.size()), reinterpret_cast<const char*>(out.data()));
        } else {
            printMedia(path, playlist);
        }
    }
    return true;
}

}  // namespace

int hls(const std::vector<std::string_view>& arguments) {
    bool json = false;
    std::vector<std::string> files;
    for (const std::string_view argument : arguments) {
        if (argument == "--json") {
            json = true;
        } else if (argument.starts_with("-")) {
            std::fprintf(stderr, "zul hls: unknown option %.*s\n", static_cast<int>(argument.size()), argument.data());
            return 2;
        } else {
            files.emplace_back(argument);
        }
    }
    if (files.size() > 1) {
        std::fputs("zul hls: give at most one FILE\n", stderr);
        return 2;
    }
    if (files.empty()) {
        // The shipped samples: a master playlist and one of its media playlists.
        const std::string samples = samplesDirectory();
        bool ok = show(samples + "/master.m3u8", json);
        if (!json) std::printf("\n");
        ok = show(samples + "/media.m3u8", json) && ok;
        return ok ? 0 : 1;
    }
    return show(files.front(), json) ? 0 : 1;
}

}  // namespace zul::tool
