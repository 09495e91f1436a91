#pragma once
// The image log's picture writer: PNG through libpng, RGBA of 8 or 16 bits as the log hands it
// over (imaging/ImageLog.h). Loading the library (libqor) installs it and starts the log when
// QOR_IMAGE_LOG names a folder; a program that links the layer archives instead calls
// installImageLogPngWriter() itself.
//
// Thread contract: the writer is called under the log's mutex, one picture at a time; libpng
// objects are local to a call.

#include <string>

#include "imaging/ImageLog.h"

namespace qor::imageio {

class PngImageLogWriter : public imaging::ImageLogWriter {
public:
    const char* extension() const override { return "png"; }
    // Encodes in memory, then replaces the file at `path` crash-safe. Throws std::exception (a
    // libpng error, FilesystemException) with the reason.
    void write(const std::string& path, const imaging::ImageLogPicture& picture) override;
};

// Installs a PngImageLogWriter as the image log's writer. Idempotent in effect.
void installImageLogPngWriter();

}  // namespace qor::imageio
