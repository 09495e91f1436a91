#include "base/resource/ResourceSequence.h"

#include <algorithm>
#include <utility>

#include "base/resource/ResourceSequenceWorker.h"

namespace qor {

ResourceSequence::ResourceSequence(std::vector<ResourceID> items, int priority, size_t batchSize)
    : _items(std::move(items)), _priority(priority), _batchSize(std::max<size_t>(batchSize, 1)) {}

SharedPtr<ResourceSequence> ResourceSequence::create(std::vector<ResourceID> items, int priority,
                                                     size_t batchSize) {
    return SharedPtr<ResourceSequence>(new ResourceSequence(std::move(items), priority, batchSize));
}

void ResourceSequence::setTouchStep(Step step) {
    ScopedLock lock(_mutex);
    QOR_ASSERT_TEXT(!_handedOver, "steps are set before the sequence is queued");
    if (!_handedOver) _touch = std::move(step);
}

void ResourceSequence::setCopyStep(Step step) {
    ScopedLock lock(_mutex);
    QOR_ASSERT_TEXT(!_handedOver, "steps are set before the sequence is queued");
    if (!_handedOver) _copy = std::move(step);
}

bool ResourceSequence::setCompletion(Completion completion) {
    ScopedLock lock(_mutex);
    if (_done.load(std::memory_order_acquire) || _status.load() != SsPending) return false;
    _completion = std::move(completion);
    return true;
}

void ResourceSequence::cancel() {
    ScopedLock lock(_mutex);
    if (_status.load() != SsPending) return;
    _cancelled.store(true, std::memory_order_release);
    // The worker clears _worker under this mutex before the sequence ends, and cannot be
    // destroyed while it holds a sequence, so the pointer is good here.
    if (_worker) _worker->wake();
}

double ResourceSequence::progress() const {
    size_t n = _items.size();
    if (n == 0) return isDone() ? 1.0 : 0.0;
    return double(touched() + copied()) / double(2 * n);
}

}  // namespace qor
