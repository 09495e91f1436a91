#include "mediadb/library/LibraryLock.h"

#include <exception>

#include "base/Log.h"

namespace qor::mediadb {

SharedPtr<LibraryLock> LibraryLock::acquire(const std::string& path, int mode) {
    return std::make_shared<LibraryLock>(FilesystemScopedLock(path, mode));
}

LibraryLock::~LibraryLock() {
    _lock.release();
    std::vector<Function0<void>> released;
    {
        thread::ScopedLock lock(_mutex);
        released.swap(_released);
    }
    for (auto& fn : released) {
        try {
            if (fn) fn();
        } catch (const std::exception& e) {
            QOR_LOG(LogError, "LibraryLock: a release notice failed: %*", e.what());
        } catch (...) {
            QOR_LOG(LogError, "LibraryLock: a release notice failed with an unknown exception");
        }
    }
}

void LibraryLock::onReleased(Function0<void> fn) {
    thread::ScopedLock lock(_mutex);
    _released.push_back(std::move(fn));
}

}  // namespace qor::mediadb
