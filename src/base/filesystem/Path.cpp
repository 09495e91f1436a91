#include "base/filesystem/Path.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "text/TextUtils.h"

namespace qor::filesystem {

namespace {

bool isSep(char c) { return c == '/' || c == '\\'; }

std::string normalizeWith(std::string_view path, char sep, bool windows) {
    if (path.empty()) return std::string();
    std::string p(path);
    std::replace_if(p.begin(), p.end(), isSep, sep);
    std::string prefix;
    std::string_view rest(p);
    if (windows) {
        if (rest.size() >= 2 && rest[1] == ':' &&
            ((rest[0] >= 'A' && rest[0] <= 'Z') || (rest[0] >= 'a' && rest[0] <= 'z'))) {
            prefix = std::string(rest.substr(0, 2));
            rest.remove_prefix(2);
        } else if (rest.size() >= 2 && rest[0] == sep && rest[1] == sep) {
            prefix = std::string(2, sep);
            rest.remove_prefix(2);
        }
    }
    const bool share = prefix.size() == 2 && prefix[0] == sep;
    const bool absolute = share || (!rest.empty() && rest.front() == sep);
    const bool trailing = !rest.empty() && rest.back() == sep;

    std::vector<std::string_view> parts;
    size_t start = 0;
    while (start <= rest.size()) {
        size_t end = rest.find(sep, start);
        if (end == std::string_view::npos) end = rest.size();
        std::string_view part = rest.substr(start, end - start);
        if (part.empty() || part == ".") {
        } else if (part == "..") {
            if (!parts.empty() && parts.back() != "..") {
                parts.pop_back();
            } else if (!absolute) {
                parts.push_back(part);
            }
        } else {
            parts.push_back(part);
        }
        start = end + 1;
    }

    std::string out = prefix;
    if (absolute && !share) out += sep;
    for (size_t i = 0; i < parts.size(); ++i) {
        if (i > 0) out += sep;
        out += parts[i];
    }
    if (parts.empty()) {
        if (out.empty()) {
            out = ".";
            if (trailing) out += sep;
        }
    } else if (trailing) {
        out += sep;
    }
    return out;
}

// The last part without trailing separators, as a view into path.
std::string_view leafView(std::string_view path) {
    while (!path.empty() && isSep(path.back())) path.remove_suffix(1);
    size_t pos = path.find_last_of("/\\");
    return pos == std::string_view::npos ? path : path.substr(pos + 1);
}

std::string systemReason(int err) { return std::system_category().message(err); }

[[noreturn]] void fail(std::string_view what, std::string_view path, int err) {
    std::string msg(what);
    msg += " '";
    msg += path;
    msg += "': ";
    msg += systemReason(err);
    throw FilesystemException(msg);
}

[[noreturn]] void fail2(std::string_view what, std::string_view from, std::string_view to,
                        int err) {
    std::string msg(what);
    msg += " '";
    msg += from;
    msg += "' to '";
    msg += to;
    msg += "': ";
    msg += err ? systemReason(err) : std::string("target exists");
    throw FilesystemException(msg);
}

std::string local(std::string_view url) { return text::urlToLocalPath(url); }

int64_t toMicros(const struct timespec& ts) {
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Closes a descriptor at the end of a scope.
struct Fd {
    int fd = -1;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int release() {
        int f = fd;
        fd = -1;
        return f;
    }
};

// Copies all bytes from `in` to `out`; returns 0 or an errno value.
int copyData(int in, int out) {
    // copy_file_range lets the kernel copy (or share extents) without a round trip through user
    // memory; fall back to read/write where it is not supported.
    for (;;) {
        ssize_t n = ::copy_file_range(in, nullptr, out, nullptr, 1 << 30, 0);
        if (n == 0) return 0;
        if (n > 0) continue;
        if (errno == EINTR) continue;
        if (errno == EXDEV || errno == ENOSYS || errno == EINVAL || errno == EOPNOTSUPP ||
            errno == EPERM) {
            break;
        }
        return errno;
    }
    std::vector<char> buffer(1 << 20);
    for (;;) {
        ssize_t n = ::read(in, buffer.data(), buffer.size());
        if (n == 0) return 0;
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        for (ssize_t done = 0; done < n;) {
            ssize_t w = ::write(out, buffer.data() + done, static_cast<size_t>(n - done));
            if (w < 0) {
                if (errno == EINTR) continue;
                return errno;
            }
            done += w;
        }
    }
}

void copyFile(const std::string& from, const std::string& to, bool overwrite) {
    Fd in(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.fd < 0) fail2("Cannot copy", from, to, errno);
    struct stat st;
    if (::fstat(in.fd, &st) != 0) fail2("Cannot copy", from, to, errno);
    if (S_ISDIR(st.st_mode)) fail2("Cannot copy", from, to, EISDIR);
    if (!overwrite && exists(to)) fail2("Cannot copy", from, to, 0);

    std::string folder = parentPath(to);
    if (folder.empty()) folder = ".";
    std::string tmp = pathJoin(folder, ".qor-copy-XXXXXX");
    Fd out(::mkostemp(tmp.data(), O_CLOEXEC));
    if (out.fd < 0) fail2("Cannot copy", from, to, errno);

    auto abandon = [&](int err) {
        ::close(out.release());
        ::unlink(tmp.c_str());
        fail2("Cannot copy", from, to, err);
    };
    if (int err = copyData(in.fd, out.fd)) abandon(err);
    if (::fchmod(out.fd, st.st_mode & 07777) != 0) abandon(errno);
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    if (::futimens(out.fd, times) != 0) abandon(errno);
    if (::close(out.release()) != 0) {
        int err = errno;
        ::unlink(tmp.c_str());
        fail2("Cannot copy", from, to, err);
    }

    if (overwrite) {
        if (::rename(tmp.c_str(), to.c_str()) != 0) {
            int err = errno;
            ::unlink(tmp.c_str());
            fail2("Cannot copy", from, to, err);
        }
        return;
    }
    // link() refuses an existing target atomically; where hard links are not supported fall back
    // to a check and a rename.
    if (::link(tmp.c_str(), to.c_str()) == 0) {
        ::unlink(tmp.c_str());
        return;
    }
    int err = errno;
    if (err == EEXIST || exists(to)) {
        ::unlink(tmp.c_str());
        fail2("Cannot copy", from, to, 0);
    }
    if (::rename(tmp.c_str(), to.c_str()) != 0) {
        err = errno;
        ::unlink(tmp.c_str());
        fail2("Cannot copy", from, to, err);
    }
}

// Recursive copy for moves across file systems. The target must not exist.
void copyTree(const std::string& from, const std::string& to) {
    struct stat st;
    if (::lstat(from.c_str(), &st) != 0) fail("Cannot read", from, errno);
    if (S_ISLNK(st.st_mode)) {
        std::string target(4096, '\0');
        ssize_t n = ::readlink(from.c_str(), target.data(), target.size());
        if (n < 0) fail("Cannot read link", from, errno);
        target.resize(static_cast<size_t>(n));
        if (::symlink(target.c_str(), to.c_str()) != 0) fail("Cannot create link", to, errno);
        return;
    }
    if (!S_ISDIR(st.st_mode)) {
        copyFile(from, to, false);
        return;
    }
    if (::mkdir(to.c_str(), 0700) != 0) fail("Cannot create folder", to, errno);
    for (UrlIterator it(from); it.valid(); it.next()) copyTree(it.path(), pathJoin(to, it.name()));
    ::chmod(to.c_str(), st.st_mode & 07777);
    struct timespec times[2] = {st.st_atim, st.st_mtim};
    ::utimensat(AT_FDCWD, to.c_str(), times, 0);
}

}  // namespace

std::string normalizePathUnix(std::string_view path) { return normalizeWith(path, '/', false); }

std::string normalizePathWin(std::string_view path) { return normalizeWith(path, '\\', true); }

std::string pathJoin(std::string_view a, std::string_view b) {
    if (a.empty()) return std::string(b);
    while (!b.empty() && isSep(b.front())) b.remove_prefix(1);
    if (b.empty()) return std::string(a);
    std::string_view head = a;
    while (!head.empty() && isSep(head.back())) head.remove_suffix(1);
    std::string out(head.empty() ? a.substr(0, 1) : head);
    if (!head.empty()) out += '/';
    out += b;
    return out;
}

std::string leaf(std::string_view path) { return std::string(leafView(path)); }

std::string getName(std::string_view path) {
    if (path.empty() || isSep(path.back())) return std::string();
    return std::string(leafView(path));
}

std::string getStem(std::string_view path) {
    std::string name = getName(path);
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return name;
    return name.substr(0, dot);
}

std::string getExtension(std::string_view path) {
    std::string name = getName(path);
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0) return std::string();
    return name.substr(dot + 1);
}

std::string parentPath(std::string_view path) {
    while (path.size() > 1 && isSep(path.back())) path.remove_suffix(1);
    size_t pos = path.find_last_of("/\\");
    if (pos == std::string_view::npos) return std::string();
    if (pos == 0) return std::string(path.substr(0, 1));
    std::string_view parent = path.substr(0, pos);
    while (parent.size() > 1 && isSep(parent.back())) parent.remove_suffix(1);
    return std::string(parent);
}

std::string replaceSpecialChars(std::string_view name, std::string_view replacement) {
    std::string out;
    out.reserve(name.size());
    for (char c : name) {
        unsigned char u = static_cast<unsigned char>(c);
        bool special = u < 0x20 || u == 0x7F || c == '/' || c == '\\' || c == ':' || c == '*' ||
                       c == '?' || c == '"' || c == '<' || c == '>' || c == '|';
        if (special) {
            out += replacement;
        } else {
            out += c;
        }
    }
    return out;
}

bool isHiddenName(std::string_view path) {
    std::string_view name = leafView(path);
    return !name.empty() && name.front() == '.';
}

bool exists(std::string_view url) {
    struct stat st;
    return ::stat(local(url).c_str(), &st) == 0;
}

bool isDirectory(std::string_view url) {
    struct stat st;
    return ::stat(local(url).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool isFile(std::string_view url) {
    struct stat st;
    return ::stat(local(url).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

UrlInfo getUrlInfo(std::string_view url) {
    UrlInfo info;
    info.path = local(url);
    info.hidden = isHiddenName(info.path);
    struct stat st;
    if (info.path.empty() || ::stat(info.path.c_str(), &st) != 0) return info;
    info.exists = true;
    info.isDirectory = S_ISDIR(st.st_mode);
    info.size = info.isDirectory ? 0 : static_cast<uint64_t>(st.st_size);
    info.lastWriteTime = time::Timestamp::fromMicroseconds(toMicros(st.st_mtim));
    return info;
}

uint64_t fileSize(std::string_view url) {
    std::string path = local(url);
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) fail("Cannot examine", path, errno);
    return static_cast<uint64_t>(st.st_size);
}

bool createDirectoryFromUrl(std::string_view url) {
    std::string path = normalizePathUnix(local(url));
    if (path.empty()) throw FilesystemException("Cannot create folder: empty path");
    struct stat st;
    if (::stat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) return false;
        fail("Cannot create folder", path, ENOTDIR);
    }
    std::string parent = parentPath(path);
    if (!parent.empty() && parent != path) createDirectoryFromUrl(parent);
    if (::mkdir(path.c_str(), 0777) != 0) {
        int err = errno;
        // Another thread or process may have made it in the meantime.
        if (err == EEXIST && isDirectory(path)) return false;
        fail("Cannot create folder", path, err);
    }
    return true;
}

void moveUrl(std::string_view fromUrl, std::string_view toUrl, bool overwrite) {
    std::string from = local(fromUrl), to = local(toUrl);
    struct stat st;
    if (::lstat(from.c_str(), &st) != 0) fail2("Cannot move", from, to, errno);
    int rc;
    if (overwrite) {
        rc = ::rename(from.c_str(), to.c_str());
    } else {
        rc = ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE);
        if (rc != 0 && (errno == EINVAL || errno == ENOSYS || errno == ENOTSUP)) {
            if (exists(to)) fail2("Cannot move", from, to, 0);
            rc = ::rename(from.c_str(), to.c_str());
        }
    }
    if (rc == 0) return;
    int err = errno;
    if (err == EEXIST) fail2("Cannot move", from, to, 0);
    if (err != EXDEV) fail2("Cannot move", from, to, err);

    if (S_ISDIR(st.st_mode)) {
        if (exists(to)) fail2("Cannot move", from, to, overwrite ? ENOTEMPTY : 0);
        try {
            copyTree(from, to);
        } catch (const FilesystemException& e) {
            try {
                removeAll(to);
            } catch (const FilesystemException&) {
            }
            throw FilesystemException("Cannot move '" + from + "' to '" + to + "': " + e.message());
        }
        removeAll(from);
    } else {
        copyFile(from, to, overwrite);
        if (::unlink(from.c_str()) != 0) fail("Moved but cannot remove source", from, errno);
    }
}

void copyUrl(std::string_view from, std::string_view to, bool overwrite) {
    copyFile(local(from), local(to), overwrite);
}

time::Timestamp lastWriteTime(std::string_view url) {
    std::string path = local(url);
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) fail("Cannot read the time of", path, errno);
    return time::Timestamp::fromMicroseconds(toMicros(st.st_mtim));
}

void setLastWriteTime(std::string_view url, const time::Timestamp& t) {
    std::string path = local(url);
    int64_t us = t.microseconds();
    int64_t sec = us >= 0 ? us / 1000000 : -((-us + 999999) / 1000000);
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(sec);
    ts.tv_nsec = static_cast<long>((us - sec * 1000000) * 1000);
    struct timespec times[2] = {ts, ts};
    if (t.isNull()) throw FilesystemException("Cannot set a null time on '" + path + "'");
    if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0)
        fail("Cannot set the time of", path, errno);
}

