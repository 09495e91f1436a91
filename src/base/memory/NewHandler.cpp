#include "base/memory/NewHandler.h"

#include <algorithm>
#include <new>
#include <vector>

#include "base/thread/Mutex.h"

namespace qor::memory {

namespace {

struct Chain {
    thread::RecursiveMutex mutex;
    std::vector<NewHandler*> handlers;  // guarded by mutex
};

Chain& chain() {
    static Chain* c = new Chain;
    return *c;
}

}  // namespace

NewHandler::~NewHandler() { unregisterHandler(); }

void NewHandler::registerHandler() {
    Chain& c = chain();
    thread::ScopedLock<thread::RecursiveMutex> lock(c.mutex);
    if (std::find(c.handlers.begin(), c.handlers.end(), this) == c.handlers.end())
        c.handlers.push_back(this);
}

void NewHandler::unregisterHandler() {
    Chain& c = chain();
    thread::ScopedLock<thread::RecursiveMutex> lock(c.mutex);
    c.handlers.erase(std::remove(c.handlers.begin(), c.handlers.end(), this), c.handlers.end());
}

bool NewHandler::registered() const {
    Chain& c = chain();
    thread::ScopedLock<thread::RecursiveMutex> lock(c.mutex);
    return std::find(c.handlers.begin(), c.handlers.end(), this) != c.handlers.end();
}

bool NewHandler::callOurHandlers() {
    Chain& c = chain();
    thread::ScopedLock<thread::RecursiveMutex> lock(c.mutex);
    std::vector<NewHandler*> snapshot = c.handlers;
    bool freed = false;
    for (NewHandler* h : snapshot) {
        // A handler run before may have removed this one.
        if (std::find(c.handlers.begin(), c.handlers.end(), h) == c.handlers.end()) continue;
        try {
            h->freeMemory();
            freed = true;
        } catch (const std::bad_alloc&) {
        }
    }
    return freed;
}

}  // namespace qor::memory
