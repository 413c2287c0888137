#include "zul/platform/uuid.hpp"

#include <sys/random.h>

#include <cerrno>
#include <cstring>

#include "zul/platform/error.hpp"

namespace zul {

namespace {

// Random bytes from the kernel, fetched a few hundred at a time per thread so that making a
// UUID rarely costs a system call.
class RandomPool {
public:
    void fill(std::uint8_t* out, std::size_t count) {
        if (available_ < count) refill();
        std::memcpy(out, buffer_ + (sizeof buffer_ - available_), count);
        available_ -= count;
    }

private:
    void refill() {
        std::size_t filled = 0;
        while (filled < sizeof buffer_) {
            const ssize_t got = ::getrandom(buffer_ + filled, sizeof buffer_ - filled, 0);
            if (got < 0) {
                if (errno == EINTR) continue;
                fatalError("the kernel's random source failed");
            }
            filled += static_cast<std::size_t>(got);
        }
        available_ = sizeof buffer_;
    }

    std::uint8_t buffer_[256];
    std::size_t available_ = 0;
};

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

constexpr bool isDashPosition(std::size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

}  // namespace

UUID UUID::random() {
    thread_local RandomPool pool;
    std::array<std::uint8_t, 16> bytes;
    pool.fill(bytes.data(), bytes.size());
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
    return UUID(bytes);
}

std::optional<UUID> UUID::fromString(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    std::array<std::uint8_t, 16> bytes{};
    std::size_t byte = 0;
    for (std::size_t i = 0; i < 36;) {
        if (isDashPosition(i)) {
            if (text[i] != '-') return std::nullopt;
            ++i;
            continue;
        }
        const int high = hexValue(text[i]);
        const int low = hexValue(text[i + 1]);
        if (high < 0 || low < 0 || isDashPosition(i + 1)) return std::nullopt;
        bytes[byte++] = static_cast<std::uint8_t>(high * 16 + low);
        i += 2;
    }
    return UUID(bytes);
}

void UUID::write(char* out) const noexcept {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::size_t pos = 0;
    for (std::size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out[pos++] = '-';
        out[pos++] = kDigits[bytes_[i] >> 4];
        out[pos++] = kDigits[bytes_[i] & 0x0F];
    }
}

std::string UUID::uuidString() const {
    std::string text(36, '\0');
    write(text.data());
    return text;
}

}  // namespace zul
