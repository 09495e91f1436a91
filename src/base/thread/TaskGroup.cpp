#include "base/thread/TaskGroup.h"
#include "base/thread/RunLogged.h"

#include <exception>
#include <utility>
#include <vector>

namespace qor::thread {

namespace {
// The group state whose task runs on this thread, to catch wait() from inside the group.
thread_local const void* tCurrentGroup = nullptr;
}  // namespace

TaskGroup::TaskGroup(ThreadPool* pool, const char* name)
    : _pool(pool ? pool : &defaultThreadPool()), _name(name), _state(std::make_shared<State>()) {}

TaskGroup::~TaskGroup() {
    cancel();
    if (tCurrentGroup != _state.get()) wait();
}

bool TaskGroup::post(Function0<void> fn, int priority) {
    QOR_ASSERT(fn != nullptr);
    if (!fn) return false;
    State& s = *_state;
    Token token;
    {
        ScopedLock<Mutex> lock(s.mutex);
        if (s.cancelled.load()) {
            QOR_LOG(LogWarning, "%*: task posted after cancel() refused", _name);
            return false;
        }
        token = s.nextToken++;
        s.queued.emplace(token, ThreadPool::TaskId(0));
    }
    // Posted without the lock: a pool without workers runs the task right here.
    ThreadPool::TaskId id = _pool->post(
        [state = _state, token, fn = std::move(fn)]() mutable { runTask(state, token, fn); },
        priority);
    ScopedLock<Mutex> lock(s.mutex);
    auto it = s.queued.find(token);
    if (it != s.queued.end()) it->second = id;
    return true;
}

void TaskGroup::cancel() {
    State& s = *_state;
    std::vector<ThreadPool::TaskId> ids;
    {
        ScopedLock<Mutex> lock(s.mutex);
        s.cancelled.store(true);
        ids.reserve(s.queued.size());
        for (const auto& [token, id] : s.queued) {
            if (id != 0) ids.push_back(id);
        }
        // A task whose token is gone does nothing when the pool runs it anyway.
        s.queued.clear();
        if (s.running == 0) s.idle.notifyAll();
    }
    for (ThreadPool::TaskId id : ids) _pool->cancel(id);
}

bool TaskGroup::isCancelled() const { return _state->cancelled.load(); }

void TaskGroup::reset() { _state->cancelled.store(false); }

void TaskGroup::wait() {
    State& s = *_state;
    if (tCurrentGroup == &s) {
        QOR_ASSERT_MSG(tCurrentGroup != &s, "%*: wait() from a task of the group", _name);
        return;
    }
    ScopedLock<Mutex> lock(s.mutex);
    while (!s.queued.empty() || s.running != 0) s.idle.wait(lock);
}

size_t TaskGroup::pending() const {
    State& s = *_state;
    ScopedLock<Mutex> lock(s.mutex);
    return s.queued.size() + s.running;
}

void TaskGroup::runTask(const std::shared_ptr<State>& state, Token token, Function0<void>& fn) {
    State& s = *state;
    {
        ScopedLock<Mutex> lock(s.mutex);
        if (s.queued.erase(token) == 0) return;  // dropped by cancel()
        ++s.running;
    }
    const void* outer = tCurrentGroup;
    tCurrentGroup = &s;
    runLogged(fn, "TaskGroup: task");
    tCurrentGroup = outer;
    fn = nullptr;  // release bound state before the group counts the task as ended
    ScopedLock<Mutex> lock(s.mutex);
    if (--s.running == 0 && s.queued.empty()) s.idle.notifyAll();
}

}  // namespace qor::thread
