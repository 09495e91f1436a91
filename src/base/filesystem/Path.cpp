#include "base/filesystem/Path.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "text/TextUtils.h"

namespace qor::filesystem {

namespace fs = std::filesystem;

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

// What went wrong, from an errno value or a std::filesystem error code; 0 or no code means the
// target was there already. Taken by value where errno is passed, which later calls may change.
std::string reasonOf(int err) {
    return err ? std::system_category().message(err) : std::string("target exists");
}
std::string reasonOf(const std::error_code& ec) {
    return ec ? ec.message() : std::string("target exists");
}

template <class Reason>
[[noreturn]] void fail(std::string_view what, std::string_view path, Reason reason) {
    std::string msg(what);
    msg += " '";
    msg += path;
    msg += "': ";
    msg += reasonOf(reason);
    throw FilesystemException(msg);
}

template <class Reason>
[[noreturn]] void fail2(std::string_view what, std::string_view from, std::string_view to,
                        Reason reason) {
    std::string msg(what);
    msg += " '";
    msg += from;
    msg += "' to '";
    msg += to;
    msg += "': ";
    msg += reasonOf(reason);
    throw FilesystemException(msg);
}

std::string local(std::string_view url) { return text::urlToLocalPath(url); }

int64_t toMicros(const struct timespec& ts) {
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

// Gives `path` the access and modification times of `source` (std::filesystem sets only the
// latter). Returns 0 or an errno value.
int copyTimes(const struct stat& source, const std::string& path) {
    const struct timespec times[2] = {source.st_atim, source.st_mtim};
    return ::utimensat(AT_FDCWD, path.c_str(), times, 0) == 0 ? 0 : errno;
}

void copyFile(const std::string& from, const std::string& to, bool overwrite) {
    struct stat st;
    if (::stat(from.c_str(), &st) != 0) fail2("Cannot copy", from, to, errno);
    if (S_ISDIR(st.st_mode)) fail2("Cannot copy", from, to, EISDIR);
    if (!overwrite && exists(to)) fail2("Cannot copy", from, to, 0);

    // The data go to a fresh temporary file beside the target, which takes the target name only
    // when complete.
    std::string folder = parentPath(to);
    if (folder.empty()) folder = ".";
    std::string tmp = pathJoin(folder, ".qor-copy-XXXXXX");
    const int fd = ::mkostemp(tmp.data(), O_CLOEXEC);
    if (fd < 0) fail2("Cannot copy", from, to, errno);
    ::close(fd);
    // The reason by value: unlink may change errno.
    auto abandon = [&](auto reason) {
        ::unlink(tmp.c_str());
        fail2("Cannot copy", from, to, reason);
    };
    // copy_file lets the kernel copy the data and gives the copy the source's permission bits.
    std::error_code ec;
    fs::copy_file(from, tmp, fs::copy_options::overwrite_existing, ec);
    if (ec) abandon(ec);
    if (int err = copyTimes(st, tmp)) abandon(err);

    if (overwrite) {
        if (::rename(tmp.c_str(), to.c_str()) != 0) abandon(errno);
        return;
    }
    // link() refuses an existing target atomically; where hard links are not supported fall back
    // to a check and a rename.
    if (::link(tmp.c_str(), to.c_str()) == 0) {
        ::unlink(tmp.c_str());
        return;
    }
    if (errno == EEXIST || exists(to)) abandon(0);
    if (::rename(tmp.c_str(), to.c_str()) != 0) abandon(errno);
}

// Recursive copy for moves across file systems, keeping modes and times; symbolic links are
// copied as links. The target must not exist.
void copyTree(const std::string& from, const std::string& to) {
    std::error_code ec;
    const fs::file_status status = fs::symlink_status(from, ec);
    if (ec) fail("Cannot read", from, ec);
    if (fs::is_symlink(status)) {
        fs::copy_symlink(from, to, ec);
        if (ec) fail("Cannot create link", to, ec);
        return;
    }
    if (!fs::is_directory(status)) {
        copyFile(from, to, false);
        return;
    }
    // Created writable; the source's permission bits and times follow once it is filled.
    if (::mkdir(to.c_str(), 0700) != 0) fail("Cannot create folder", to, errno);
    for (UrlIterator it(from); it.valid(); it.next()) copyTree(it.path(), pathJoin(to, it.name()));
    fs::permissions(to, status.permissions(), ec);
    if (ec) fail("Cannot set the permissions of", to, ec);
    struct stat st;
    if (::stat(from.c_str(), &st) != 0) fail("Cannot read", from, errno);
    if (int err = copyTimes(st, to)) fail("Cannot set the time of", to, err);
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
    std::error_code ec;
    return fs::exists(local(url), ec);
}

bool isDirectory(std::string_view url) {
    std::error_code ec;
    return fs::is_directory(local(url), ec);
}

bool isFile(std::string_view url) {
    std::error_code ec;
    return fs::is_regular_file(local(url), ec);
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
    const std::string path = local(url);
    std::error_code ec;
    const uintmax_t size = fs::file_size(path, ec);
    if (ec) fail("Cannot examine", path, ec);
    return size;
}

bool createDirectoryFromUrl(std::string_view url) {
    const std::string path = normalizePathUnix(local(url));
    if (path.empty()) throw FilesystemException("Cannot create folder: empty path");
    // Also when another thread or process makes a part of it at the same time.
    std::error_code ec;
    const bool created = fs::create_directories(path, ec);
    if (ec) fail("Cannot create folder", path, ec);
    return created;
}

void moveUrl(std::string_view fromUrl, std::string_view toUrl, bool overwrite) {
    const std::string from = local(fromUrl), to = local(toUrl);
    std::error_code ec;
    const fs::file_status status = fs::symlink_status(from, ec);
    if (ec) fail2("Cannot move", from, to, ec);
    if (overwrite) {
        fs::rename(from, to, ec);
    } else if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
        // std::filesystem has no rename that refuses an existing target.
        ec.assign(errno, std::system_category());
        if (ec == std::errc::invalid_argument || ec == std::errc::function_not_supported ||
            ec == std::errc::not_supported) {
            if (exists(to)) fail2("Cannot move", from, to, 0);
            ec.clear();
            fs::rename(from, to, ec);
        }
    }
    if (!ec) return;
    if (ec == std::errc::file_exists) fail2("Cannot move", from, to, 0);
    if (ec != std::errc::cross_device_link) fail2("Cannot move", from, to, ec);

    // Across file systems: copy, then remove the source.
    if (fs::is_directory(status)) {
        if (exists(to)) fail2("Cannot move", from, to, overwrite ? ENOTEMPTY : 0);
        try {
            copyTree(from, to);
        } catch (const FilesystemException& e) {
            fs::remove_all(to, ec);
            throw FilesystemException("Cannot move '" + from + "' to '" + to + "': " + e.message());
        }
        removeAll(from);
    } else {
        copyFile(from, to, overwrite);
        if (!fs::remove(from, ec) && ec) fail("Moved but cannot remove source", from, ec);
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

void syncFileSystem(std::string_view url) {
    const std::string path = local(url);
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail("Cannot open", path, errno);
    const int result = ::syncfs(fd);
    const int error = errno;
    ::close(fd);
    if (result != 0) fail("Cannot write out the file system of", path, error);
}

bool removeFile(std::string_view url) {
    const std::string path = local(url);
    std::error_code ec;
    const bool removed = fs::remove(path, ec);
    if (ec) fail("Cannot remove", path, ec);
    return removed;
}

uint64_t removeAll(std::string_view url) {
    const std::string path = local(url);
    std::error_code ec;
    const uintmax_t count = fs::remove_all(path, ec);
    if (ec) fail("Cannot remove", path, ec);
    return count;
}

UrlIterator::UrlIterator(std::string_view folderUrl) : _folder(local(folderUrl)) {
    std::error_code ec;
    for (fs::directory_iterator it(_folder, ec), end; !ec && it != end; it.increment(ec)) {
        // The entry's type comes with the listing where the file system gives it; a link is
        // followed for isDirectory (a broken link is no folder).
        std::error_code ignored;
        _entries.push_back(
            {it->path().filename().string(), it->is_directory(ignored), it->is_symlink(ignored)});
    }
    if (ec) fail("Cannot list folder", _folder, ec);
    std::sort(_entries.begin(), _entries.end(),
              [](const Entry& a, const Entry& b) { return a.name < b.name; });
}

}  // namespace qor::filesystem
