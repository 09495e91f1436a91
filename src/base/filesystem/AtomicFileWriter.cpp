#include "base/filesystem/AtomicFileWriter.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <system_error>
#include <unordered_set>

#include "base/Log.h"
#include "base/filesystem/Path.h"
#include "base/filesystem/PosixIO.h"
#include "base/thread/Mutex.h"
#include "util/ThreadAnnotations.h"

namespace qor::filesystem {

namespace {

constexpr std::string_view kTmpMarker = ".tmp-";
constexpr size_t kRandomChars = 6;

std::string reasonOf(int error) { return std::system_category().message(error); }

// The folder part of `path`, "." for a bare name.
std::string folderOf(const std::string& path) {
    std::string folder = parentPath(path);
    return folder.empty() ? std::string(".") : folder;
}

// ".<leaf>.tmp-" for the target `path`: every temporary of it begins so.
std::string temporaryPrefix(const std::string& path) {
    return "." + leaf(path) + std::string(kTmpMarker);
}

std::string randomSuffix() {
    static constexpr char kAlphabet[] =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
    unsigned char bytes[kRandomChars];
    if (::getrandom(bytes, sizeof bytes, 0) != static_cast<ssize_t>(sizeof bytes)) {
        // Without the entropy source, mix the clock and the address of a local: uniqueness is
        // still checked by O_EXCL.
        struct timespec ts {};
        ::clock_gettime(CLOCK_MONOTONIC, &ts);
        unsigned long long seed = static_cast<unsigned long long>(ts.tv_nsec) ^
                                  reinterpret_cast<uintptr_t>(&ts) ^ ::getpid();
        for (unsigned char& b : bytes) {
            seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
            b = static_cast<unsigned char>(seed >> 56);
        }
    }
    std::string suffix;
    for (unsigned char b : bytes) suffix += kAlphabet[b % (sizeof kAlphabet - 1)];
    return suffix;
}

// A symbolic link is replaced through its target; a dangling one is replaced itself.
std::string resolveTarget(std::string_view path) {
    std::string target(path);
    struct stat st {};
    if (::lstat(target.c_str(), &st) == 0 && S_ISLNK(st.st_mode)) {
        char resolved[PATH_MAX];
        if (::realpath(target.c_str(), resolved)) target = resolved;
    }
    return target;
}

// The targets whose stale temporaries this process has looked for at a commit. A writer of this
// process never leaves its temporary behind (abandon() removes it), so one look a target and
// process finds all there will be, and saves listing a large folder at every save. Thread-safe.
class CleanedTargets {
public:
    // True the first time `path` is given (and again after the record was emptied).
    bool firstTime(const std::string& path) {
        thread::ScopedLock lock(_mutex);
        // Bounded: a process that writes very many files forgets them and looks again.
        if (_paths.size() >= 10000) _paths.clear();
        return _paths.insert(path).second;
    }

private:
    thread::Mutex _mutex;
    std::unordered_set<std::string> _paths QOR_GUARDED_BY(_mutex);
};

CleanedTargets& cleanedTargets() {
    static CleanedTargets targets;
    return targets;
}

}  // namespace

AtomicFileWriter::AtomicFileWriter(std::string_view path, bool durable)
    : _path(resolveTarget(path)), _durable(durable) {
    const std::string prefix = pathJoin(folderOf(_path), temporaryPrefix(_path));
    for (int attempt = 0; attempt < 100; ++attempt) {
        std::string candidate = prefix + randomSuffix();
        // 0666 less the umask, as any new file gets; an existing target's mode is copied below.
        const int fd = ::open(candidate.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
        if (fd < 0) {
            if (errno == EEXIST) continue;
            const int error = errno;
            throw FilesystemException("Cannot create a temporary file for '" + _path +
                                      "': " + reasonOf(error));
        }
        // The lock marks the temporary as alive for removeStaleTemporaries. A cleaner may have
        // taken it between open and flock and removed the name: then start again with a new one.
        // Where the file system has no locks, no cleaner can take one either and none removes it.
        while (::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
        }
        struct stat st {};
        if (::fstat(fd, &st) != 0 || st.st_nlink == 0) {
            ::close(fd);
            continue;
        }
        _fd = fd;
        _tmpPath = std::move(candidate);
        break;
    }
    if (_fd < 0) {
        throw FilesystemException("Cannot create a temporary file for '" + _path +
                                  "': no free name");
    }
    struct stat target {};
    if (::stat(_path.c_str(), &target) == 0 && S_ISREG(target.st_mode)) {
        if (::fchmod(_fd, target.st_mode & 07777) != 0) fail("Cannot set the mode of", errno);
        // Owner and group pass on only where the process may give them (root, or its own file);
        // otherwise the new file is the writer's, as with any other newly written file.
        struct stat own {};
        if (::fstat(_fd, &own) == 0 && (own.st_uid != target.st_uid || own.st_gid != target.st_gid))
            (void)::fchown(_fd, target.st_uid, target.st_gid);
    }
}

AtomicFileWriter::~AtomicFileWriter() { abandon(); }

void AtomicFileWriter::abandon() {
    if (_fd >= 0) {
        ::unlink(_tmpPath.c_str());
        ::close(_fd);  // drops the lock after the name is gone
        _fd = -1;
    }
    _tmpPath.clear();
}

void AtomicFileWriter::fail(const char* what, int error) {
    const std::string message = std::string(what) + " '" + _path + "': " + reasonOf(error);
    abandon();
    throw FilesystemException(message);
}

void AtomicFileWriter::write(const void* data, size_t size) {
    if (_fd < 0)
        throw FilesystemException("Cannot write '" + _path + "': the writer was abandoned");
    if (!pwriteFull(_fd, data, size, _written)) fail("Cannot write", errno);
    _written += size;
}

void AtomicFileWriter::commit() {
    if (_fd < 0) throw FilesystemException("Cannot save '" + _path + "': the writer was abandoned");
    // fsync also reports a delayed write error (ENOSPC, EIO) of data that write() accepted.
    if (_durable && ::fsync(_fd) != 0) fail("Cannot flush the new content of", errno);
    if (::rename(_tmpPath.c_str(), _path.c_str()) != 0)
        fail("Cannot rename the new content to", errno);
    ::close(_fd);
    _fd = -1;
    _tmpPath.clear();
    if (_durable) {
        const std::string folder = folderOf(_path);
        const int dirFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        // Some file systems cannot sync a folder (EINVAL); the rename is done either way.
        if (dirFd < 0 || (::fsync(dirFd) != 0 && errno != EINVAL))
            QOR_LOG(LogWarning, "Cannot flush the folder of '%*': %*", _path, reasonOf(errno));
        if (dirFd >= 0) ::close(dirFd);
    }
    if (cleanedTargets().firstTime(_path)) removeStaleTemporaries(_path);
}

void writeFileAtomically(std::string_view path, std::string_view bytes, bool durable) {
    AtomicFileWriter writer(path, durable);
    writer.write(bytes);
    writer.commit();
}

bool isAtomicWriterTemporary(std::string_view name) {
    // ".<at least one char>.tmp-XXXXXX"
    const size_t tail = kTmpMarker.size() + kRandomChars;
    return name.size() >= tail + 2 && name.front() == '.' &&
           name.substr(name.size() - tail, kTmpMarker.size()) == kTmpMarker;
}

size_t removeStaleTemporaries(std::string_view path) {
    const std::string target(path);
    const std::string folder = folderOf(target);
    const std::string prefix = temporaryPrefix(target);
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) {
        QOR_LOG(LogWarning, "Cannot look for stale temporaries of '%*': %*", target,
                reasonOf(errno));
        return 0;
    }
    size_t removed = 0;
    while (const struct dirent* entry = ::readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (name.size() != prefix.size() + kRandomChars || name.substr(0, prefix.size()) != prefix)
            continue;
        const std::string candidate = pathJoin(folder, name);
        const int fd = ::open(candidate.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        if (fd < 0) continue;
        // A writer that lives holds the lock. Once taken, the name must still be this very file:
        // a writer that committed meanwhile has renamed it to the target.
        struct stat held {};
        struct stat named {};
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0 && ::fstat(fd, &held) == 0 &&
            ::lstat(candidate.c_str(), &named) == 0 && held.st_ino == named.st_ino &&
            held.st_dev == named.st_dev && S_ISREG(named.st_mode)) {
            if (::unlink(candidate.c_str()) == 0) {
                ++removed;
                QOR_LOG(LogInfo, "Removed the temporary '%*' of a writer that ended early",
                        candidate);
            } else {
                QOR_LOG(LogWarning, "Cannot remove the stale temporary '%*': %*", candidate,
                        reasonOf(errno));
            }
        }
        ::close(fd);
    }
    ::closedir(dir);
    return removed;
}

}  // namespace qor::filesystem
