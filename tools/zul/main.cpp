// zul: the ZulFoundation command-line tool.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "commands.hpp"
#include "zul/version.hpp"

namespace {

constexpr const char* kUsage = R"(usage: zul [COMMAND]

The ZulFoundation command-line tool.

Commands:
  (none)      run the self-check: the main queue, a serial queue, a timer and a
              chain of futures, printing what happened
  hls [--json] [FILE]
              parse an HLS master or media playlist (without FILE, the shipped
              samples) and show its variants or a summary of its segments;
              --json prints it as one JSON object
  fetch [-H 'Name: value']... [--timeout SECONDS] [--post FILE] [--json] URL
              send one request through the network router: the status line and
              headers go to standard error, the body to standard output; --json
              prints the body decoded as JSON; --post sends FILE (- for standard
              input) as the body of a POST; --timeout is the idle time-out in
              seconds (default 15); a failure prints the router's error
  version     print the library version
  help        print this help (also --help, -h)

Exit status: 0 on success, 1 when a check fails, a file cannot be read or a
request fails, 2 on a usage error.
)";

}  // namespace

std::string zul::tool::samplesDirectory() {
    if (const char* fromEnvironment = std::getenv("ZUL_SAMPLES_DIR")) return fromEnvironment;
    std::error_code error;
    const auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        const auto installed = executable.parent_path().parent_path() / "share" / "zulfoundation" / "samples";
        if (std::filesystem::exists(installed / "master.m3u8", error)) return installed.string();
    }
    return ZUL_SOURCE_SAMPLES_DIR;
}

int main(int argc, char** argv) {
    if (argc < 2) return zul::tool::selfCheck();
    const std::string_view command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (command == "hls") {
        return zul::tool::hls(std::vector<std::string_view>(argv + 2, argv + argc));
    }
    if (command == "fetch") {
        return zul::tool::fetch(std::vector<std::string_view>(argv + 2, argv + argc));
    }
    if (command == "version" || command == "--version") {
        std::printf("zul %s\n", zul::versionString);
        return 0;
    }
    std::fprintf(stderr, "zul: unknown command '%.*s'\n\n%s", static_cast<int>(command.size()), command.data(), kUsage);
    return 2;
}
