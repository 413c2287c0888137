#pragma once

/// Levelled logging through loggers the application supplies.
///
/// The library writes no log line itself. An application registers loggers (console, file,
/// crash reporter, ...) with the process-wide hub, each registration for one level, and every
/// message sent at a level goes to the loggers registered for exactly that level: there is no
/// "this level and above" rule. A logger that wants several levels is registered once per level,
/// typically as one object per level that shares an identifier.
///
///     class Console final : public zul::ZulLogger {
///     public:
///         explicit Console(std::string tag) : tag_(std::move(tag)) {}
///         std::string identifier() const override { return "console"; }
///         void log(const zul::ZulLoggerMessage& m) override {
///             std::printf("%s %.*s\n", tag_.c_str(), static_cast<int>(m.text().size()), m.text().data());
///         }
///     private:
///         std::string tag_;
///     };
///
///     const auto& hub = zul::ZulLogging::shared();
///     hub->add(std::make_shared<Console>("W"), zul::ZulLog::warn);
///     hub->add(std::make_shared<Console>("E"), zul::ZulLog::error);
///
///     zul::ZulLog::error.send("playback failed");                               // a plain text
///     zul::ZulLog::debug.send([seconds] { return "buffered " + std::to_string(seconds) + " s"; });
///                                                      // made later, only if a logger wants it
///
///     hub->flush();               // before exit: everything sent so far has been logged
///     hub->remove(Console(""));   // same identifier: both registrations go
///
/// How a message travels. `send` returns at once. The hub works on its own serial queue,
/// "dev.zul.loggingsystem.synchronization.queue": there, if the level is switched on and some
/// logger is registered for exactly that level, it calls the deferred text (once), stamps the
/// message with the wall-clock time of that moment and hands the one message to each of those
/// loggers, in registration order, each on the logger's own serial queue ("dev.zul.logger.queue."
/// followed by a random UUID, one queue per registration). Otherwise the deferred text is never
/// called, so costly texts cost nothing while nobody listens. A slow logger delays neither the
/// caller nor the other loggers. Each logger receives messages in the order they were sent (one
/// thread's messages in that thread's order; messages of racing threads in the order the hub got
/// them). Two registrations, even of one logger object, run independently of each other.
///
/// Rules for the code the hub calls:
/// - A deferred text runs on the hub's queue. It must not call `add`, `remove`, `levels`,
///   `setLevels` or `flush` (they wait for that very queue: the process stops with a message
///   naming it) and should be quick, since every other message waits for it.
/// - `ZulLogger::log` runs on the logger's own queue and may call any of them, except `flush`.
/// - The hub lets go of a removed logger on its own queue or on the logger's: a logger's
///   destructor must not call the hub either.
/// - An exception escaping a deferred text or `log` stops the process with a message naming the
///   queue, as for any job of a queue.

#include <array>
#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <source_location>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_set>
#include <utility>
#include <vector>

#include "zul/platform/any_value.hpp"
#include "zul/platform/dispatch_queue.hpp"

namespace zul {

/// A deferred text: a callable that makes the text of a message when the hub asks for it.
/// Anything callable without arguments whose result makes a `std::string` (a `std::string`, a
/// `const char*`, a `std::string_view`) will do.
template <class F>
concept DeferredText = std::is_invocable_v<std::decay_t<F>&> &&
                       std::constructible_from<std::string, std::invoke_result_t<std::decay_t<F>&>>;

/// A constant text: a string literal, or another text that lives as long as the program. Made
/// only at compile time, so that a pointer to a buffer (which may be gone or changed by the time
/// the hub reads it) cannot become one: such a text does not compile as a `StaticText`.
class StaticText {
public:
    consteval StaticText(const char* text) noexcept : text_(text) {}  // NOLINT(google-explicit-constructor)
    constexpr std::string_view view() const noexcept { return text_; }

private:
    std::string_view text_;
};

/// Texts other than constant ones that `ZulLog::send` copies or moves in at once: `std::string`,
/// `std::string_view` and alike. Character pointers and arrays are not among them: they are
/// taken as `StaticText`.
template <class T>
concept TransientText = std::constructible_from<std::string, T> && !std::convertible_to<T, const char*>;

namespace detail {
class LoggerMailbox;
struct MessageText;
}  // namespace detail

/// A log level: `debug`, `info`, `warn` or `error`. Levels are only compared for equality and
/// kept in sets; they have no order and no number.
class ZulLog {
public:
    static const ZulLog debug;
    static const ZulLog info;
    static const ZulLog warn;
    static const ZulLog error;

    /// The four levels: debug, info, warn, error.
    static constexpr std::array<ZulLog, 4> allCases() noexcept;

