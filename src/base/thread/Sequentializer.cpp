#include "base/thread/Sequentializer.h"
#include "base/thread/RunLogged.h"

#include <exception>

namespace qor::thread {

namespace {
// The sequentializer state whose task runs on this thread, to catch wait() from inside.
thread_local const void* tCurrentSequentializer = nullptr;
}  // namespace

Sequentializer::Sequentializer(ThreadPool* pool)
    : _state(std::make_shared<State>(pool ? pool : &defaultThreadPool())) {}

Sequentializer::~Sequentializer() {
    clear();
    if (tCurrentSequentializer != _state.get()) wait();
}

void Sequentializer::addTask(const Function0<void>& fn, int priority) {
    QOR_ASSERT(fn != nullptr);
    if (!fn) return;
    State& s = *_state;
    {
        ScopedLock<Mutex> lock(s.mutex);
        s.queue.emplace(std::make_pair(-priority, s.nextSequence++), fn);
        if (s.runnerPosted) return;
        s.runnerPosted = true;
    }
    // Posted without the lock: a pool without workers runs the runner right here.
    postRunner(_state, priority);
}

void Sequentializer::wait() {
    State& s = *_state;
    if (tCurrentSequentializer == &s) {
        QOR_ASSERT_MSG(tCurrentSequentializer != &s, "Sequentializer: wait() from its own task");
        return;
    }
    ScopedLock<Mutex> lock(s.mutex);
    while (s.runnerPosted) s.idle.wait(lock);
}

size_t Sequentializer::pending() const {
    State& s = *_state;
    ScopedLock<Mutex> lock(s.mutex);
    return s.queue.size() + (s.running ? 1 : 0);
}

size_t Sequentializer::clear() {
    State& s = *_state;
    decltype(s.queue) dropped;
    {
        ScopedLock<Mutex> lock(s.mutex);
        dropped.swap(s.queue);
    }
    return dropped.size();  // the tasks' bound state goes with no lock held
}

void Sequentializer::postRunner(const std::shared_ptr<State>& state, int priority) {
    state->pool->post([state] { runner(state); }, priority);
}

void Sequentializer::runner(const std::shared_ptr<State>& state) {
    State& s = *state;
    const bool inlinePool = s.pool->workerCount() == 0;
    for (;;) {
        Function0<void> fn;
        {
            ScopedLock<Mutex> lock(s.mutex);
            if (s.queue.empty()) {
                s.runnerPosted = false;
                s.idle.notifyAll();
                return;
            }
            auto first = s.queue.begin();
            fn = std::move(first->second);
            s.queue.erase(first);
            s.running = true;
        }
        const void* outer = tCurrentSequentializer;
        tCurrentSequentializer = &s;
        runLogged(fn, "Sequentializer: task");
        // The task's bound state may hold the last reference to the sequentializer's owner: it
        // goes while this thread still counts as running the sequentializer's task, so that the
        // destructor does not wait for the runner that is destroying it.
        fn = nullptr;
        tCurrentSequentializer = outer;
        int nextPriority;
        {
            ScopedLock<Mutex> lock(s.mutex);
            s.running = false;
            if (s.queue.empty()) {
                s.runnerPosted = false;
                s.idle.notifyAll();
                return;
            }
            nextPriority = -s.queue.begin()->first.first;
        }
        // A pool without workers would run the next runner inside post(), one stack frame deeper
        // for every task; loop instead.
        if (inlinePool) continue;
        postRunner(state, nextPriority);
        return;
    }
}

}  // namespace qor::thread
