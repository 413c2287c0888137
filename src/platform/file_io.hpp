#pragma once

// Whole-file reading and crash-safe replacement of a file, with POSIX calls so that every
// failure has its errno.

#include <filesystem>
#include <string>
#include <string_view>

namespace zul::detail {

/// Reads the whole file at `path` into `out`. Returns 0, or the errno of the failure (ENOENT for
/// a missing file); `out` is then unspecified.
int readWholeFile(const std::filesystem::path& path, std::string& out);

/// Replaces the file at `path` with `contents` so that, whenever the process or the machine
/// stops, `path` holds either its old contents or all of the new ones: the bytes go to
/// `temporary` (created or truncated, mode `mode`), which is flushed to the device and renamed
/// over `path`, and then the directory is flushed so that the rename itself is durable.
/// `temporary` must be in the same directory as `path`, and nobody else may write it meanwhile.
/// Returns 0, or the errno of the step that failed; on failure `path` is untouched and the
/// temporary file removed.
int replaceFileAtomically(const std::filesystem::path& path, const std::filesystem::path& temporary,
                          std::string_view contents, unsigned mode);

/// Flushes the directory `directory` to the device (after a rename in it). Returns 0 or errno.
int syncDirectory(const std::filesystem::path& directory);

}  // namespace zul::detail
