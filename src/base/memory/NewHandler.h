#pragma once

// A link in the process-wide chain of handlers that free memory when an allocation or a lock
// fails. Subclasses implement freeMemory(); callOurHandlers() runs every registered handler.
//
// Thread contract: registration and the run of the chain share one recursive lock, so a run sees
// a stable chain and a handler is never destroyed while it runs. Runs on different threads follow
// one another. A handler may unregister itself (or register others) from freeMemory. A subclass
// must call unregisterHandler() in its own destructor, before its members go.

namespace qor::memory {

class NewHandler {
public:
    // With `registerNow`, the handler joins the chain at once.
    explicit NewHandler(bool registerNow);
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
