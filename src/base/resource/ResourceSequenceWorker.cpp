#include "base/resource/ResourceSequenceWorker.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/thread/ThreadId.h"

namespace qor {

ResourceSequenceWorker::ResourceSequenceWorker(const char* threadName) {
    std::string name = threadName ? threadName : "qor-sequences";
    _thread = std::thread([this, name] {
        _threadId.store(std::this_thread::get_id(), std::memory_order_release);
        thread::setThreadName(name.c_str());
        run();
    });
}

ResourceSequenceWorker::~ResourceSequenceWorker() { shutdown(); }

bool ResourceSequenceWorker::isWorkerThread() const {
    return _threadId.load(std::memory_order_acquire) == std::this_thread::get_id();
}

ResourceSequenceWorker::Key ResourceSequenceWorker::newKey() {
    ScopedLock lock(_mutex);
    return _nextKey++;
}

ResourceSequenceWorker::Key ResourceSequenceWorker::addSequence(
    SharedPtr<ResourceSequence> sequence) {
    return queue(NoKey, std::move(sequence), false);
}

ResourceSequenceWorker::Key ResourceSequenceWorker::setSequence(
    Key key, SharedPtr<ResourceSequence> sequence) {
    QOR_ASSERT_TEXT(key != NoKey, "setSequence needs a key from newKey or addSequence");
    if (key == NoKey) return NoKey;
    return queue(key, std::move(sequence), true);
}

ResourceSequenceWorker::Key ResourceSequenceWorker::queue(Key key,
                                                          SharedPtr<ResourceSequence> sequence,
                                                          bool replace) {
    if (!sequence) {
        QOR_ASSERT_TEXT(false, "sequence != nullptr");
        return NoKey;
    }
    // Lock order: the sequence's mutex, then ours.
    ScopedLock sequenceLock(sequence->_mutex);
    if (sequence->_handedOver) {
        QOR_ASSERT_TEXT(false, "a sequence is handed to a worker once");
        return NoKey;
    }
    sequence->_handedOver = true;
    ScopedLock lock(_mutex);
    if (_stopping) {
        lock.unlock();
        sequenceLock.unlock();
        QOR_LOG(LogWarning,
                "ResourceSequenceWorker: sequence of %* items refused after shutdown; cancelled",
                sequence->size());
        complete(*sequence, SsCancelled);
        return NoKey;
    }
    if (key == NoKey) key = _nextKey++;
    if (replace) {
        for (Entry& e : _queue) {
            if (e.key == key && e.ending == SsPending && !e.sequence->hasStarted()) {
                e.ending = SsReplaced;
                e.key = NoKey;  // no longer under the key, but still to be completed
            }
        }
    }
    sequence->_worker = this;
    _queue.push_back(Entry{std::move(sequence), key, _nextOrder++, SsPending});
    _wakeCondition.notifyOne();
    return key;
}

bool ResourceSequenceWorker::removeSequence(Key key) {
    std::vector<SharedPtr<ResourceSequence>> found;
    {
        ScopedLock lock(_mutex);
        for (const Entry& e : _queue)
            if (e.key == key && key != NoKey) found.push_back(e.sequence);
        if (_current.sequence && _current.key == key && key != NoKey)
            found.push_back(_current.sequence);
    }
    // cancel() takes the sequence's mutex and then ours, so it runs with ours released.
    for (auto& s : found) s->cancel();
    return !found.empty();
}

void ResourceSequenceWorker::cancelAll() {
    std::vector<SharedPtr<ResourceSequence>> found;
    {
        ScopedLock lock(_mutex);
        for (const Entry& e : _queue) found.push_back(e.sequence);
        if (_current.sequence) found.push_back(_current.sequence);
    }
    for (auto& s : found) s->cancel();
}

void ResourceSequenceWorker::wake() {
    ScopedLock lock(_mutex);
    _wakeCondition.notifyAll();
}

bool ResourceSequenceWorker::keyBusy(Key key) const {
    if (_current.sequence && _current.key == key) return true;
    return std::any_of(_queue.begin(), _queue.end(), [&](const Entry& e) { return e.key == key; });
}

bool ResourceSequenceWorker::wait(Key key, double timeoutSeconds) {
    if (isWorkerThread()) {
        QOR_ASSERT_TEXT(false, "wait is not called on the worker's thread");
        return false;
    }
    ScopedLock lock(_mutex);
    auto idle = [&]() QOR_NO_THREAD_SAFETY_ANALYSIS { return !keyBusy(key); };
    if (timeoutSeconds < 0) {
        _idleCondition.wait(lock, idle);
        return true;
    }
    return _idleCondition.timedWait(lock, timeoutSeconds, idle);
}

void ResourceSequenceWorker::waitIdle() {
    if (isWorkerThread()) {
        QOR_ASSERT_TEXT(false, "waitIdle is not called on the worker's thread");
        return;
    }
    ScopedLock lock(_mutex);
    _idleCondition.wait(
        lock, [&]() QOR_NO_THREAD_SAFETY_ANALYSIS { return _queue.empty() && !_current.sequence; });
}

void ResourceSequenceWorker::shutdown() {
    if (isWorkerThread()) {
        QOR_ASSERT_TEXT(false, "shutdown is not called on the worker's thread");
        return;
    }
    {
        ScopedLock lock(_mutex);
        if (_joined) return;
        _stopping = true;
        _joined = true;
    }
    cancelAll();
    {
        ScopedLock lock(_mutex);
        _wakeCondition.notifyAll();
    }
    if (_thread.joinable()) _thread.join();
}

size_t ResourceSequenceWorker::sequenceCount() const {
    ScopedLock lock(_mutex);
    return _queue.size() + (_current.sequence ? 1 : 0);
}

bool ResourceSequenceWorker::takeNext(Entry& out) {
    if (_queue.empty()) return false;
    // Endings first, so that a cancelled or replaced sequence reports at once.
    auto it = std::find_if(_queue.begin(), _queue.end(), [](const Entry& e) {
        return e.ending != SsPending || e.sequence->isCancelled();
    });
    if (it == _queue.end()) {
        it = std::min_element(_queue.begin(), _queue.end(), [](const Entry& a, const Entry& b) {
            int pa = a.sequence->priority(), pb = b.sequence->priority();
            return pa != pb ? pa > pb : a.order < b.order;
        });
    } else if (it->ending == SsPending) {
        it->ending = SsCancelled;
    }
    out = std::move(*it);
    _queue.erase(it);
    return true;
}

void ResourceSequenceWorker::run() {
    ScopedLock lock(_mutex);
    for (;;) {
        Entry entry;
        if (!takeNext(entry)) {
            if (_stopping) break;
            _wakeCondition.wait(lock);
            continue;
        }
        _current = entry;
        bool more = false;
        {
            ScopedUnlock unlocked(lock);
            if (entry.ending == SsPending) {
                more = runStep(*entry.sequence);
                // A cancel that came during the step ends the sequence before its next one.
                if (more && entry.sequence->isCancelled()) {
                    more = false;
                    entry.ending = SsCancelled;
                }
            }
            if (!more) {
                complete(*entry.sequence, entry.ending == SsPending ? SsFinished : entry.ending);
            }
        }
        if (more) _queue.push_back(std::move(entry));
        _current = Entry();
        _idleCondition.notifyAll();
    }
}

bool ResourceSequenceWorker::runStep(ResourceSequence& s) {
    s._started.store(true, std::memory_order_release);
    const size_t n = s.size();
    // Passes without a step, or with nothing left, count as done for every item.
    auto skipEmptyPasses = [&] {
        while (s._pass < 2) {
            const ResourceSequence::Step& step = s._pass == 0 ? s._touch : s._copy;
            if (step && s._next < n) return;
            (s._pass == 0 ? s._touched : s._copied).store(n, std::memory_order_release);
            ++s._pass;
            s._next = 0;
        }
    };
    skipEmptyPasses();
    if (s._pass >= 2) return false;

    const bool touch = s._pass == 0;
    const size_t first = s._next, count = std::min(s.batchSize(), n - first);
    try {
        (touch ? s._touch : s._copy)(s, first, count);
    } catch (const std::exception& e) {
        s._failed.fetch_add(1, std::memory_order_acq_rel);
        QOR_LOG(LogError, "ResourceSequenceWorker: %* step of items %* to %* failed: %*",
                touch ? "touch" : "copy", first, first + count - 1, e.what());
    } catch (...) {
        s._failed.fetch_add(1, std::memory_order_acq_rel);
        QOR_LOG(LogError, "ResourceSequenceWorker: %* step of items %* to %* failed",
                touch ? "touch" : "copy", first, first + count - 1);
    }
    s._next = first + count;
    (touch ? s._touched : s._copied).store(s._next, std::memory_order_release);
    skipEmptyPasses();
    return s._pass < 2;
}

void ResourceSequenceWorker::complete(ResourceSequence& s, SequenceStatus status) {
    ResourceSequence::Completion fn;
    {
        ScopedLock lock(s._mutex);
        s._status.store(status, std::memory_order_release);
        fn = std::move(s._completion);
        s._completion = nullptr;
        s._worker = nullptr;
    }
    if (fn) {
        try {
            fn(s, status);
        } catch (const std::exception& e) {
            QOR_LOG(LogError, "ResourceSequenceWorker: completion of a sequence failed: %*",
                    e.what());
        } catch (...) {
            QOR_LOG(LogError, "ResourceSequenceWorker: completion of a sequence failed");
        }
    }
    s._done.store(true, std::memory_order_release);
}

}  // namespace qor
