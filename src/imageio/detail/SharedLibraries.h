#pragma once
// Shared libraries opened on first use rather than when the program starts, and the functions
// looked up in them.
//
// Thread contract: open() may be called on any number of threads at once; the first call opens
// the libraries and the others wait for it. After open() has returned true, symbol() and
// resolve() may be called on any thread.

#include <mutex>
#include <string>
#include <vector>

namespace qor::imageio::detail {

class SharedLibraries {
public:
    // `names` are the file names given to dlopen, opened in this order by the first open().
    explicit SharedLibraries(std::vector<std::string> names);
    // Closes what was opened. Nothing may still use a function that came from the libraries.
    ~SharedLibraries();
    SharedLibraries(const SharedLibraries&) = delete;
    SharedLibraries& operator=(const SharedLibraries&) = delete;

    // Opens every library the first time it is called, and returns whether all of them opened.
    // The first library that does not open is named in one log line at warning level with the
    // loader's reason, and the ones opened before it are closed again; later calls give the same
    // answer without trying again. Blocks on the loader (and on the first call, when another
    // thread is making it). Never throws.
    bool open();

    // Why open() failed: the library's name and the loader's reason. Empty when it did not fail.
    const std::string& error() const { return _error; }

    // The address of `name` in the first library that defines it; null, with a log line at warning
    // level, when none does or the libraries are not open.
    void* symbol(const char* name) const;

    // Sets `function` to `name` as symbol() finds it, and returns whether it was found.
    template <class Function>
    bool resolve(Function*& function, const char* name) const {
        function = reinterpret_cast<Function*>(symbol(name));
        return function != nullptr;
    }

private:
    void openOnce();

    const std::vector<std::string> _names;
    std::once_flag _opened;
    // Written only inside the call_once of open(), read after it: call_once orders the writes
    // before every return from open(), so these need no lock.
    std::vector<void*> _handles;
    std::string _error;
    bool _open = false;
};

}  // namespace qor::imageio::detail