    /// Sends a message at this level. `message` is called at most once, later, on the hub's
    /// queue, and only when this level is switched on and a logger is registered for it. The
    /// call site's file, function and line are taken from `where`; a wrapper of its own that
    /// takes `std::source_location where = std::source_location::current()` and passes it on
    /// reports its caller's position. Returns at once.
    ///
    /// Whatever `message` captures is kept until the hub has processed the message, and is
    /// destroyed on the hub's queue: capture by value what may be gone by then. Small captures
    /// (up to 32 bytes, a `std::string` included) cost no allocation of their own. When no
    /// logger could take the message at the time of the call, `message` is not even copied.
    template <DeferredText Text>
    void send(Text&& message, std::source_location where = std::source_location::current()) const;

    /// Sends a string literal at this level: `zul::ZulLog::info.send("player ready")`. The text
    /// is never copied. Any other character pointer does not compile here (see `StaticText`).
    void send(StaticText text, std::source_location where = std::source_location::current()) const;

    /// Sends a ready text at this level, copied (or moved) in at once: a `std::string`, a
    /// `std::string_view`.
    template <TransientText Text>
    void send(Text&& text, std::source_location where = std::source_location::current()) const;

    friend constexpr bool operator==(ZulLog, ZulLog) noexcept = default;

    /// A hash of the level, for `std::hash<zul::ZulLog>`.
    constexpr std::size_t hashValue() const noexcept { return static_cast<std::size_t>(case_); }

private:
    friend class ZulLogging;
    enum class Case : std::uint8_t { debug, info, warn, error };

    constexpr explicit ZulLog(Case c) noexcept : case_(c) {}
    constexpr unsigned bit() const noexcept { return 1u << static_cast<unsigned>(case_); }

    Case case_;
};

inline constexpr ZulLog ZulLog::debug{ZulLog::Case::debug};
inline constexpr ZulLog ZulLog::info{ZulLog::Case::info};
inline constexpr ZulLog ZulLog::warn{ZulLog::Case::warn};
inline constexpr ZulLog ZulLog::error{ZulLog::Case::error};

constexpr std::array<ZulLog, 4> ZulLog::allCases() noexcept { return {debug, info, warn, error}; }

}  // namespace zul

template <>
struct std::hash<zul::ZulLog> {
    std::size_t operator()(zul::ZulLog level) const noexcept { return level.hashValue(); }
};

namespace zul {

/// A message as a logger sees it. Read-only, and valid during the call of `ZulLogger::log` that
/// receives it: a logger that keeps anything beyond that call keeps copies.
class ZulLoggerMessage {
public:
    virtual ~ZulLoggerMessage() = default;

    /// The text the sender gave.
    virtual std::string_view text() const = 0;
    /// The source file of the call site.
    virtual std::string_view file() const = 0;
    /// The function of the call site.
    virtual std::string_view function() const = 0;
    /// The line of the call site.
    virtual std::int64_t line() const = 0;
    /// When the hub processed the message (not when it was sent; never earlier).
    virtual Date timestamp() const = 0;
};

/// A destination of messages, supplied by the application.
class ZulLogger {
public:
    virtual ~ZulLogger() = default;

    /// Identifies the logger for removal: two loggers with equal identifiers count as the same.
    virtual std::string identifier() const = 0;

    /// Receives one message, on the queue of the registration it came through.
    virtual void log(const ZulLoggerMessage& message) = 0;
};

/// A set of levels.
using ZulLogLevels = std::unordered_set<ZulLog>;

/// The process-wide logging hub. All its operations may be called from any thread.
class ZulLogging {
public:
    /// The label of the hub's serial queue.
    static constexpr std::string_view synchronizationQueueLabel = "dev.zul.loggingsystem.synchronization.queue";
    /// The prefix of the label of each registration's serial queue; a random UUID follows it.
    static constexpr std::string_view loggerQueueLabelPrefix = "dev.zul.logger.queue.";

    /// The hub, made on first use. It lives until the process exits.
    static const std::shared_ptr<ZulLogging>& shared();

    ZulLogging(const ZulLogging&) = delete;
    ZulLogging& operator=(const ZulLogging&) = delete;

    /// Registers `logger` for messages of exactly `level`, with a serial queue of its own, after
    /// the registrations made before. Nothing checks for duplicates: the same logger added twice,
    /// or once per level, has separate registrations, each with its own queue. The hub holds the
    /// logger until it is removed. Returns once registered. A null logger stops the process.
    void add(std::shared_ptr<ZulLogger> logger, ZulLog level);

    /// Removes every registration, for every level, of every logger whose identifier equals
    /// `logger`'s. Messages already handed to a removed registration's queue are still
    /// delivered. Returns once removed.
    void remove(const ZulLogger& logger);

    /// The levels switched on (initially all four). Messages of other levels are dropped
    /// without their deferred text being called.
    ZulLogLevels levels() const;

