#include <cstdio>
#include <cstdlib>
#include <string>

#include "zul/platform/error.hpp"

namespace zul {

void fatalError(std::string_view message, std::source_location where) {
    std::string text = "Fatal error: ";
    text.append(message);
    text.append(": file ");
    text.append(where.file_name());
    text.append(", line ");
    text.append(std::to_string(where.line()));
    text.push_back('\n');
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
    std::abort();
}

}  // namespace zul
