#pragma once

// A string reader that records whether the parser closed it: the playlist parsers promise to
// close what they read.

#include <optional>
#include <string>
#include <string_view>

#include "zul/media/buffered_reader.hpp"

namespace zul::test {

class TrackingReader final : public BufferedReader {
public:
    explicit TrackingReader(std::string_view text) : inner_(text) {}
    std::optional<std::string> readLine() override { return closed_ ? std::nullopt : inner_.readLine(); }
    void close() override {
        closed_ = true;
        inner_.close();
    }
    bool closed() const { return closed_; }

private:
    StringBufferedReader inner_;
    bool closed_ = false;
};

}  // namespace zul::test
