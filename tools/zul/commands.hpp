#pragma once

// The subcommands of the zul tool. Each returns the process exit status.

#include <string>
#include <string_view>
#include <vector>

namespace zul::tool {

/// The default job: exercises the main queue, a serial queue, a timer and a future chain, and
/// prints what happened.
int selfCheck();

/// `zul hls [--json] [FILE]`: parses an HLS playlist (the shipped samples without FILE).
int hls(const std::vector<std::string_view>& arguments);

/// `zul fetch [-H 'Name: value']... [--timeout SECONDS] [--post FILE] [--json] URL`: one request
/// through the network router; status line and headers to standard error, body to standard
/// output.
int fetch(const std::vector<std::string_view>& arguments);

/// Where the sample playlists are: $ZUL_SAMPLES_DIR, else the installed share directory next to
/// the executable, else the source tree the tool was built from.
std::string samplesDirectory();

}  // namespace zul::tool
