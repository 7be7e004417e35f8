#pragma once
// Internal: whether polling for another thread's work can pay off.

namespace quorvia::platform {

/// True when this process may run on more than one CPU. With one CPU a
/// thread that polls for another thread's work only delays that work.
bool mayRunThreadsInParallel();

}  // namespace quorvia::platform
