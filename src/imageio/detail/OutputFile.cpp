#include "imageio/detail/OutputFile.h"

#include <exception>

#include "base/Log.h"
#include "base/filesystem/Path.h"

namespace qor::imageio::detail {

bool writeNewFile(const FastString<char>& path, bool lock, const char* createFailure,
                  const Function1<bool, RandomAccessFile&>& write) {
    ScopedPtr<RandomAccessFileStd> file;
    try {
        if (lock)
            file = std::make_unique<LockedFile>(path.view(), RandomAccessFileStd::ModeCreate);
        else
            file =
                std::make_unique<RandomAccessFileStd>(path.view(), RandomAccessFileStd::ModeCreate);
    } catch (const std::exception& e) {
        QOR_LOG(LogError, createFailure, path, e.what());
        return false;
    }
    bool ok = false;
    try {
        ok = write(*file);
        file->close();
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "Failed to write '%*': %*", path, e.what());
        ok = false;
    }
    if (!ok) {
        try {
            file->close();
        } catch (const std::exception&) {
            // already closed, or closing failed: the file goes either way
        }
        try {
            filesystem::removeFile(path.view());
        } catch (const std::exception& e) {
            QOR_LOG(LogError, "Failed to remove the incomplete file '%*': %*", path, e.what());
        }
    }
    return ok;  // the lock, when taken, goes with `file`
}

}  // namespace qor::imageio::detail
