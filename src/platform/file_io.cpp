#include "platform/file_io.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace zul::detail {

namespace {

// Closes a descriptor on every path out of a function.
class Descriptor {
public:
    explicit Descriptor(int fd) noexcept : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    int get() const noexcept { return fd_; }
    // Closes now and reports the error close reports (a late write-back failure on some
    // file systems).
    int close() noexcept {
        const int result = ::close(fd_);
        fd_ = -1;
        return result == 0 ? 0 : errno;
    }

private:
    int fd_;
};

int writeAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = ::write(fd, bytes.data(), bytes.size());
        if (written < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return 0;
}

}  // namespace

int readWholeFile(const std::filesystem::path& path, std::string& out) {
    Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (file.get() < 0) return errno;
    out.clear();
    struct stat status {};
    if (::fstat(file.get(), &status) == 0 && status.st_size > 0) out.reserve(static_cast<std::size_t>(status.st_size));
    char buffer[16384];
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
        if (count < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (count == 0) return 0;
        out.append(buffer, static_cast<std::size_t>(count));
    }
}

int syncDirectory(const std::filesystem::path& directory) {
    Descriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.get() < 0) return errno;
    if (::fsync(dir.get()) != 0) return errno;
    return dir.close();
}

int replaceFileAtomically(const std::filesystem::path& path, const std::filesystem::path& temporary,
                          std::string_view contents, unsigned mode) {
    int error = 0;
    {
        Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, static_cast<mode_t>(mode)));
        if (file.get() < 0) return errno;
        error = writeAll(file.get(), contents);
        // The data must be on the device before the rename makes it the file: otherwise a crash
        // could leave the new name pointing at blocks that were never written.
        if (error == 0 && ::fsync(file.get()) != 0) error = errno;
        if (error == 0) error = file.close();
    }
    if (error == 0 && ::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
    if (error != 0) {
        ::unlink(temporary.c_str());
        return error;
    }
    // The rename is complete for every reader now; flushing the directory makes it survive a
    // power loss too. A failure here leaves a correct file that might not be durable yet.
    return syncDirectory(path.has_parent_path() ? path.parent_path() : std::filesystem::path("."));
}

}  // namespace zul::detail