    /// Replaces the levels switched on. Messages sent before the call are judged by the old
    /// levels, messages sent after it by the new ones.
    void setLevels(const ZulLogLevels& levels);

    /// Waits until every message sent before the call, on any thread, has been processed by the
    /// hub and logged by every logger registered when the hub reached it (registrations removed
    /// meanwhile are not waited for). For programs about to exit and for tests. Not to be called
    /// from a deferred text or from `ZulLogger::log`.
    void flush();

private:
    friend class ZulLog;
    friend struct LoggingInternals;  // the library's tests look inside

    /// One registration. The mailbox hands messages to the queue (see src/core/logger_mailbox.hpp).
    struct LoggerListItem {
        std::shared_ptr<ZulLogger> logger;
        ZulLog level;
        std::shared_ptr<DispatchQueue> queue;
        std::shared_ptr<detail::LoggerMailbox> mailbox;
    };

    ZulLogging();

    /// The hub as a reference; jobs reach it this way, since it is never destroyed.
    static ZulLogging& instance();

    /// Sending, step 1: hands the message to the hub's queue, unless no logger could take it.
    template <DeferredText Text>
    void log(ZulLog level, Text&& message, std::source_location where);

    /// Sending, step 1, for a constant text.
    void logConstant(ZulLog level, std::string_view text, std::source_location where);

    /// Sending, steps 2 to 7, on the hub's queue.
    void deliver(ZulLog level, const detail::MessageText& text, const std::source_location& where);

    /// The registrations of `from` for exactly `level`, in their order, written to `selected`.
    static void loggableItems(const std::vector<LoggerListItem>& from, ZulLog level,
                              std::vector<const LoggerListItem*>& selected);

    // The bodies of the synchronous operations; they run on the hub's queue.
    void appendItem(std::shared_ptr<ZulLogger> logger, ZulLog level);
    void removeItems(const std::string& identifier);
    void replaceLevels(unsigned levels);
    void updateWanted();

    /// Whether a message of `level` could reach a logger now. A cheap check on the caller's
    /// thread, kept in step with the state on the hub's queue by every change to it.
    bool wants(ZulLog level) const noexcept { return (wanted_.load(std::memory_order_relaxed) & level.bit()) != 0; }

    const std::shared_ptr<DispatchQueue> synchronizationQueue_;
    std::vector<LoggerListItem> loggerItems_;   // on the hub's queue only
    unsigned internalLevels_;                   // a bit per level; on the hub's queue only
    std::vector<const LoggerListItem*> selected_;  // scratch of `deliver`, kept to spare allocations
    // The levels that are switched on and have at least one registration, as bits.
    std::atomic<unsigned> wanted_{0};
};

// Implementation.

namespace detail {
/// How the hub obtains a message's text: a constant text, or a call that makes one.
struct MessageText {
    std::string_view constant;  // used when `make` is null
    std::string (*make)(void* context) = nullptr;
    void* context = nullptr;
};
}  // namespace detail

template <DeferredText Text>
void ZulLog::send(Text&& message, std::source_location where) const {
    ZulLogging::instance().log(*this, std::forward<Text>(message), where);
}

inline void ZulLog::send(StaticText text, std::source_location where) const {
    ZulLogging::instance().logConstant(*this, text.view(), where);
}

template <TransientText Text>
void ZulLog::send(Text&& text, std::source_location where) const {
    ZulLogging& hub = ZulLogging::instance();
    if (!hub.wants(*this)) return;  // spares the copy
    hub.log(*this, [t = std::string(std::forward<Text>(text))]() mutable { return std::move(t); }, where);
}

template <DeferredText Text>
void ZulLogging::log(ZulLog level, Text&& message, std::source_location where) {
    // A message no registration could take would stop at step 3 or 5 on the hub's queue; it is
    // dropped here instead. `wanted_` changes only on the hub's queue, inside `add`, `remove` and
    // `setLevels`, which the caller waits for: a send that follows them sees their effect, and a
    // send racing with them may be ordered either side of them.
    if (!wants(level)) return;
    // The job holds level, position (one pointer) and the deferred text; the hub is never
    // destroyed, so the job reaches it without holding it.
    synchronizationQueue_->async([level, where, message = std::forward<Text>(message)]() mutable {
        using Message = decltype(message);
        const detail::MessageText text{{}, [](void* context) -> std::string {
                                           return std::string(std::invoke(*static_cast<Message*>(context)));
                                       }, &message};
        instance().deliver(level, text, where);
    });
}

inline void ZulLogging::logConstant(ZulLog level, std::string_view text, std::source_location where) {
    if (!wants(level)) return;
    synchronizationQueue_->async(
        [level, where, text] { instance().deliver(level, detail::MessageText{text}, where); });
}

}  // namespace zul
