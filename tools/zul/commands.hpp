#pragma once

// The subcommands of the zul tool. Each returns the process exit status.

namespace zul::tool {

/// The default job: exercises the main queue, a serial queue, a timer and a future chain, and
/// prints what happened.
int selfCheck();

}  // namespace zul::tool
