// A console logger: one line per message on standard error, with time, level and call site.
//
// The hub registers a logger for one level at a time, and a message does not carry its level,
// so the logger is one object per level, each knowing its tag; all of them share one identifier,
// so that one `remove` takes them all away.

#include <zul/core/logging.hpp>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

namespace {

class ConsoleLogger final : public zul::ZulLogger {
public:
    explicit ConsoleLogger(const char* tag) : tag_(tag) {}

    std::string identifier() const override { return "console"; }

    // Runs on this registration's own queue. Each level's registration has its own queue, so
    // lines of different levels may be written at the same time: each line goes out in one call,
    // which standard I/O does not interleave with others.
    void log(const zul::ZulLoggerMessage& message) override {
        std::string line = timeOfDay(message.timestamp());
        line += ' ';
        line += tag_;
        line += ' ';
        line += fileName(message.file());
        line += ':';
        line += std::to_string(message.line());
        line += ' ';
        line += message.text();
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stderr);
    }

private:
    // "12:34:56.789", local time.
    static std::string timeOfDay(zul::Date when) {
        const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
        const auto millis =
            std::chrono::duration_cast<std::chrono::milliseconds>(when.time_since_epoch()).count() % 1000;
        std::tm local{};
        localtime_r(&seconds, &local);
        char text[32];
        std::snprintf(text, sizeof text, "%02d:%02d:%02d.%03d", local.tm_hour, local.tm_min, local.tm_sec,
                      static_cast<int>(millis));
        return text;
    }

    // The last component of a path.
    static std::string_view fileName(std::string_view path) {
        const auto slash = path.rfind('/');
        return slash == std::string_view::npos ? path : path.substr(slash + 1);
    }

    const char* tag_;
};

}  // namespace

int main() {
    const auto& hub = zul::ZulLogging::shared();
    hub->add(std::make_shared<ConsoleLogger>("DEBUG"), zul::ZulLog::debug);
    hub->add(std::make_shared<ConsoleLogger>("INFO "), zul::ZulLog::info);
    hub->add(std::make_shared<ConsoleLogger>("WARN "), zul::ZulLog::warn);
    hub->add(std::make_shared<ConsoleLogger>("ERROR"), zul::ZulLog::error);

    zul::ZulLog::info.send("player ready");
    const int bitrate = 4500;
    zul::ZulLog::debug.send([bitrate] { return "switching to " + std::to_string(bitrate) + " kbit/s"; });
    zul::ZulLog::warn.send(std::string("buffer below ") + std::to_string(2) + " s");

    // Debug messages off: their texts are not even made.
    hub->setLevels({zul::ZulLog::info, zul::ZulLog::warn, zul::ZulLog::error});
    zul::ZulLog::debug.send([] { return std::string("never made"); });
    zul::ZulLog::error.send("playback failed: segment 42 not found");

    // Everything sent so far is on standard error once this returns.
    hub->flush();
    hub->remove(ConsoleLogger(""));
    return 0;
}