bool removeFile(std::string_view url) {
    std::string path = local(url);
    if (::remove(path.c_str()) == 0) return true;
    if (errno == ENOENT) return false;
    fail("Cannot remove", path, errno);
}

uint64_t removeAll(std::string_view url) {
    std::string path = local(url);
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) return 0;
        fail("Cannot remove", path, errno);
    }
    uint64_t count = 0;
    if (S_ISDIR(st.st_mode)) {
        for (UrlIterator it(path); it.valid(); it.next()) count += removeAll(it.path());
        if (::rmdir(path.c_str()) != 0) fail("Cannot remove", path, errno);
    } else if (::unlink(path.c_str()) != 0) {
        fail("Cannot remove", path, errno);
    }
    return count + 1;
}

UrlIterator::UrlIterator(std::string_view folderUrl) : _folder(local(folderUrl)) {
    DIR* dir = ::opendir(_folder.c_str());
    if (!dir) fail("Cannot list folder", _folder, errno);
    int dirFd = ::dirfd(dir);
    for (;;) {
        errno = 0;
        struct dirent* e = ::readdir(dir);
        if (!e) {
            int err = errno;
            ::closedir(dir);
            if (err != 0) fail("Cannot list folder", _folder, err);
            break;
        }
        std::string_view name(e->d_name);
        if (name == "." || name == "..") continue;
        Entry entry{std::string(name), e->d_type == DT_DIR, e->d_type == DT_LNK};
        if (e->d_type == DT_LNK || e->d_type == DT_UNKNOWN) {
            struct stat st;
            if (e->d_type == DT_UNKNOWN &&
                ::fstatat(dirFd, e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0)
                entry.isSymlink = S_ISLNK(st.st_mode);
            if (::fstatat(dirFd, e->d_name, &st, 0) == 0) entry.isDirectory = S_ISDIR(st.st_mode);
        }
        _entries.push_back(std::move(entry));
    }
    std::sort(_entries.begin(), _entries.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
}

}  // namespace qor::filesystem
