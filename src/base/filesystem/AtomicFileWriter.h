#pragma once
// Crash-safe replacement of a whole file: the new content goes to a hidden temporary file in the
// target's folder, which takes the target's name by rename(2) only when it is complete. A reader,
// or the next start after a crash or power loss, finds either the old file or the new one, never
// a mixture and never a short file.
//
// The temporary is named ".<name>.tmp-XXXXXX" (XXXXXX random), so that it is hidden, never has the
// target's name or extension, and can be recognised as a leftover. The writer holds an exclusive
// flock(2) on its temporary while it lives; the kernel drops that lock when the process dies. A
// leftover whose lock can be taken therefore belongs to a writer that crashed, and is removed:
// removeStaleTemporaries() does that, and the first successful commit() of each target in a
// process calls it for that target (later commits do not list the folder again: this process's
// own writers never leave a temporary behind). A program that wants leftovers of another process
// that crashed meanwhile gone calls removeStaleTemporaries() itself, for instance when it opens
// its files.
//
// Permissions: an existing target's permission bits (and, where allowed, owner and group) pass to
// the new file; a new file gets 0666 less the umask, as open(2) gives. A target that is a symbolic
// link is resolved: the file it points to is replaced and the link stays.
//
// Failures throw FilesystemException (base/filesystem/Path.h) whose message names the path and
// the system's reason (strerror); nothing is logged here, the caller logs what the failure means
// to it. On any failure before the rename the temporary is removed and
// the old file is untouched.
//
// Thread contract: one AtomicFileWriter is used by one thread at a time. Several writers of the
// same target (threads or processes) do not corrupt it, the last rename wins; callers that need an
// order take a FilesystemScopedLock.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qor::filesystem {

class AtomicFileWriter {
public:
    // With durable set, commit() flushes the file to the disk (fsync) before the rename and the
    // folder after it, so that the new content survives a power loss; without, the replacement is
    // still atomic against a crash of the process but may be lost with the system.
    // Creates the temporary. Throws FilesystemException when it cannot (missing or read-only
    // folder, no space for a directory entry ...).
    explicit AtomicFileWriter(std::string_view path, bool durable = true);
    // Without a commit() the temporary is removed and the target stays as it was.
    ~AtomicFileWriter();
    AtomicFileWriter(const AtomicFileWriter&) = delete;
    AtomicFileWriter& operator=(const AtomicFileWriter&) = delete;

    // Appends bytes to the temporary. Throws FilesystemException (disk full, file too large ...);
    // the writer is then abandoned: the temporary is removed, and further calls throw.
    void write(const void* data, size_t size);
    void write(std::string_view bytes) { write(bytes.data(), bytes.size()); }

    // Gives the temporary the target's name (after fsync when durable). Throws FilesystemException
    // when the flush or the rename fails; the old file is then untouched. A failure to flush the
    // folder after the rename only logs a warning: the new content is already in place.
    void commit();

    // The file that commit() replaces (after resolving a symbolic link).
    const std::string& path() const { return _path; }
    // The temporary, empty once committed or abandoned.
    const std::string& temporaryPath() const { return _tmpPath; }

private:
    [[noreturn]] void fail(const char* what, int error);
    void abandon();

    std::string _path;
    std::string _tmpPath;
    int _fd = -1;                // the temporary, locked; -1 once committed or abandoned
    std::uint64_t _written = 0;  // bytes in the temporary
    bool _durable;
};

// Replaces the file at `path` with `bytes` through an AtomicFileWriter. Throws FilesystemException.
void writeFileAtomically(std::string_view path, std::string_view bytes, bool durable = true);

// Removes the temporaries of crashed writers of `path` (".<name>.tmp-*" beside it whose lock can
// be taken). Lists the folder: about 3 ms for a folder of 10 000 entries. A live writer's temporary
// is never touched. Returns how many were removed; failures to list the folder or remove a file are
// logged and skipped. Safe at any time, from any thread.
size_t removeStaleTemporaries(std::string_view path);

// True when `name` (a leaf, no folder) has the form of an AtomicFileWriter's temporary. Folder
// scans that look for the library's own files skip these names.
bool isAtomicWriterTemporary(std::string_view name);

}  // namespace qor::filesystem
