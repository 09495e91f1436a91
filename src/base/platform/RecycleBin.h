#pragma once
// Moving files and folders to the desktop's recycle bin: the freedesktop.org trash, through GIO
// (g_file_trash). GIO picks the trash of the path's mount (the home trash under $XDG_DATA_HOME for
// the home's file system, ".Trash-<uid>" at the top of another mount), writes the ".trashinfo"
// file with the original path and the deletion date, and renames on a name collision. Nothing is
// ever deleted outright: a path that cannot go to a trash stays where it is and counts as failed.
//
// GIO is opened with dlopen on the first call, so that programs that never trash anything do not
// load it; when it cannot be opened every call fails with a log line that says so.
//
// GLib reads $XDG_DATA_HOME once per process, at the first call that needs it; setting it later
// has no effect on the home trash.
//
// Thread contract: every function may be called from any thread; calls block on the file system
// (a folder on the same file system moves by rename; GIO refuses to copy across file systems).

#include <string>
#include <vector>

#include "base/ResourceID.h"
#include "util/Function.h"

namespace qor::eos {

// One path to move, with the resource it belongs to (InvalidResourceID for a file that is not a
// resource of its own, such as a sidecar), handed back to the callback.
struct RecycleItem {
    ResourceID id;
    std::string path;
};

// `flag` of the callback form.
enum RecycleBinFlags : int {
    RbReportFailures = 0,  // the callback hears of each path that failed, with GIO's message
    RbReportAll = 1,       // the callback hears of every path: an empty message for one that moved
};

// Called once per reported path, in the order of the list, on the calling thread, with the
// item's id and GIO's message (empty for a path that moved). Must not throw.
using RecycleBinCallback = Function2<void, ResourceID, const std::string&>;

// Moves one file or folder (with all it holds) to the trash. False, with one log line naming the
// path and GIO's message, when it could not (missing path, no trash for its mount, no
// permission).
bool moveToRecycleBin(const std::string& path);
// Moves each path in turn, going on after a failure. False when any path could not be moved,
// with one log line per failed path.
bool moveToRecycleBin(const std::vector<std::string>& paths);
// As above, and reports to `callback` (when set) as `flag` (RecycleBinFlags) says.
bool moveToRecycleBin(const std::vector<RecycleItem>& items, int flag,
                      const RecycleBinCallback& callback);

// The home trash folder ($XDG_DATA_HOME/Trash, by default ~/.local/share/Trash), as GLib sees it;
// empty, with a log line, when GIO cannot be opened. Files of the home's file system go there.
std::string homeRecycleBinPath();

}  // namespace qor::eos
