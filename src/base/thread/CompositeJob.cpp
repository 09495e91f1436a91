#include "base/thread/CompositeJob.h"

namespace qor::thread {

void CompositeJob::cancel(bool /*wait*/) { setCancelled(); }

std::string CompositeJob::processState() const {
    ScopedLock lock(_mutex);
    return _processState;
}

void CompositeJob::setProcessState(const std::string& text) {
    ScopedLock lock(_mutex);
    _processState = text;
}

std::string CompositeJob::failure() const {
    ScopedLock lock(_mutex);
    return _failure;
}

void CompositeJob::setFailure(const std::string& text) {
    ScopedLock lock(_mutex);
    _failure = text;
}

}  // namespace qor::thread
