// Decoding a catalogue of records from JSON: `zul::JSONDecoder` next to nlohmann::json (parse, then
// `from_json`) and next to hand-written simdjson on-demand extraction into the very same structs.
//
// The document is a JSON array of 100,000 movie records, about 28 MB (some 285 bytes a record, of
// which the keys and punctuation alone take about 130), made once at start-up by a
// deterministic generator (fixed seed, own random number generator, so every machine decodes the
// same bytes). A record has an integer id, a title, a nested studio record, an optional rating
// (sometimes missing, sometimes null), an optional tagline (sometimes missing), 5-20 scores, 1-5
// genres, a release date in seconds since 1970 and two more scalars. Now and then a text carries
// an escaped quote or an escaped "\u00e9", so that the unescaping paths are exercised too.
//
// What the three variants are given, and why that is fair:
//  - simdjson's on-demand parser wants its input followed by SIMDJSON_PADDING readable bytes. The
//    document is made once, outside the timed loops, as a `simdjson::padded_string`, and the
//    hand-written extraction iterates it in place with a parser reused across iterations: the
//    fastest a careful hand-writer can do.
//  - `zul::JSONDecoder` and nlohmann are handed a `std::string_view` over the very same buffer.
//    A string view cannot promise the padding behind it, so if the decoder needs padding it has
//    to make its own padded copy; that copy is the price of its plain-text interface and is
//    counted. `BM_Baseline_CopyInput` shows what copying the document costs on its own, for reading the
//    ratios.
//  - Everything is built with the project's flags. Without an -march option the on-demand code
//    inlined here is simdjson's generic kernel, while its first pass (and the whole DOM parser)
//    is picked at run time for the machine; building this file for AVX2 changes nothing
//    measurable, as the time goes into building the records rather than into scanning.
// All variants build the full `std::vector<Movie>` of every iteration. The result's destruction
// and its verification happen with the timer paused, identically for all of them; nlohmann's
// intermediate document is part of its decode and is timed.
//
// The generator keeps the records it writes, and every iteration of every variant compares a
// checksum over all fields of what it decoded (presence of optionals included) with the checksum
// of those records; a mismatch reports an error instead of a figure.

#include <benchmark/benchmark.h>

#include <simdjson.h>

#include <nlohmann/json.hpp>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zul/core/codable.hpp"
#include "zul/core/json_decoder.hpp"

