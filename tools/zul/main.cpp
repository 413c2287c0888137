// zul: the ZulFoundation command-line tool.

#include <cstdio>
#include <string_view>

#include "commands.hpp"
#include "zul/version.hpp"

namespace {

constexpr const char* kUsage = R"(usage: zul [COMMAND]

The ZulFoundation command-line tool.

Commands:
  (none)      run the self-check: the main queue, a serial queue, a timer and a
              chain of futures, printing what happened
  version     print the library version
  help        print this help (also --help, -h)

Exit status: 0 on success, 1 when a check fails, 2 on a usage error.
)";

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return zul::tool::selfCheck();
    const std::string_view command = argv[1];
    if (command == "--help" || command == "-h" || command == "help") {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (command == "version" || command == "--version") {
        std::printf("zul %s\n", zul::versionString);
        return 0;
    }
    std::fprintf(stderr, "zul: unknown command '%.*s'\n\n%s", static_cast<int>(command.size()), command.data(), kUsage);
    return 2;
}
