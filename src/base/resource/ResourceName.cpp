#include "base/resource/ResourceName.h"

#include "base/Log.h"
#include "base/filesystem/FilesystemScopedLock.h"
#include "base/filesystem/Path.h"

namespace qor {

std::string ResourceNameHandler::canonicalPath(std::string_view path) const {
    if (path.empty()) {
        QOR_LOG(LogWarning, "Resource name: empty path");
        throw ResourceException("A resource cannot be named by an empty path");
    }
    // The path locks compare the same canonical form, so a name's path can be locked as it is.
    return filesystem::FilesystemScopedLock::lockKey(path);
}

std::string ResourceNameHandler::persistentString(std::string_view localPath) const {
    return std::string(localPath);
}

std::string ResourceNameHandler::localPathFromPersistentString(std::string_view text) const {
    return canonicalPath(text);
}

std::string ResourceNameHandler::uniquePath(std::string_view localPath, int attempt) const {
    if (attempt <= 0) return std::string(localPath);
    const std::string number = "_" + std::to_string(attempt);
    const std::string extension = filesystem::getExtension(localPath);
    if (extension.empty()) return std::string(localPath) + number;
    const std::string stemmed(localPath.substr(0, localPath.size() - extension.size() - 1));
    return stemmed + number + "." + extension;
}

AbsRelNameHandler::AbsRelNameHandler(std::string_view root) : _root(canonicalPath(root)) {}

std::string AbsRelNameHandler::persistentString(std::string_view localPath) const {
    if (localPath == _root) return ".";
    // The root "/" already ends in the separator.
    const size_t prefix = _root == "/" ? 1 : _root.size() + 1;
    if (localPath.size() > prefix && localPath.compare(0, _root.size(), _root) == 0 &&
        localPath[prefix - 1] == '/')
        return std::string(localPath.substr(prefix));
    return std::string(localPath);
}

std::string AbsRelNameHandler::localPathFromPersistentString(std::string_view text) const {
    if (text.empty()) {
        QOR_LOG(LogWarning, "Resource name: empty stored name (root '%*')", _root);
        throw ResourceException("A resource cannot be named by an empty stored name");
    }
    if (text.front() == '/' || text.starts_with("file:")) return canonicalPath(text);
    return canonicalPath(filesystem::pathJoin(_root, text));
}

namespace {

void checkHandler(const SharedPtr<const ResourceNameHandler>& handler) {
    if (handler) return;
    QOR_LOG(LogError, "Resource name: no name handler");
    throw ResourceException("A resource name needs a name handler");
}

}  // namespace

ResourceName ResourceName::fromLocalPath(SharedPtr<const ResourceNameHandler> handler,
                                         std::string_view path) {
    checkHandler(handler);
    std::string local = handler->canonicalPath(path);
    return ResourceName(std::move(handler), std::move(local));
}

ResourceName ResourceName::fromPersistentString(SharedPtr<const ResourceNameHandler> handler,
                                                std::string_view text) {
    checkHandler(handler);
    std::string local = handler->localPathFromPersistentString(text);
    return ResourceName(std::move(handler), std::move(local));
}

std::string ResourceName::persistentString() const {
    if (empty() || !_handler) return std::string();
    return _handler->persistentString(_localPath);
}

}  // namespace qor