namespace {

constexpr std::size_t kRecordCount = 100'000;
constexpr std::uint64_t kSeed = 0x5eed'2024'0b1e'c75ULL;

// --- The records ----------------------------------------------------------------------------

struct Studio {
    std::string name;
    std::string country;
    std::int64_t founded = 0;
    ZUL_CODABLE(Studio, name, country, founded)
};

struct Movie {
    std::int64_t id = 0;
    std::string title;
    Studio studio;
    std::optional<double> rating;
    std::optional<std::string> tagline;
    std::vector<double> scores;
    std::vector<std::string> genres;
    zul::Date released;
    bool available = false;
    std::int64_t views = 0;
    ZUL_CODABLE(Movie, id, title, studio, rating, tagline, scores, genres, released, available, views)
};

// Seconds since 1970, as any of the decoders reads them, to a date.
zul::Date dateFromSeconds(double seconds) {
    return zul::Date(std::chrono::duration_cast<zul::Date::duration>(std::chrono::duration<double>(seconds)));
}

// --- Checksum ---------------------------------------------------------------------------------

// FNV-1a over every field in a fixed order. Numbers that went through text are compared in
// hundredths and dates in milliseconds, finer than they were written (tenths, whole seconds) but
// coarse enough that a last-bit difference between two correct number parsers cannot make a
// correct decode look wrong.
class Checksum {
public:
    void add(std::uint64_t value) noexcept {
        for (int shift = 0; shift < 64; shift += 8) byte(static_cast<unsigned char>(value >> shift));
    }
    void add(std::int64_t value) noexcept { add(static_cast<std::uint64_t>(value)); }
    void add(bool value) noexcept { byte(value ? 1 : 0); }
    void add(std::string_view text) noexcept {
        add(static_cast<std::uint64_t>(text.size()));
        for (const char c : text) byte(static_cast<unsigned char>(c));
    }
    void addHundredths(double value) noexcept { add(static_cast<std::int64_t>(std::llround(value * 100.0))); }
    void add(zul::Date date) noexcept {
        add(static_cast<std::int64_t>(std::chrono::round<std::chrono::milliseconds>(date.time_since_epoch()).count()));
    }
    std::uint64_t value() const noexcept { return hash_; }

private:
    void byte(unsigned char b) noexcept {
        hash_ ^= b;
        hash_ *= 0x100000001b3ULL;
    }
    std::uint64_t hash_ = 0xcbf29ce484222325ULL;
};

std::uint64_t checksum(const std::vector<Movie>& movies) {
    Checksum sum;
    sum.add(static_cast<std::uint64_t>(movies.size()));
    for (const Movie& movie : movies) {
        sum.add(movie.id);
        sum.add(movie.title);
        sum.add(movie.studio.name);
        sum.add(movie.studio.country);
        sum.add(movie.studio.founded);
        sum.add(movie.rating.has_value());
        if (movie.rating) sum.addHundredths(*movie.rating);
        sum.add(movie.tagline.has_value());
        if (movie.tagline) sum.add(*movie.tagline);
        sum.add(static_cast<std::uint64_t>(movie.scores.size()));
        for (const double score : movie.scores) sum.addHundredths(score);
        sum.add(static_cast<std::uint64_t>(movie.genres.size()));
        for (const std::string& genre : movie.genres) sum.add(genre);
        sum.add(movie.released);
        sum.add(movie.available);
        sum.add(movie.views);
    }
    return sum.value();
}

// --- The generator ----------------------------------------------------------------------------

// SplitMix64: tiny, and the same sequence everywhere (the standard distributions are not).
class Random {
public:
    explicit Random(std::uint64_t seed) noexcept : state_(seed) {}
    std::uint64_t next() noexcept {
        std::uint64_t z = (state_ += 0x9e3779b97f4a7c15ULL);
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
        return z ^ (z >> 31);
    }
    // Uniform in [low, high].
    std::int64_t between(std::int64_t low, std::int64_t high) noexcept {
        const auto span = static_cast<std::uint64_t>(high - low) + 1;
        return low + static_cast<std::int64_t>(next() % span);
    }
    bool chance(int percent) noexcept { return between(0, 99) < percent; }
    template <std::size_t N>
    std::string_view pick(const std::string_view (&items)[N]) noexcept {
        return items[static_cast<std::size_t>(between(0, static_cast<std::int64_t>(N) - 1))];
    }

private:
    std::uint64_t state_;
};

constexpr std::string_view kAdjectives[] = {"Silent", "Crimson", "Last", "Hidden", "Broken", "Golden", "Frozen",
                                            "Lost", "Electric", "Midnight", "Distant", "Wild"};
constexpr std::string_view kNouns[] = {"River", "Empire", "Garden", "Signal", "Harbor", "Winter", "Machine",
                                       "Orchard", "Horizon", "Letter", "Circus", "Station"};
constexpr std::string_view kStudios[] = {"Northwind", "Blue Lantern", "Atlas", "Meridian", "Red Fox", "Paper Moon",
                                         "Granite", "Lumen"};
constexpr std::string_view kCountries[] = {"FR", "JP", "CA", "BR", "NO", "IT", "KR", "CL"};
constexpr std::string_view kGenres[] = {"drama", "comedy", "thriller", "docu", "anime",
                                        "horror", "romance", "scifi", "western", "mystery"};
constexpr std::string_view kTaglines[] = {"Nothing stays buried", "One night changes all", "Home is far",
                                          "Some doors open once"};

// "é" in UTF-8: the decoded form of the "\u00e9" escape the writer emits.
constexpr std::string_view kEAcute = "\xC3\xA9";

std::string makeTitle(Random& random) {
    std::string title;
    title += random.pick(kAdjectives);
    title += ' ';
    title += random.pick(kNouns);
    if (random.chance(5)) {
        title += " \"Redux\"";
    } else if (random.chance(5)) {
        title += " Caf";
        title += kEAcute;
    }
    return title;
}

Movie makeMovie(Random& random, std::int64_t id) {
    Movie movie;
    movie.id = id;
    movie.title = makeTitle(random);
    movie.studio.name = std::string(random.pick(kStudios));
    movie.studio.country = std::string(random.pick(kCountries));
    movie.studio.founded = random.between(1900, 2020);
    // Ratings: 70% present, 20% missing, 10% null (null decodes as absent too; the writer
    // chooses between missing and null with its own draw).
    if (random.chance(70)) movie.rating = static_cast<double>(random.between(10, 100)) / 10.0;
    if (random.chance(60)) {
        std::string tagline(random.pick(kTaglines));
        if (random.chance(5)) tagline += " \"again\"";
        movie.tagline = std::move(tagline);
    }
    const auto scoreCount = random.between(5, 20);
    for (std::int64_t i = 0; i < scoreCount; ++i) {
        movie.scores.push_back(static_cast<double>(random.between(0, 99)) / 10.0);
    }
    const auto genreCount = random.between(1, 5);
    for (std::int64_t i = 0; i < genreCount; ++i) movie.genres.emplace_back(random.pick(kGenres));
    movie.released = zul::Date(std::chrono::seconds(random.between(0, 1'700'000'000)));
    movie.available = random.chance(50);
    movie.views = random.between(0, 5'000'000'000LL);
    return movie;
}

// Writes text as a JSON string: quotes and backslashes escaped, "é" as "\u00e9".
void writeString(std::string& out, std::string_view text) {
    out += '"';
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (text.substr(i, kEAcute.size()) == kEAcute) {
            out += "\\u00e9";
            i += kEAcute.size() - 1;
        } else {
            out += c;
        }
    }
    out += '"';
}

void writeInteger(std::string& out, std::int64_t value) { out += std::to_string(value); }

// A number known to be a whole count of tenths, written with one decimal.
void writeTenths(std::string& out, double value) {
    const long long tenths = std::llround(value * 10.0);
    char buffer[32];
    const int length = std::snprintf(buffer, sizeof buffer, "%lld.%lld", tenths / 10, tenths % 10);
    out.append(buffer, static_cast<std::size_t>(length));
}

void writeMovie(std::string& out, const Movie& movie, Random& random) {
    out += "{\"id\":";
    writeInteger(out, movie.id);
    out += ",\"title\":";
    writeString(out, movie.title);
    out += ",\"studio\":{\"name\":";
    writeString(out, movie.studio.name);
    out += ",\"country\":";
    writeString(out, movie.studio.country);
    out += ",\"founded\":";
    writeInteger(out, movie.studio.founded);
    out += '}';
    if (movie.rating) {
        out += ",\"rating\":";
        writeTenths(out, *movie.rating);
    } else if (random.chance(33)) {
        out += ",\"rating\":null";
    }
    if (movie.tagline) {
        out += ",\"tagline\":";
        writeString(out, *movie.tagline);
    }
    out += ",\"scores\":[";
    for (std::size_t i = 0; i < movie.scores.size(); ++i) {
        if (i != 0) out += ',';
        writeTenths(out, movie.scores[i]);
    }
    out += "],\"genres\":[";
    for (std::size_t i = 0; i < movie.genres.size(); ++i) {
        if (i != 0) out += ',';
        writeString(out, movie.genres[i]);
    }
    out += "],\"released\":";
    writeInteger(out, std::chrono::duration_cast<std::chrono::seconds>(movie.released.time_since_epoch()).count());
    out += ",\"available\":";
    out += movie.available ? "true" : "false";
    out += ",\"views\":";
    writeInteger(out, movie.views);
    out += '}';
}

struct Corpus {
    simdjson::padded_string json;
    std::uint64_t expectedChecksum = 0;
    std::size_t records = 0;

    std::string_view text() const noexcept { return std::string_view(json.data(), json.size()); }
};

Corpus makeCorpus() {
    Random random(kSeed);
    std::vector<Movie> movies;
    movies.reserve(kRecordCount);
    std::string text;
    text.reserve(kRecordCount * 240);
    text += '[';
    for (std::size_t i = 0; i < kRecordCount; ++i) {
        movies.push_back(makeMovie(random, static_cast<std::int64_t>(1'000'000 + i)));
        if (i != 0) text += ",\n";
        writeMovie(text, movies.back(), random);
    }
    text += "]\n";
    Corpus corpus;
    corpus.json = simdjson::padded_string(text);
    corpus.expectedChecksum = checksum(movies);
    corpus.records = movies.size();
    return corpus;
}

const Corpus& corpus() {
    static const Corpus made = makeCorpus();
    return made;
}

// --- nlohmann::json ---------------------------------------------------------------------------

// The usual nlohmann mapping: `at` for required keys, `find` plus a null test for optionals.
void from_json(const nlohmann::json& json, Studio& studio) {
    json.at("name").get_to(studio.name);
    json.at("country").get_to(studio.country);
    json.at("founded").get_to(studio.founded);
}

void from_json(const nlohmann::json& json, Movie& movie) {
    json.at("id").get_to(movie.id);
    json.at("title").get_to(movie.title);
    json.at("studio").get_to(movie.studio);
    if (const auto rating = json.find("rating"); rating != json.end() && !rating->is_null()) {
        movie.rating = rating->get<double>();
    }
    if (const auto tagline = json.find("tagline"); tagline != json.end() && !tagline->is_null()) {
        movie.tagline = tagline->get<std::string>();
    }
    json.at("scores").get_to(movie.scores);
    json.at("genres").get_to(movie.genres);
    movie.released = dateFromSeconds(json.at("released").get<double>());
    json.at("available").get_to(movie.available);
    json.at("views").get_to(movie.views);
}

// --- Hand-written simdjson on-demand ----------------------------------------------------------

namespace od = simdjson::ondemand;

inline void check(simdjson::error_code error) {
    if (error != simdjson::SUCCESS) [[unlikely]]
        throw simdjson::simdjson_error(error);
}

inline void readString(od::value& value, std::string& out) {
    std::string_view text;
    check(value.get_string().get(text));
    out.assign(text);
}

inline std::int64_t readInt64(od::value& value) {
    std::int64_t number = 0;
    check(value.get_int64().get(number));
    return number;
}

inline double readDouble(od::value& value) {
    double number = 0;
    check(value.get_double().get(number));
    return number;
}

// Fields are taken in whatever order they come, dispatching on the raw key (no unescaping: the
// keys are plain). Unknown keys are skipped, as any of the decoders would.
Studio readStudio(od::value& value) {
    od::object object;
    check(value.get_object().get(object));
    Studio studio;
    for (auto member : object) {
        od::field field;
        check(std::move(member).get(field));
        const od::raw_json_string key = field.key();
        od::value& fieldValue = field.value();
        if (key == "name") readString(fieldValue, studio.name);
        else if (key == "country") readString(fieldValue, studio.country);
        else if (key == "founded") studio.founded = readInt64(fieldValue);
    }
    return studio;
}

Movie readMovie(od::object& object) {
    Movie movie;
    for (auto member : object) {
        od::field field;
        check(std::move(member).get(field));
        const od::raw_json_string key = field.key();
        od::value& value = field.value();
        if (key == "id") {
            movie.id = readInt64(value);
        } else if (key == "title") {
            readString(value, movie.title);
        } else if (key == "studio") {
            movie.studio = readStudio(value);
        } else if (key == "rating") {
            bool null = false;
            check(value.is_null().get(null));
            if (!null) movie.rating = readDouble(value);
        } else if (key == "tagline") {
            bool null = false;
            check(value.is_null().get(null));
            if (!null) readString(value, movie.tagline.emplace());
        } else if (key == "scores") {
            od::array array;
            check(value.get_array().get(array));
            for (auto element : array) {
                double score = 0;
                check(element.get_double().get(score));
                movie.scores.push_back(score);
            }
        } else if (key == "genres") {
            od::array array;
            check(value.get_array().get(array));
            for (auto element : array) {
                std::string_view genre;
                check(element.get_string().get(genre));
                movie.genres.emplace_back(genre);
            }
        } else if (key == "released") {
            movie.released = dateFromSeconds(readDouble(value));
        } else if (key == "available") {
            check(value.get_bool().get(movie.available));
        } else if (key == "views") {
            movie.views = readInt64(value);
        }
    }
    return movie;
}

std::vector<Movie> decodeHandWritten(od::parser& parser, const simdjson::padded_string& json) {
    od::document document;
    check(parser.iterate(json).get(document));
    od::array array;
    check(document.get_array().get(array));
    std::vector<Movie> movies;
    for (auto element : array) {
        od::object object;
        check(element.get_object().get(object));
        movies.push_back(readMovie(object));
    }
    return movies;
}

// --- The benchmarks ---------------------------------------------------------------------------

// Runs `decode` once per iteration and checks every result against the generator's records.
template <class Decode>
void runDecodeBenchmark(benchmark::State& state, Decode decode) {
    const Corpus& input = corpus();
    for (auto _ : state) {
        std::vector<Movie> movies;
        try {
            movies = decode(input);
        } catch (const std::exception& error) {
            state.SkipWithError(error.what());
            break;
        }
        state.PauseTiming();
        const bool correct = movies.size() == input.records && checksum(movies) == input.expectedChecksum;
        movies = {};
        state.ResumeTiming();
        if (!correct) {
            state.SkipWithError("the decoded records differ from the generated ones (checksum mismatch)");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(input.json.size()));
    state.SetLabel(std::to_string(input.records) + " records, " + std::to_string(input.json.size()) + " bytes");
    state.counters["records"] = benchmark::Counter(
        static_cast<double>(state.iterations()) * static_cast<double>(input.records), benchmark::Counter::kIsRate);
}

void BM_Zul_JSONDecoder(benchmark::State& state) {
    zul::JSONDecoder decoder;
    decoder.dateDecodingStrategy = zul::JSONDecoder::DateDecodingStrategy::secondsSince1970();
    runDecodeBenchmark(state, [&decoder](const Corpus& input) {
        return decoder.decode<std::vector<Movie>>(input.text());
    });
}

void BM_Nlohmann_FromJson(benchmark::State& state) {
    runDecodeBenchmark(state, [](const Corpus& input) {
        return nlohmann::json::parse(input.text()).get<std::vector<Movie>>();
    });
}

void BM_Simdjson_OnDemand_HandWritten(benchmark::State& state) {
    od::parser parser;
    runDecodeBenchmark(state, [&parser](const Corpus& input) { return decodeHandWritten(parser, input.json); });
}

// Not a decoder: the cost of copying the document once into a fresh padded buffer, which a
// decoder taking plain text pays if its parser needs padding.
void BM_Baseline_CopyInput(benchmark::State& state) {
    const Corpus& input = corpus();
    for (auto _ : state) {
        simdjson::padded_string copy(input.text());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
        if (copy.size() != input.json.size()) {
            state.SkipWithError("the copy has the wrong size");
            break;
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(input.json.size()));
}

// Iterations take from tens of milliseconds to a second; a longer minimum time gives every variant
// several of them.
BENCHMARK(BM_Zul_JSONDecoder)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Nlohmann_FromJson)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Simdjson_OnDemand_HandWritten)->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(BM_Baseline_CopyInput)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
