// A rotating file logger: lines go to FILE; when FILE would grow beyond a size limit it becomes
// FILE.1 (FILE.1 becomes FILE.2, and so on) and a new FILE is started; at most a given number of
// files are kept, the oldest is deleted.
//
//     rotating_file_logger [DIRECTORY]
//
// writes 2000 messages into DIRECTORY/player.log with a limit of 16 KiB and 3 files, then lists
// the files. Without DIRECTORY it uses a temporary directory and removes it afterwards. It exits
// with status 1 if the files break the limits.
//
// One object per level again (a message does not carry its level), all sharing one file. The
// registrations' queues run side by side, so the file is locked while a line is written, and
// lines of different levels may reach the file out of their sending order (their time stamps
// tell it); the lines of one level keep it.

#include <zul/core/logging.hpp>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

namespace {

// A log file that rotates by size. Thread-safe.
class RotatingFile {
public:
    RotatingFile(fs::path path, std::uintmax_t maxBytes, int maxFiles)
        : path_(std::move(path)), maxBytes_(maxBytes), maxFiles_(maxFiles) {
        open();
    }
    ~RotatingFile() {
        if (file_ != nullptr) std::fclose(file_);
    }
    RotatingFile(const RotatingFile&) = delete;
    RotatingFile& operator=(const RotatingFile&) = delete;

    const fs::path& path() const { return path_; }

    void write(const std::string& line) {
        std::lock_guard lock(mutex_);
        if (file_ == nullptr) return;  // could not open: lines are dropped, the app goes on
        if (size_ > 0 && size_ + line.size() > maxBytes_) rotate();
        if (file_ == nullptr) return;
        size_ += std::fwrite(line.data(), 1, line.size(), file_);
    }

    void flush() {
        std::lock_guard lock(mutex_);
        if (file_ != nullptr) std::fflush(file_);
    }

private:
    fs::path numbered(int n) const { return fs::path(path_.string() + "." + std::to_string(n)); }

    void open() {
        file_ = std::fopen(path_.c_str(), "a");
        std::error_code error;
        const auto existing = fs::file_size(path_, error);
        size_ = error ? 0 : existing;
    }

    // FILE.(n-1) -> FILE.n down to FILE -> FILE.1; whatever would become FILE.maxFiles goes.
    void rotate() {
        std::fclose(file_);
        file_ = nullptr;
        std::error_code ignored;
        fs::remove(numbered(maxFiles_ - 1), ignored);
        for (int n = maxFiles_ - 2; n >= 1; --n) fs::rename(numbered(n), numbered(n + 1), ignored);
        if (maxFiles_ > 1) {
            fs::rename(path_, numbered(1), ignored);
        } else {
            fs::remove(path_, ignored);
        }
        open();
    }

    const fs::path path_;
    const std::uintmax_t maxBytes_;
    const int maxFiles_;
    std::mutex mutex_;
    std::FILE* file_ = nullptr;
    std::uintmax_t size_ = 0;
};

class FileLogger final : public zul::ZulLogger {
public:
    FileLogger(std::shared_ptr<RotatingFile> file, const char* tag) : file_(std::move(file)), tag_(tag) {}

    std::string identifier() const override { return "file:" + file_->path().string(); }

    void log(const zul::ZulLoggerMessage& message) override {
        char stamp[40];
        const std::time_t seconds = std::chrono::system_clock::to_time_t(message.timestamp());
        std::tm utc{};
        gmtime_r(&seconds, &utc);
        std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);

        std::string line = stamp;
        line += ' ';
        line += tag_;
        line += ' ';
        line += message.function();
        line += ": ";
        line += message.text();
        line += '\n';
        file_->write(line);
    }

private:
    std::shared_ptr<RotatingFile> file_;
    const char* tag_;
};

}  // namespace

int main(int argc, char** argv) {
    constexpr std::uintmax_t kMaxBytes = 16 * 1024;
    constexpr int kMaxFiles = 3;

    const bool temporary = argc < 2;
    fs::path directory;
    if (temporary) {
        char pattern[] = "/tmp/zul-rotating-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            std::perror("mkdtemp");
            return 1;
        }
        directory = pattern;
    } else {
        directory = argv[1];
        fs::create_directories(directory);
    }

    auto file = std::make_shared<RotatingFile>(directory / "player.log", kMaxBytes, kMaxFiles);
    const auto& hub = zul::ZulLogging::shared();
    hub->add(std::make_shared<FileLogger>(file, "INFO"), zul::ZulLog::info);
    hub->add(std::make_shared<FileLogger>(file, "ERROR"), zul::ZulLog::error);

    for (int i = 0; i < 2000; ++i) {
        if (i % 100 == 99) {
            zul::ZulLog::error.send([i] { return "segment " + std::to_string(i) + " failed, retrying"; });
        } else {
            zul::ZulLog::info.send([i] { return "segment " + std::to_string(i) + " downloaded"; });
        }
    }

    hub->flush();  // every line has been written to the file
    file->flush();
    hub->remove(FileLogger(file, ""));

    int files = 0;
    bool withinLimits = true;
    for (const auto& entry : fs::directory_iterator(directory)) {
        ++files;
        const auto size = entry.file_size();
        std::printf("%-40s %6ju bytes\n", entry.path().c_str(), size);
        if (size > kMaxBytes) withinLimits = false;
    }
    if (files > kMaxFiles) withinLimits = false;
    std::printf("%d files (at most %d kept, %ju bytes each at most)\n", files, kMaxFiles, kMaxBytes);

    if (temporary) fs::remove_all(directory);
    return withinLimits ? 0 : 1;
}
