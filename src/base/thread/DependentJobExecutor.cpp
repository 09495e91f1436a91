#include "base/thread/DependentJobExecutor.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <string>
#include <typeinfo>

#include "base/Log.h"
#include "base/thread/DFSOrderScoreFunction.h"

namespace qor::thread {

namespace {

// A runner that has run this many jobs yields its worker when other tasks are queued there.
constexpr unsigned kRunnerBatch = 16;

std::string describeCurrentException() {
    try {
        throw;
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace

DependentJobExecutor::DependentJobExecutor() : DependentJobExecutor(defaultJobDispatcher()) {}

DependentJobExecutor::DependentJobExecutor(JobDispatcher& dispatcher)
    : _dispatcher(dispatcher), _maxRunners(std::max(1u, dispatcher.workerCount())) {}

DependentJobExecutor::~DependentJobExecutor() {
    ScopedLock<Mutex> lock(_mutex);
    QOR_ASSERT(!_processing);
}

// ---- setting up a run ----

void DependentJobExecutor::buildTable(const Graph& graph, bool byDependent,
                                      std::vector<std::uint32_t>& start,
                                      std::vector<std::uint32_t>& entries) {
    // Edges are (dependency, dependent): keyed by the dependency they list its dependents, keyed
    // by the dependent its dependencies.
    auto key = [byDependent](const auto& edge) { return byDependent ? edge.second : edge.first; };
    auto value = [byDependent](const auto& edge) { return byDependent ? edge.first : edge.second; };
    start.assign(graph.nodes.size() + 1, 0);
    for (const auto& edge : graph.edges) ++start[key(edge) + 1];
    for (size_t i = 1; i < start.size(); ++i) start[i] += start[i - 1];
    entries.resize(graph.edges.size());
    std::vector<std::uint32_t> fill(start.begin(), start.end() - 1);
    for (const auto& edge : graph.edges) entries[fill[key(edge)]++] = value(edge);
}

std::int64_t DependentJobExecutor::findNode(const Graph& graph, const DependentJob* job) {
    std::uint32_t slot = job->_executorSlot.load(std::memory_order_relaxed);
    if (slot < graph.nodes.size() && graph.nodes[slot].job.get() == job) return slot;
    return -1;
}

void DependentJobExecutor::buildGraph(const std::set<SharedPtr<DependentJob>>& jobs, Graph& graph) {
    std::vector<Node>& nodes = graph.nodes;
    auto add = [&](const SharedPtr<DependentJob>& job) -> std::uint32_t {
        auto index = std::uint32_t(nodes.size());
        job->_executorSlot.store(index, std::memory_order_relaxed);
        Node node;
        node.job = job;
        JobState state = job->state();
        if (state != JsPending) {
            QOR_ASSERT_MSG(state != JsRunning, "job %* runs in another process()", job->toString());
            node.state = NsDone;
            node.succeeded = state == JsFinished;
        }
        nodes.push_back(std::move(node));
        graph.badDependency.push_back(false);
        return index;
    };

    // The same walk as DFSOrderScoreFunction, with its own stack.
    using DepIt = std::set<SharedPtr<DependentJob>>::const_iterator;
    std::vector<std::pair<std::uint32_t, DepIt>> stack;
    std::int64_t counter = 0;
    for (const SharedPtr<DependentJob>& root : jobs) {
        QOR_ASSERT(root);
        if (!root || findNode(graph, root.get()) >= 0) continue;
        std::uint32_t r = add(root);
        if (nodes[r].state != NsWaiting) continue;
        nodes[r].onStack = true;
        stack.emplace_back(r, root->dependencies().begin());
        while (!stack.empty()) {
            std::uint32_t i = stack.back().first;
            const auto& deps = nodes[i].job->dependencies();
            if (stack.back().second == deps.end()) {
                nodes[i].score = ++counter;
                nodes[i].onStack = false;
                stack.pop_back();
                continue;
            }
            const SharedPtr<DependentJob>& dep = *stack.back().second++;
            if (!dep) continue;
            std::int64_t found = findNode(graph, dep.get());
            std::uint32_t d = found >= 0 ? std::uint32_t(found) : add(dep);
            if (nodes[d].state == NsWaiting) {
                graph.edges.emplace_back(d, i);
                ++nodes[i].waitingOn;
                if (nodes[d].onStack) graph.cyclic = true;
                if (found < 0) {
                    nodes[d].onStack = true;
                    stack.emplace_back(d, dep->dependencies().begin());
                }
            } else if (!nodes[d].succeeded) {
                graph.badDependency[i] = true;
            }
        }
    }
}

void DependentJobExecutor::assignScores(const SharedPtr<JobScoreFunction>& score,
                                        const std::set<SharedPtr<DependentJob>>& jobs,
                                        Graph& graph) {
    // The walk has given every pending job its depth-first score already.
    if (!score) return;
    const JobScoreFunction& function = *score;
    if (typeid(function) == typeid(DFSOrderScoreFunction)) return;
    JobScoreFunction::ScoredJobs scored;
    score->scoreJobs(jobs, scored);
    std::vector<bool> hasScore(graph.nodes.size(), false);
    std::int64_t highest = 0;
    for (; !scored.empty(); scored.pop()) {
        const auto& [value, job] = scored.top();
        std::int64_t found = job ? findNode(graph, job.get()) : -1;
        if (found < 0) continue;  // not part of this graph
        Node& node = graph.nodes[found];
        if (node.state != NsWaiting) continue;
        if (!hasScore[found] || value < node.score) node.score = value;
        hasScore[found] = true;
        highest = std::max<std::int64_t>(highest, value);
    }
    // Jobs the score function left out start after all scored ones, in depth-first order.
    for (std::uint32_t i = 0; i < graph.nodes.size(); ++i)
        if (!hasScore[i]) graph.nodes[i].score += highest;
}

void DependentJobExecutor::skipCyclesUnlocked() {
    std::vector<std::uint32_t> remaining(_nodes.size());
    std::vector<std::uint32_t> free;
    for (std::uint32_t i = 0; i < _nodes.size(); ++i) {
        remaining[i] = _nodes[i].waitingOn;
        if (_nodes[i].state == NsWaiting && remaining[i] == 0) free.push_back(i);
    }
    while (!free.empty()) {
        std::uint32_t i = free.back();
        free.pop_back();
        for (std::uint32_t e = _dependentsStart[i]; e < _dependentsStart[i + 1]; ++e)
            if (--remaining[_dependents[e]] == 0) free.push_back(_dependents[e]);
    }
    unsigned cyclic = 0;
    for (std::uint32_t i = 0; i < _nodes.size(); ++i) {
        if (_nodes[i].state != NsWaiting || remaining[i] == 0) continue;
        markUnstarted(i, JsSkipped);
        ++cyclic;
    }
    QOR_ASSERT_MSG(cyclic == 0, "%* jobs lie on or behind a dependency cycle and are skipped",
                   cyclic);
}

// ---- state changes, all under _mutex ----

void DependentJobExecutor::markUnstarted(std::uint32_t i, JobState state) {
    Node& node = _nodes[i];
    node.state = NsDone;
    node.succeeded = false;
    node.job->leavePending(state);
    if (state == JsCancelled)
        ++_cancelled;
    else
        ++_skipped;
    noteDoneUnlocked(i);
}

void DependentJobExecutor::noteDoneUnlocked(std::uint32_t i) {
    for (std::uint32_t e = _dependenciesStart[i]; e < _dependenciesStart[i + 1]; ++e) {
        Node& dependency = _nodes[_dependencies[e]];
        if (--dependency.dependentsLeft == 0 && dependency.state == NsDone)
            _dropQueue.push_back(_dependencies[e]);
    }
    if (_nodes[i].dependentsLeft == 0) _dropQueue.push_back(i);
}

void DependentJobExecutor::dropResultsOf(const std::vector<SharedPtr<DependentJob>>& jobs) {
    for (const SharedPtr<DependentJob>& job : jobs) {
        try {
            job->dropResults();
        } catch (...) {
            QOR_LOG(LogWarning, "dropping the results of %* threw: %*", job->toString(),
                    describeCurrentException());
        }
    }
}

void DependentJobExecutor::dropQueuedUnlocked(ScopedLock<Mutex>& lock) {
    if (_dropQueue.empty()) return;
    std::vector<SharedPtr<DependentJob>> jobs;
    jobs.reserve(_dropQueue.size());
    for (std::uint32_t i : _dropQueue) jobs.push_back(_nodes[i].job);
    _dropQueue.clear();
    ++_dropping;
    lock.unlock();
    dropResultsOf(jobs);
    jobs.clear();  // may destroy what the jobs held: with no lock held
    lock.lock();
    --_dropping;
}

void DependentJobExecutor::skipDependents(std::uint32_t i) {
    std::vector<std::uint32_t> stack{i};
    while (!stack.empty()) {
        std::uint32_t j = stack.back();
        stack.pop_back();
        for (std::uint32_t e = _dependentsStart[j]; e < _dependentsStart[j + 1]; ++e) {
            std::uint32_t k = _dependents[e];
            if (_nodes[k].state != NsWaiting) continue;
            markUnstarted(k, JsSkipped);
            stack.push_back(k);
        }
    }
}

void DependentJobExecutor::cancelUnlocked() {
    if (_cancelRequested) return;
    _cancelRequested = true;
    _cancelFlag.store(true, std::memory_order_release);
    cancelNodesUnlocked();
    notifyIfOverUnlocked();
}

void DependentJobExecutor::cancelNodesUnlocked() {
    clearReadyUnlocked();
    for (std::uint32_t i = 0; i < _nodes.size(); ++i) {
        Node& node = _nodes[i];
        if (node.state == NsWaiting || node.state == NsReady) {
            markUnstarted(i, JsCancelled);
        } else if (node.state == NsQueuedGL && _dispatcher.cancelDispatched(node.glTicket)) {
            --_glQueued;
            markUnstarted(i, JsCancelled);
        }
        // Claimed nodes are cancelled by their runner; queued GL jobs that could not be withdrawn
        // cancel themselves when they come to run.
    }
}

void DependentJobExecutor::completeUnlocked(std::uint32_t i, const Outcome& outcome) {
    Node& node = _nodes[i];
    node.state = NsDone;
    node.succeeded = !outcome.failed;
    --_running;
    noteDoneUnlocked(i);
    if (outcome.failed)
        ++_failed;
    else
        ++_finished;
    if (outcome.callbackException) {
        if (!_callbackException) _callbackException = outcome.callbackException;
        cancelUnlocked();
    }
    if (!node.succeeded) {
        skipDependents(i);
        return;
    }
    for (std::uint32_t e = _dependentsStart[i]; e < _dependentsStart[i + 1]; ++e) {
        std::uint32_t k = _dependents[e];
        Node& dependent = _nodes[k];
        if (dependent.state == NsWaiting && --dependent.waitingOn == 0) pushReadyUnlocked(k);
    }
}

void DependentJobExecutor::pushReadyUnlocked(std::uint32_t i) {
    _nodes[i].state = NsReady;
    _ready.emplace_back(_nodes[i].score, i);
    std::push_heap(_ready.begin(), _ready.end(), std::greater<ReadyEntry>());
}

std::uint32_t DependentJobExecutor::popReadyUnlocked() {
    bool fromInitial = _initialNext < _initialReady.size() &&
                       (_ready.empty() || _initialReady[_initialNext] < _ready.front());
    if (fromInitial) return _initialReady[_initialNext++].second;
    std::pop_heap(_ready.begin(), _ready.end(), std::greater<ReadyEntry>());
    std::uint32_t i = _ready.back().second;
    _ready.pop_back();
    return i;
}

size_t DependentJobExecutor::readyCountUnlocked() const {
    return _initialReady.size() - _initialNext + _ready.size();
}

void DependentJobExecutor::clearReadyUnlocked() {
    _initialReady.clear();
    _initialNext = 0;
    _ready.clear();
}

unsigned DependentJobExecutor::reserveRunnersUnlocked(bool selfIsRunner) {
    size_t ready = readyCountUnlocked();
    if (selfIsRunner && ready > 0) --ready;
    unsigned idle = _maxRunners > _activeRunners ? _maxRunners - _activeRunners : 0;
    unsigned count = unsigned(std::min<size_t>(idle, ready));
    _activeRunners += count;
    return count;
}

bool DependentJobExecutor::overUnlocked() const {
    return _finished + _failed + _skipped + _cancelled == _total && _activeRunners == 0 &&
           _glQueued == 0 && _dropping == 0;
}

void DependentJobExecutor::notifyIfOverUnlocked() {
    if (!_processing || !overUnlocked()) return;
    _over.notifyAll();
    if (_waiterOnGLThread) _dispatcher.wakeGLThread();
}

// ---- running jobs ----

void DependentJobExecutor::postRunners(unsigned count) {
    for (unsigned n = 0; n < count; ++n) _dispatcher.dispatch([this] { runnerLoop(); }, JtWorker);
}

JobType DependentJobExecutor::askPrecondition(DependentJob& job, bool& threw) {
    threw = false;
    try {
        JobType type = job.precondition();
        if (isValidJobType(type)) return type;
        QOR_ASSERT_MSG(isValidJobType(type), "%* gave job type %*", job.toString(), int(type));
        return JtWorker;
    } catch (...) {
        job.setException(std::current_exception());
        QOR_LOG(LogWarning, "precondition of %* threw: %*", job.toString(),
                describeCurrentException());
        threw = true;
        return JtTrivial;
    }
}

DependentJobExecutor::Outcome DependentJobExecutor::execute(const SharedPtr<DependentJob>& job,
                                                            const FinishCallback* callback,
                                                            bool preconditionThrew) {
    Outcome outcome;
    if (!job->leavePending(JsRunning)) {
        QOR_ASSERT_MSG(false, "job %* was started elsewhere", job->toString());
        outcome.failed = true;
        return outcome;
    }
    if (!preconditionThrew) {
        try {
            job->performComputation();
        } catch (...) {
            job->setException(std::current_exception());
            QOR_LOG(LogWarning, "job %* failed: %*", job->toString(), describeCurrentException());
        }
    }
    try {
        outcome.failed = preconditionThrew || job->failed();
    } catch (...) {
        outcome.failed = true;
    }
    job->setState(outcome.failed ? JsFailed : JsFinished);
    if (callback && *callback) {
        try {
            (*callback)(job);
        } catch (...) {
            outcome.callbackException = std::current_exception();
        }
    }
    return outcome;
}

void DependentJobExecutor::runnerLoop() {
    ScopedLock<Mutex> lock(_mutex);
    unsigned batch = 0;
    for (;;) {
        if (_cancelRequested || readyCountUnlocked() == 0) {
            --_activeRunners;
            notifyIfOverUnlocked();
            return;
        }
        if (batch >= kRunnerBatch) {
            batch = 0;
            if (_dispatcher.queuedWorkerJobs() > 0) {
                // Let the tasks queued behind us have this worker; a new runner takes our slot.
                lock.unlock();
                postRunners(1);
                return;
            }
        }
        std::uint32_t i = popReadyUnlocked();
        _nodes[i].state = NsClaimed;
        ++_running;
        SharedPtr<DependentJob> job = _nodes[i].job;
        const FinishCallback* callback = _callback;
        lock.unlock();

        bool threw = false;
        JobType type = askPrecondition(*job, threw);

        if (type == JtGLThread && !threw) {
            lock.lock();
            --_running;
            if (_cancelRequested) {
                markUnstarted(i, JsCancelled);
                continue;
            }
            _nodes[i].state = NsQueuedGL;
            ++_glQueued;
            lock.unlock();
            JobDispatcher::Ticket ticket =
                _dispatcher.dispatch([this, i] { runGLJob(i); }, JtGLThread);
            lock.lock();
            if (_nodes[i].state == NsQueuedGL) {
                _nodes[i].glTicket = ticket;
                // A cancel that came while we were queuing could not withdraw it yet.
                if (_cancelRequested && _dispatcher.cancelDispatched(ticket)) {
                    --_glQueued;
                    markUnstarted(i, JsCancelled);
                }
            }
            continue;
        }
        // A cancel after this look finds the job claimed and lets it run.
        if (_cancelFlag.load(std::memory_order_acquire)) {
            lock.lock();
            --_running;
            markUnstarted(i, JsCancelled);
            continue;
        }

        Outcome outcome = execute(job, callback, threw);
        job.reset();

        lock.lock();
        completeUnlocked(i, outcome);
        ++batch;
        dropQueuedUnlocked(lock);
        if (unsigned extra = reserveRunnersUnlocked(true)) {
            lock.unlock();
            postRunners(extra);
            lock.lock();
        }
    }
}

void DependentJobExecutor::runGLJob(std::uint32_t i) {
    ScopedLock<Mutex> lock(_mutex);
    --_glQueued;
    if (_nodes[i].state != NsQueuedGL) {
        QOR_ASSERT_TEXT(false, "_nodes[i].state == NsQueuedGL");
        notifyIfOverUnlocked();
        return;
    }
    if (_cancelRequested) {
        markUnstarted(i, JsCancelled);
        notifyIfOverUnlocked();
        return;
    }
    _nodes[i].state = NsRunning;
    ++_running;
    SharedPtr<DependentJob> job = _nodes[i].job;
    const FinishCallback* callback = _callback;
    lock.unlock();

    Outcome outcome = execute(job, callback, false);
    job.reset();

    lock.lock();
    completeUnlocked(i, outcome);
    dropQueuedUnlocked(lock);
    unsigned extra = reserveRunnersUnlocked(false);
    notifyIfOverUnlocked();
    lock.unlock();
    // Safe after the unlock: the reserved runners keep process() waiting until they have run.
    postRunners(extra);
}

// ---- the public face ----

bool DependentJobExecutor::process(const SharedPtr<JobScoreFunction>& score,
                                   const std::set<SharedPtr<DependentJob>>& jobs,
                                   const FinishCallback& finishCallback) {
    {
        ScopedLock<Mutex> lock(_mutex);
        if (_processing) {
            QOR_ASSERT(!_processing);
            return false;
        }
        _processing = true;
        _cancelRequested = false;
        _cancelFlag.store(false, std::memory_order_relaxed);
        _callbackException = nullptr;
        _callback = nullptr;
        _total = _finished = _failed = _skipped = _cancelled = _running = 0;
        _activeRunners = _glQueued = 0;
    }

    Graph graph;
    try {
        buildGraph(jobs, graph);
        assignScores(score, jobs, graph);
    } catch (...) {
        ScopedLock<Mutex> lock(_mutex);
        _processing = false;
        throw;
    }

    // Dependents and dependencies as tables, in the order the walk found the edges.
    std::vector<std::uint32_t> start, dependents, depStart, dependencies;
    buildTable(graph, false, start, dependents);
    buildTable(graph, true, depStart, dependencies);
    for (std::uint32_t i = 0; i < graph.nodes.size(); ++i)
        graph.nodes[i].dependentsLeft = start[i + 1] - start[i];

    ScopedLock<Mutex> lock(_mutex);
    _nodes = std::move(graph.nodes);
    _dependentsStart = std::move(start);
    _dependents = std::move(dependents);
    _dependenciesStart = std::move(depStart);
    _dependencies = std::move(dependencies);
    _dropQueue.clear();
    _dropping = 0;
    _callback = &finishCallback;
    _waiterOnGLThread = _dispatcher.isGLThread();
    for (const Node& node : _nodes)
        if (node.state == NsWaiting) ++_total;
    if (graph.cyclic) skipCyclesUnlocked();
    for (std::uint32_t i = 0; i < _nodes.size(); ++i) {
        if (!graph.badDependency[i] || _nodes[i].state != NsWaiting) continue;
        markUnstarted(i, JsSkipped);
        skipDependents(i);
    }
    if (_cancelRequested) cancelNodesUnlocked();  // cancel() came while the graph was built
    clearReadyUnlocked();
    for (std::uint32_t i = 0; i < _nodes.size(); ++i) {
        if (_nodes[i].state != NsWaiting || _nodes[i].waitingOn != 0) continue;
        _nodes[i].state = NsReady;
        _initialReady.emplace_back(_nodes[i].score, i);
    }
    // In the plain depth-first order the leaves were found in score order already.
    if (!std::is_sorted(_initialReady.begin(), _initialReady.end()))
        std::sort(_initialReady.begin(), _initialReady.end());
    if (unsigned runners = reserveRunnersUnlocked(false)) {
        lock.unlock();
        postRunners(runners);
        lock.lock();
    }

    if (_waiterOnGLThread) {
        lock.unlock();
        _dispatcher.pumpGLJobsUntil([this] {
            ScopedLock<Mutex> check(_mutex);
            return overUnlocked();
        });
        lock.lock();
    } else {
        _over.wait(lock, [this]() QOR_NO_THREAD_SAFETY_ANALYSIS { return overUnlocked(); });
    }

    bool ok = _failed == 0 && _skipped == 0 && _cancelled == 0 && !_callbackException;
    std::exception_ptr thrown = std::exchange(_callbackException, nullptr);
    // What cancellations and skips left to drop; the run is over, so no job is read any more.
    std::vector<SharedPtr<DependentJob>> toDrop;
    for (std::uint32_t i : _dropQueue) toDrop.push_back(_nodes[i].job);
    _dropQueue.clear();
    std::vector<Node> finishedNodes = std::move(_nodes);
    _nodes.clear();
    _dependentsStart.clear();
    _dependents.clear();
    _dependenciesStart.clear();
    _dependencies.clear();
    clearReadyUnlocked();
    _callback = nullptr;
    _waiterOnGLThread = false;
    _processing = false;
    lock.unlock();
    dropResultsOf(toDrop);
    toDrop.clear();
    finishedNodes.clear();  // may destroy jobs: with no lock held
    if (thrown) std::rethrow_exception(thrown);
    return ok;
}

void DependentJobExecutor::cancel() {
    ScopedLock<Mutex> lock(_mutex);
    if (_processing) cancelUnlocked();
}

void DependentJobExecutor::progress(unsigned int& done, unsigned int& running,
                                    unsigned int& total) const {
    ScopedLock<Mutex> lock(_mutex);
    done = _finished + _failed;
    running = _running;
    total = _total;
}

}  // namespace qor::thread
