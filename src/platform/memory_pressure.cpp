// The process-wide memory-pressure signal, and the monitor that raises it from Linux PSI files.

#include "zul/platform/memory_pressure.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "zul/platform/dispatch_source.hpp"

namespace zul {

namespace {

// The listeners, held weakly. Nothing unregisters: a listener that is gone leaves an expired
// entry, swept out at every signal and whenever the list has doubled since the last sweep, so
// that a program making and dropping many caches without ever signalling stays bounded.
class Registry {
public:
    void add(std::weak_ptr<MemoryPressureResponder> responder) {
        std::lock_guard lock(mutex_);
        if (responders_.size() >= sweepAt_) {
            std::erase_if(responders_, [](const auto& weak) { return weak.expired(); });
            sweepAt_ = std::max(kMinimumSweep, 2 * responders_.size());
        }
        responders_.push_back(std::move(responder));
    }

    // The live listeners, kept alive for the caller; expired entries are dropped on the way.
    std::vector<std::shared_ptr<MemoryPressureResponder>> live() {
        std::vector<std::shared_ptr<MemoryPressureResponder>> out;
        std::lock_guard lock(mutex_);
        out.reserve(responders_.size());
        std::erase_if(responders_, [&](const auto& weak) {
            auto strong = weak.lock();
            if (!strong) return true;
            out.push_back(std::move(strong));
            return false;
        });
        return out;
    }

private:
    static constexpr std::size_t kMinimumSweep = 64;

    std::mutex mutex_;
    std::vector<std::weak_ptr<MemoryPressureResponder>> responders_;
    std::size_t sweepAt_ = kMinimumSweep;
};

Registry& registry() {
    static auto* instance = new Registry();  // never destroyed: a signal may come during exit
    return *instance;
}

std::string readFile(const std::string& path, int& errorNumber) {
    errorNumber = 0;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        errorNumber = errno;
        return {};
    }
    std::string text;
    char buffer[512];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) errorNumber = errno;
        if (got <= 0) break;
        text.append(buffer, static_cast<std::size_t>(got));
        if (text.size() > 4096) break;  // a pressure file is two short lines
    }
    ::close(fd);
    return text;
}

// The value of "avg10=" on the line starting with `kind`.
std::optional<double> average(std::string_view text, std::string_view kind) {
    std::size_t lineStart = 0;
    while (lineStart < text.size()) {
        std::size_t lineEnd = text.find('\n', lineStart);
        if (lineEnd == std::string_view::npos) lineEnd = text.size();
        const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
        if (line.starts_with(kind) && line.size() > kind.size() && line[kind.size()] == ' ') {
            constexpr std::string_view field = " avg10=";
            const std::size_t at = line.find(field);
            if (at == std::string_view::npos) return std::nullopt;
            double value = 0;
            const char* first = line.data() + at + field.size();
            const auto [end, error] = std::from_chars(first, line.data() + line.size(), value);
            if (error != std::errc() || end == first || value < 0) return std::nullopt;
            return value;
        }
        lineStart = lineEnd + 1;
    }
    return std::nullopt;
}

}  // namespace

void MemoryPressure::signal(Level level) {
    // Listeners run outside the registry's lock: they free memory, and freeing may destroy
    // other listeners or register new ones.
    std::exception_ptr first;
    for (const auto& responder : registry().live()) {
        try {
            responder->didReceiveMemoryPressure(level);
        } catch (...) {
            if (!first) first = std::current_exception();
        }
    }
    if (first) std::rethrow_exception(first);  // every listener has been told
}

void MemoryPressure::addResponder(const std::shared_ptr<MemoryPressureResponder>& responder) {
    if (responder) registry().add(responder);
}

std::string_view MemoryPressure::name(Level level) noexcept {
    return level == Level::critical ? "critical" : "moderate";
}

MemoryPressureError::MemoryPressureError(std::string path, int errorNumber)
    : path_(std::move(path)),
      errorNumber_(errorNumber),
      message_("cannot read memory pressure from " + path_ + ": " + std::strerror(errorNumber)) {}

MemoryPressureError::MemoryPressureError(std::string path, std::string_view reason)
    : path_(std::move(path)),
      errorNumber_(0),
      message_("cannot read memory pressure from " + path_ + ": " + std::string(reason)) {}

std::optional<PressureStall> PressureStall::parse(std::string_view text) {
    const auto some = average(text, "some");
    if (!some) return std::nullopt;
    return PressureStall{*some, average(text, "full").value_or(0.0)};
}

struct MemoryPressureMonitor::State {
    explicit State(Options opts) : options(std::move(opts)) {}

    // One reading, on the monitor's queue.
    void poll() {
        int errorNumber = 0;
        const auto stall = PressureStall::parse(readFile(options.path, errorNumber));
        std::optional<MemoryPressure::Level> level;
        if (stall && stall->fullAvg10 >= options.criticalAt) {
            level = MemoryPressure::Level::critical;
        } else if (stall && stall->someAvg10 >= options.moderateAt) {
            level = MemoryPressure::Level::moderate;
        }
        {
            std::lock_guard lock(mutex);
            current = level;
        }
        if (!level) {
            signalled.reset();  // pressure is over: the next rise is news again
            return;
        }
        const auto now = DispatchClock::now();
        if (signalled && *level <= *signalled && now - signalledAt < options.repeatAfter) return;
        signalled = level;
        signalledAt = now;
        MemoryPressure::signal(*level);
    }

    const Options options;
    std::shared_ptr<DispatchSourceTimer> timer;

    mutable std::mutex mutex;
    std::optional<MemoryPressure::Level> current;  // guarded by `mutex`

    // Touched only by `poll`, on the monitor's serial queue.
    std::optional<MemoryPressure::Level> signalled;
    DispatchTime signalledAt;
};

std::shared_ptr<MemoryPressureMonitor> MemoryPressureMonitor::create() { return create(Options()); }

std::shared_ptr<MemoryPressureMonitor> MemoryPressureMonitor::create(Options options) {
    int errorNumber = 0;
    const std::string text = readFile(options.path, errorNumber);
    if (errorNumber != 0) throw MemoryPressureError(options.path, errorNumber);
    if (!PressureStall::parse(text)) throw MemoryPressureError(options.path, "not a pressure-stall file");

    auto state = std::make_shared<State>(std::move(options));
    state->timer = DispatchSourceTimer::create(DispatchQueue::create("dev.zul.memorypressure.monitor"));
    state->timer->setEventHandler([weak = std::weak_ptr<State>(state)] {
        if (auto self = weak.lock()) self->poll();
    });
    // The first reading at once, so that a monitor started under pressure acts on it.
    state->timer->schedule(DispatchClock::now(), state->options.interval);
    state->timer->resume();
    return std::shared_ptr<MemoryPressureMonitor>(new MemoryPressureMonitor(std::move(state)));
}

MemoryPressureMonitor::MemoryPressureMonitor(std::shared_ptr<State> state) : state_(std::move(state)) {}

MemoryPressureMonitor::~MemoryPressureMonitor() { state_->timer->cancel(); }

const MemoryPressureMonitor::Options& MemoryPressureMonitor::options() const noexcept { return state_->options; }

std::optional<MemoryPressure::Level> MemoryPressureMonitor::currentLevel() const {
    std::lock_guard lock(state_->mutex);
    return state_->current;
}

}  // namespace zul
