#include "zul/media/master_playlist.hpp"

#include <charconv>
#include <memory>
#include <system_error>
#include <utility>

#include "zul/platform/regular_expression.hpp"

namespace zul {

namespace {

bool startsWith(std::string_view text, std::string_view prefix) noexcept {
    return text.size() >= prefix.size() && text.compare(0, prefix.size(), prefix) == 0;
}

// A base-10 integer with an optional sign, and nothing else; 0 when the attribute is missing or
// is not one.
std::int64_t integerAttribute(const OrderedMap<std::string>& parameters, std::string_view key) noexcept {
    const std::string* found = parameters.get(key);
    if (found == nullptr) return 0;
    std::string_view text = *found;
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (text.empty() || text.front() == '-') return 0;
    }
    if (text.empty()) return 0;
    std::int64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value, 10);
    return ec == std::errc() && ptr == end ? value : 0;
}

std::optional<VideoSize> resolutionAttribute(const OrderedMap<std::string>& parameters) {
    const std::string* found = parameters.get("RESOLUTION");
    if (found == nullptr) return std::nullopt;
    try {
        return VideoSize::fromString(*found);
    } catch (const VideoSizeError&) {
        return std::nullopt;
    }
}

}  // namespace

std::optional<MediaPlaylist> MasterPlaylist::getPlaylist(std::int64_t index) const {
    if (index < 0 || index >= getPlaylistCount()) return std::nullopt;
    return playlists[static_cast<std::size_t>(index)];
}

std::optional<OrderedMap<std::string>> MasterPlaylist::getParameters(std::string_view text) {
    static const std::shared_ptr<const RegularExpression> pattern =
        RegularExpression::compile(R"re((([\w\-]+=[\w\d.]+)|([\w\-]+="[\w\d,. ]+")))re");
    if (pattern == nullptr) return std::nullopt;

    OrderedMap<std::string> parameters;
    for (const RegularExpression::Match& match : pattern->matches(text)) {
        const auto [offset, length] = *match.groups.front();
        const std::string_view attribute = text.substr(offset, length);
        // Cut at every "=", dropping empty pieces; only the first two count.
        std::string_view pieces[2];
        int count = 0;
        std::size_t position = 0;
        while (position <= attribute.size() && count < 2) {
            std::size_t end = attribute.find('=', position);
            if (end == std::string_view::npos) end = attribute.size();
            if (end > position) pieces[count++] = attribute.substr(position, end - position);
            position = end + 1;
        }
        if (count < 2) continue;
        parameters.insertOrAssign(pieces[0], std::string(pieces[1]));
    }
    return parameters;
}

MasterPlaylist MasterPlaylist::create(BufferedReader& reader) {
    MasterPlaylist master;
    std::optional<MediaPlaylist> pending;

    while (std::optional<std::string> read = reader.readLine()) {
        const std::string_view line = *read;
        if (line.empty()) continue;
        if (startsWith(line, "#EXT")) {
            if (startsWith(line, "#EXTM3U") || !startsWith(line, "#EXT-X-STREAM-INF")) continue;
            const auto parameters = getParameters(line);
            if (!parameters) continue;
            MediaPlaylist variant;
            variant.programId = integerAttribute(*parameters, "PROGRAM-ID");
            variant.bandwidth = integerAttribute(*parameters, "BANDWIDTH");
            variant.resolution = resolutionAttribute(*parameters);
            pending = std::move(variant);
            continue;
        }
        if (line.front() == '#' || !pending) continue;
        // A variant URI: the attributes stay pending, so a further URI gets the same ones.
        MediaPlaylist variant = *pending;
        variant.path = std::move(*read);
        master.addPlaylist(std::move(variant));
    }
    reader.close();
    return master;
}

}  // namespace zul
