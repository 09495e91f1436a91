#pragma once
// Writing a new file at a path for the save functions: create or truncate, write, and take the
// file away again when the write fails, so that no half-written picture is left behind.

#include "base/filesystem/RandomAccessFile.h"
#include "text/FastString.h"
#include "util/Function.h"

namespace qor::imageio::detail {

// Creates (or truncates) the file at `path`, under its exclusive path lock when `lock` is set, and
// runs `write` on it; returns what `write` returns. When the file cannot be created, logs
// `createFailure` (a format whose one "%*" takes the path) at error level and returns false. When
// `write` returns false or throws, or the file cannot be closed, the file is removed (still under
// the lock) and the result is false; a throw is logged. Blocks on file work; never throws.
bool writeNewFile(const FastString<char>& path, bool lock, const char* createFailure,
                  const Function1<bool, RandomAccessFile&>& write);

}  // namespace qor::imageio::detail
