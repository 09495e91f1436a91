#pragma once
// ResourceName: the logical name of a resource of a ResourceManager. It holds the resource's local
// path in canonical form (absolute, normalised, no trailing separator) and the name handler that
// made it; the handler turns the path into the form stored in files (persistentString) and back.
//
// ResourceNameHandler: the rules of one manager's names. The default handler stores local paths
// as they are; AbsRelNameHandler stores paths below a root folder relative to that root, so that a
// library folder that moves as a whole keeps its stored names valid.
//
// Thread contract: names are values; handlers are immutable after construction and shared by all
// names they made, so both may be used on any threads at once.

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "base/Exception.h"
#include "util/SharedPtr.h"

namespace qor {

// A resource operation failed: a bad name, an unknown property, a property of another type.
class ResourceException : public CloneableException<ResourceException> {
public:
    using CloneableException::CloneableException;
};

// The resource was removed from its manager (or never was one of its resources).
class ResourceDeletedException
    : public CloneableException<ResourceDeletedException, ResourceException> {
public:
    using CloneableException::CloneableException;
};

class ResourceNameHandler {
public:
    virtual ~ResourceNameHandler() = default;

    // The canonical local path of a path or a "file:" URL: absolute (a relative path is taken from
    // the current folder), normalised, without a trailing separator. Throws ResourceException for
    // an empty path.
    virtual std::string canonicalPath(std::string_view path) const;
    // The form of a canonical local path that is stored in files. Default: the path itself.
    virtual std::string persistentString(std::string_view localPath) const;
    // The canonical local path that a stored form stands for. Default: canonicalPath(text).
    // Throws ResourceException for empty text.
    virtual std::string localPathFromPersistentString(std::string_view text) const;
    // Candidate `attempt` (1, 2, ...) for a free name beside localPath, for callers that look for
    // a name nobody uses yet: "/a/b.jpg" gives "/a/b_1.jpg", "/a/b_2.jpg", ...; a name without an
    // extension gets the number at its end. Attempt 0 or less gives the path unchanged.
    virtual std::string uniquePath(std::string_view localPath, int attempt) const;
};

// Names relative to a root folder: a path at or below the root is stored relative to it ("." for
// the root itself), any other path absolute. A stored relative form is joined to the root.
class AbsRelNameHandler : public ResourceNameHandler {
public:
    // Throws ResourceException for an empty root.
    explicit AbsRelNameHandler(std::string_view root);

    // The canonical root path.
    const std::string& root() const { return _root; }

    std::string persistentString(std::string_view localPath) const override;
    std::string localPathFromPersistentString(std::string_view text) const override;

private:
    std::string _root;
};

class ResourceName {
public:
    // The empty name, which names nothing.
    ResourceName() = default;

    // The name of a path or "file:" URL under `handler`'s rules. Throws ResourceException for an
    // empty path or a null handler.
    static ResourceName fromLocalPath(SharedPtr<const ResourceNameHandler> handler,
                                      std::string_view path);
    // The name that a stored form stands for. Throws ResourceException for empty text or a null
    // handler.
    static ResourceName fromPersistentString(SharedPtr<const ResourceNameHandler> handler,
                                             std::string_view text);

    bool empty() const { return _localPath.empty(); }
    // The canonical local path; empty for the empty name.
    const std::string& localPath() const { return _localPath; }
    // The stored form; empty for the empty name.
    std::string persistentString() const;
    const SharedPtr<const ResourceNameHandler>& handler() const { return _handler; }

    // Names compare and hash by their local path alone.
    friend bool operator==(const ResourceName& a, const ResourceName& b) {
        return a._localPath == b._localPath;
    }
    friend bool operator<(const ResourceName& a, const ResourceName& b) {
        return a._localPath < b._localPath;
    }
    friend std::ostream& operator<<(std::ostream& out, const ResourceName& name) {
        return out << name._localPath;
    }

private:
    ResourceName(SharedPtr<const ResourceNameHandler> handler, std::string localPath)
        : _handler(std::move(handler)), _localPath(std::move(localPath)) {}

    SharedPtr<const ResourceNameHandler> _handler;
    std::string _localPath;
};

}  // namespace qor

template <>
struct std::hash<qor::ResourceName> {
    size_t operator()(const qor::ResourceName& n) const noexcept {
        return std::hash<std::string>()(n.localPath());
    }
};
