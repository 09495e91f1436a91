#include "base/platform/RecycleBin.h"

#include <dlfcn.h>
#include <gio/gio.h>

#include <string>
#include <type_traits>

#include "base/Log.h"

namespace qor::eos {

namespace {

// GIO is opened on first use, not linked: with GObject, GLib and what they pull in it would add
// ten shared libraries to the start of every program, for a call that most runs never make.
// The library is never closed (GLib does not support being unloaded).
struct Gio {
    GFile* (*newForPath)(const char*) = nullptr;
    gboolean (*trash)(GFile*, GCancellable*, GError**) = nullptr;
    void (*unref)(gpointer) = nullptr;
    void (*freeError)(GError*) = nullptr;
    const gchar* (*userDataDir)() = nullptr;
    std::string error;  // why GIO is not usable; empty when it is
};

Gio openGio() {
    Gio gio;
    void* handle = ::dlopen("libgio-2.0.so.0", RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* reason = ::dlerror();
        gio.error = std::string("cannot open GIO: ") + (reason ? reason : "unknown reason");
        return gio;
    }
    // dlsym on the handle also finds the functions of GObject and GLib, which GIO depends on.
    auto resolve = [&](auto*& function, const char* name) {
        function =
            reinterpret_cast<std::remove_reference_t<decltype(function)>>(::dlsym(handle, name));
        if (!function && gio.error.empty()) gio.error = std::string("GIO lacks ") + name;
    };
    resolve(gio.newForPath, "g_file_new_for_path");
    resolve(gio.trash, "g_file_trash");
    resolve(gio.unref, "g_object_unref");
    resolve(gio.freeError, "g_error_free");
    resolve(gio.userDataDir, "g_get_user_data_dir");
    return gio;
}

// Opened by the first caller; the initialisation of a function-local static is thread-safe.
const Gio& gio() {
    static const Gio instance = openGio();
    return instance;
}

// Moves one path to its trash. Returns an empty string on success, else the reason.
std::string trashOne(const std::string& path) {
    const Gio& g = gio();
    if (!g.error.empty()) return g.error;
    if (path.empty()) return "empty path";
    GFile* file = g.newForPath(path.c_str());
    GError* error = nullptr;
    const gboolean ok = g.trash(file, nullptr, &error);
    g.unref(file);
    if (ok) return {};
    std::string message = error && error->message ? error->message : "unknown error";
    if (error) g.freeError(error);
    return message;
}

bool trash(const std::string& path, ResourceID id, int flag, const RecycleBinCallback& callback) {
    const std::string message = trashOne(path);
    if (!message.empty())
        QOR_LOG(LogWarning, "Cannot move '%*' to the recycle bin: %*", path, message);
    if (callback && (!message.empty() || (flag & RbReportAll))) callback(id, message);
    return message.empty();
}

}  // namespace

bool moveToRecycleBin(const std::string& path) { return trash(path, {}, RbReportFailures, {}); }

bool moveToRecycleBin(const std::vector<std::string>& paths) {
    bool all = true;
    for (const std::string& path : paths) all = trash(path, {}, RbReportFailures, {}) && all;
    return all;
}

bool moveToRecycleBin(const std::vector<RecycleItem>& items, int flag,
                      const RecycleBinCallback& callback) {
    bool all = true;
    for (const RecycleItem& item : items) all = trash(item.path, item.id, flag, callback) && all;
    return all;
}

std::string homeRecycleBinPath() {
    const Gio& g = gio();
    if (!g.error.empty()) {
        QOR_LOG(LogWarning, "Cannot find the home recycle bin: %*", g.error);
        return {};
    }
    const gchar* data = g.userDataDir();
    return data ? std::string(data) + "/Trash" : std::string();
}

}  // namespace qor::eos
