#pragma once
// Path and URL helpers: text operations on paths (normalisation, joining, parts) and file
// operations (directories, move, copy, times, iteration) on std::filesystem and POSIX.
//
// Paths are UTF-8 text. Functions that take a "url" accept a "file:" URL
// ("file:///home/x/a%20b.jpg") or a plain path. Text functions are pure and never throw; file
// functions throw FilesystemException (with the path and the system's reason in the message)
// where their comment says so. All functions are safe on any thread; none takes a path lock: the
// caller holds a FilesystemScopedLock where other writers could interfere.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/Exception.h"
#include "base/time/Timestamp.h"

namespace qor::filesystem {

class FilesystemException : public CloneableException<FilesystemException> {
public:
    using CloneableException::CloneableException;
};

// --- Text operations -----------------------------------------------------------------------

// Lexical normalisation with '/' as separator: backslashes become '/', runs of separators become
// one, "." parts go, ".." removes the part before it ("/.." stays "/", a leading ".." of a relative
// path is kept). A trailing separator is kept when the input has one, so "/a/b/" stays a folder
// path; a relative path that reduces to nothing gives "." ("./" with a trailing separator).
// Empty input gives "". Symbolic links are not resolved.
std::string normalizePathUnix(std::string_view path);
// The same with '\' as separator (slashes become backslashes); a drive prefix "C:" is kept in front
// of the root, and a leading "\\" (a network share) is kept.
std::string normalizePathWin(std::string_view path);

// a + "/" + b with exactly one separator between them; an empty part gives the other unchanged.
// b is always appended, also when it begins with a separator. Not normalised.
std::string pathJoin(std::string_view a, std::string_view b);
// The last part of a path, trailing separators ignored: "/a/b.jpg" -> "b.jpg", "/a/b/" -> "b",
// "/" -> "".
std::string leaf(std::string_view path);
// The file name with its extension: "/a/b.jpg" -> "b.jpg". A path that ends in a separator names
// a folder and has no file name: "/a/b/" -> "".
std::string getName(std::string_view path);
// The file name without its last extension: "/a/b.tar.gz" -> "b.tar"; a name that begins with its
// only dot has no extension (".bag" -> ".bag").
std::string getStem(std::string_view path);
// The last extension without the dot, as written: "/a/b.JPG" -> "JPG"; "" when there is none.
std::string getExtension(std::string_view path);
// The folder that holds the last part, without a trailing separator: "/a/b.jpg" -> "/a",
// "/a/b/" -> "/a", "/a" -> "/", "a" -> "", "/" -> "/".
std::string parentPath(std::string_view path);
// Replaces every character that some common file system refuses in a file name
// (/ \ : * ? " < > | and the control characters 0x00-0x1F, 0x7F) by `replacement`.
std::string replaceSpecialChars(std::string_view name, std::string_view replacement);
// True when the last part begins with '.' (the Unix convention for hidden entries).
bool isHiddenName(std::string_view path);

// --- File operations -----------------------------------------------------------------------

// Never throw: false when the entry is missing or cannot be examined.
bool exists(std::string_view url);
bool isDirectory(std::string_view url);
bool isFile(std::string_view url);

struct UrlInfo {
    std::string path;  // local path of the url
    bool exists = false;
    bool isDirectory = false;
    bool hidden = false;  // the leaf begins with '.'
    uint64_t size = 0;    // bytes, for a file
    time::Timestamp lastWriteTime;
};
// Facts about a url's target (symbolic links followed). A missing entry gives exists == false and
// the rest zero. Never throws.
UrlInfo getUrlInfo(std::string_view url);

// Size of a file in bytes. Throws FilesystemException when it cannot be examined or is a folder.
uint64_t fileSize(std::string_view url);

// Creates a folder and any missing parents (mkdir -p, mode 0777 before the umask). Returns true
// when it created something, false when the folder existed. Throws FilesystemException when a
// part exists and is not a folder, or mkdir fails.
bool createDirectoryFromUrl(std::string_view url);

// Moves a file or folder. A plain rename where possible; across file systems the entry is copied
// (folders recursively, keeping modes and times) and the source removed afterwards. With
// overwrite false an existing target is refused; with true an existing file is replaced (a
// non-empty folder never is). The target's folder must exist. Throws FilesystemException on any
// failure; a failed cross-device copy leaves the source in place.
void moveUrl(std::string_view from, std::string_view to, bool overwrite = false);

// Copies one file with its contents, permission bits and access and modification times. The data
// go to a temporary file in the target folder, which then takes the target name, so a failed copy
// never leaves a partial file under the target name. With overwrite false an existing target is
// refused, otherwise replaced atomically. The target's folder must exist. Throws
// FilesystemException on any failure (source missing or a folder, target exists, disk full ...).
void copyUrl(std::string_view from, std::string_view to, bool overwrite = false);

// Time of the last change of a file's contents. Throws FilesystemException when it is missing.
time::Timestamp lastWriteTime(std::string_view url);
// Sets the modification time (and the access time to the same value). Throws FilesystemException.
void setLastWriteTime(std::string_view url, const time::Timestamp& t);

// Writes out everything the file system that holds `url` keeps in memory (syncfs) and waits for it.
// Throws FilesystemException when the folder cannot be opened or the write fails.
void syncFileSystem(std::string_view url);

// Removes a file (or a symbolic link, or an empty folder). Returns false when nothing was there.
// Throws FilesystemException on other failures.
bool removeFile(std::string_view url);
// Removes a file or a folder with everything below it; symbolic links are removed, not followed.
// Returns the number of entries removed. Stops at the first failure and throws
// FilesystemException naming `url` and the reason; what was removed until then stays removed.
uint64_t removeAll(std::string_view url);

// The entries of one folder, "." and ".." left out, sorted by name (byte order) so that walks are
// repeatable. The listing is read when the iterator is constructed. Not shared between threads.
//
//     for (UrlIterator it(folder); it.valid(); it.next()) use(it.path(), it.isDirectory());
class UrlIterator {
public:
    // Throws FilesystemException when the folder cannot be opened or read.
    explicit UrlIterator(std::string_view folderUrl);

    bool valid() const { return _index < _entries.size(); }
    void next() { ++_index; }

    // Of the current entry; only while valid().
    const std::string& name() const { return _entries[_index].name; }
    std::string path() const { return pathJoin(_folder, name()); }
    // Symbolic links are followed: a link to a folder is a folder.
    bool isDirectory() const { return _entries[_index].isDirectory; }
    bool isSymlink() const { return _entries[_index].isSymlink; }
    bool isHidden() const { return !name().empty() && name()[0] == '.'; }

    const std::string& folder() const { return _folder; }
    size_t count() const { return _entries.size(); }

private:
    struct Entry {
        std::string name;
        bool isDirectory;
        bool isSymlink;
    };
    std::string _folder;
    std::vector<Entry> _entries;
    size_t _index = 0;
};

}  // namespace qor::filesystem
