// Parsing HLS playlists from files: a VOD media playlist of 200,000 segments (titles, byte
// ranges, discontinuities) and a master playlist of 500 variants, read through FileBufferedReader
// in 64 KiB chunks as `zul hls` reads them.
//
// Besides throughput, the benchmark reports heap memory: the parsed result, and the peak during
// parsing above it, which should stay near one chunk plus the longest line (the file is never
// read whole).

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

#include "support/allocation_counter.hpp"
#include "zul/media/master_playlist.hpp"

namespace {

constexpr std::int64_t kChunkSize = 64 * 1024;

std::string writeMediaPlaylist() {
    const std::string path = (std::filesystem::temp_directory_path() / "zul_bench_media.m3u8").string();
    std::FILE* file = std::fopen(path.c_str(), "wb");
    std::mt19937 random(7);
    std::fprintf(file, "#EXTM3U\n#EXT-X-VERSION:4\n#EXT-X-TARGETDURATION:10\n#EXT-X-MEDIA-SEQUENCE:0\n");
    std::fprintf(file, "#EXT-X-PLAYLIST-TYPE:VOD\n#EXT-X-KEY:METHOD=SAMPLE-AES,URI=\"skd://key-1\"\n");
    long long offset = 0;
    for (int i = 0; i < 200'000; ++i) {
        const int length = 500'000 + static_cast<int>(random() % 300'000);
        if (random() % 50 == 0) std::fputs("#EXT-X-DISCONTINUITY\n", file);
        std::fprintf(file, "#EXTINF:%d.%05d,Episode 12 part %d\n", 9 + static_cast<int>(random() % 2),
                     static_cast<int>(random() % 100'000), i);
        std::fprintf(file, "#EXT-X-BYTERANGE:%d@%lld\n", length, offset);
        std::fprintf(file, "media/video/720p/chunks/segment-%06d.ts\n", i / 100);
        offset += length;
    }
    std::fputs("#EXT-X-ENDLIST\n", file);
    std::fclose(file);
    return path;
}

std::string writeMasterPlaylist() {
    const std::string path = (std::filesystem::temp_directory_path() / "zul_bench_master.m3u8").string();
    std::FILE* file = std::fopen(path.c_str(), "wb");
    std::fputs("#EXTM3U\n", file);
    for (int i = 0; i < 500; ++i) {
        std::fprintf(file,
                     "#EXT-X-STREAM-INF:PROGRAM-ID=1,BANDWIDTH=%d,RESOLUTION=%dx%d,CODECS=\"avc1.640028,mp4a.40.2\"\n"
                     "variants/%d/index.m3u8\n",
                     200'000 + i * 30'000, 320 + i * 4, 180 + (i * 9) / 4, i);
    }
    std::fclose(file);
    return path;
}

template <class Parse>
void runParse(benchmark::State& state, const std::string& path, Parse parse) {
    const auto bytes = static_cast<std::int64_t>(std::filesystem::file_size(path));
    std::size_t resultBytes = 0;
    std::size_t workingBytes = 0;
    for (auto _ : state) {
        const std::size_t before = zul::bench::liveBytes();
        zul::bench::resetPeakBytes();
        auto reader = zul::FileBufferedReader::create(path, "\n", zul::TextEncoding::utf8, kChunkSize);
        if (!reader) {
            state.SkipWithError("cannot open the generated playlist");
            return;
        }
        auto result = parse(*reader);
        reader.reset();
        resultBytes = zul::bench::liveBytes() - before;
        workingBytes = zul::bench::peakBytes() - before - resultBytes;
        benchmark::DoNotOptimize(result);
        state.PauseTiming();
        { auto discard = std::move(result); }
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
    state.counters["file_MB"] = static_cast<double>(bytes) / 1e6;
    state.counters["result_MB"] = static_cast<double>(resultBytes) / 1e6;
    state.counters["peak_above_result_KB"] = static_cast<double>(workingBytes) / 1e3;
}

void BM_ParseMediaPlaylist(benchmark::State& state) {
    static const std::string path = writeMediaPlaylist();
    runParse(state, path, [&](zul::BufferedReader& reader) {
        auto playlist = zul::MediaPlaylist::create(reader);
        if (playlist.getSegmentCount() != 200'000) state.SkipWithError("wrong segment count");
        return playlist;
    });
}
BENCHMARK(BM_ParseMediaPlaylist)->Unit(benchmark::kMillisecond);

void BM_ParseMasterPlaylist(benchmark::State& state) {
    static const std::string path = writeMasterPlaylist();
    runParse(state, path, [&](zul::BufferedReader& reader) {
        auto playlist = zul::MasterPlaylist::create(reader);
        if (playlist.getPlaylistCount() != 500) state.SkipWithError("wrong variant count");
        return playlist;
    });
}
BENCHMARK(BM_ParseMasterPlaylist)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
