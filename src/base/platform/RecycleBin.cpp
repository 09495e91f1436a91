#include "base/platform/RecycleBin.h"

#include <gio/gio.h>

#include "base/Log.h"

namespace qor::eos {

namespace {

// Moves one path to its trash. Returns an empty string on success, else GIO's message.
std::string trashOne(const std::string& path) {
    if (path.empty()) return "empty path";
    GFile* file = g_file_new_for_path(path.c_str());
    GError* error = nullptr;
    const gboolean ok = g_file_trash(file, nullptr, &error);
    g_object_unref(file);
    if (ok) return {};
    std::string message = error && error->message ? error->message : "unknown error";
    if (error) g_error_free(error);
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

}  // namespace qor::eos
