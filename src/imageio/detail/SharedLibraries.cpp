#include "imageio/detail/SharedLibraries.h"

#include <dlfcn.h>

#include <utility>

#include "base/Log.h"

namespace qor::imageio::detail {

SharedLibraries::SharedLibraries(std::vector<std::string> names) : _names(std::move(names)) {}

SharedLibraries::~SharedLibraries() {
    for (auto handle = _handles.rbegin(); handle != _handles.rend(); ++handle) dlclose(*handle);
}

bool SharedLibraries::open() {
    std::call_once(_opened, [this] { openOnce(); });
    return _open;
}

void SharedLibraries::openOnce() {
    for (const std::string& name : _names) {
        // Our own copy of each library's symbols: nothing loaded later binds to them by chance.
        void* handle = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            const char* reason = dlerror();
            _error = name + ": " + (reason ? reason : "unknown reason");
            QOR_LOG(LogWarning, "Cannot load the shared library %*", _error);
            for (auto opened = _handles.rbegin(); opened != _handles.rend(); ++opened)
                dlclose(*opened);
            _handles.clear();
            return;
        }
        _handles.push_back(handle);
    }
    _open = true;
}

void* SharedLibraries::symbol(const char* name) const {
    if (_open) {
        for (void* handle : _handles)
            if (void* address = dlsym(handle, name)) return address;
    }
    QOR_LOG(LogWarning, "Shared library function %* not found%*", name,
            _open ? "" : ": the libraries are not open");
    return nullptr;
}

}  // namespace qor::imageio::detail
