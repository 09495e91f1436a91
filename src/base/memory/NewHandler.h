#pragma once

// A link in the process-wide chain of handlers that free memory when an allocation or a lock
// fails. Subclasses implement freeMemory(); callOurHandlers() runs every registered handler.
//
// Thread contract: registration and the run of the chain share one recursive lock, so a run sees
// a stable chain and a handler is never destroyed while it runs. Runs on different threads follow
// one another. A handler may unregister itself (or register others) from freeMemory.
//
// A handler joins the chain only once it is whole: a subclass calls registerHandler() at the end of
// its own constructor, never earlier, since a run on another thread may call freeMemory() as soon
// as the handler is in the chain. Likewise it calls unregisterHandler() first in its destructor,
// before its members go.

namespace qor::memory {

class NewHandler {
public:
    // Not yet in the chain: see the class comment.
    NewHandler() = default;
    virtual ~NewHandler();
    NewHandler(const NewHandler&) = delete;
    NewHandler& operator=(const NewHandler&) = delete;

    // Frees what it can. Throws std::bad_alloc if it cannot help. Any thread.
    virtual void freeMemory() = 0;

    void registerHandler();
    void unregisterHandler();
    bool registered() const;

    // Calls freeMemory of every registered handler, in the order of registration. Returns true if
    // at least one of them returned normally (freed something), false if all threw std::bad_alloc
    // or none is registered. Blocks while the handlers run.
    static bool callOurHandlers();
};

}  // namespace qor::memory
