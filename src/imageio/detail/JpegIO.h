#pragma once
// The libjpeg plumbing of the JPEG codec: an error manager whose error_exit long-jumps back to the
// caller, and the data sources and destinations over a RandomAccessFile or a block of memory.
//
// Each source and destination is allocated from the libjpeg object's permanent pool, so it lives
// exactly as long as the object; the file or memory it reads or writes belongs to the caller and
// must outlive the object. The callbacks never throw, whatever the file throws (a std::exception
// or not): failures of the file are logged, and either end the input (sources) or raise a libjpeg
// error (destinations).
//
// Long jumps: error_exit long-jumps to the jmp_buf of the JpegErrorManager. Code between setjmp
// and a libjpeg call must hold no live object with a destructor in the frames that the jump
// skips; the codec keeps its state on the heap for that reason.
//
// Thread contract: every object here belongs to one libjpeg object, used by one thread.

#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

// jpeglib.h needs size_t and FILE declared before it.
#include <jpeglib.h>

#include "base/filesystem/RandomAccessFile.h"

namespace qor::imageio::detail {

// Size of the buffers of the file source and destination.
constexpr size_t JpegFileBufferSize = 4096;

struct JpegErrorManager {
    jpeg_error_mgr pub;  // first, so that the libjpeg pointer is the manager's
    std::jmp_buf jump;
    // Set by the warnings that say the compressed data broke off (a premature end of the data or
    // a marker in the middle of a scan): the rows from there on are not the picture's.
    bool dataMissing = false;
    void (*standardEmit)(j_common_ptr, int) = nullptr;  // libjpeg's own emit_message
};

// Fills `manager` with libjpeg's standard routines, except that error_exit long-jumps to
// manager.jump, messages (warnings, traces) go to the log at debug level and the warnings of
// missing data set manager.dataMissing. Returns the pointer to store in the object's `err` field.
jpeg_error_mgr* initJpegErrorManager(JpegErrorManager& manager);

// The text of the object's last message, as libjpeg formats it.
std::string jpegMessage(j_common_ptr object);

// Source over `file`, read from its start in blocks of JpegFileBufferSize. At or past the end of
// the file it logs "raf_fill_input_buffer: Premature end of file" and supplies an EOI marker, so
// that libjpeg ends the image normally; a read error is logged ("JpegLib: When reading from: ...")
// and ends the input the same way.
void jpegRAFdatasrc(j_decompress_ptr cinfo, RandomAccessFile& file);

// Points the source that jpegRAFdatasrc installed at `file`, the same data opened again, keeping
// its read position and buffered bytes: a decoder that lives longer than one open file goes on
// where it stopped.
void jpegRAFdatasrcRebind(j_decompress_ptr cinfo, RandomAccessFile& file);

// Source over `size` bytes at `data`. At their end it raises the libjpeg warning JWRN_JPEG_EOF and
// supplies an EOI marker.
void jpegMEMdatasrc(j_decompress_ptr cinfo, const void* data, size_t size);

// Destination into `file`, written in blocks of JpegFileBufferSize from the file's current
// position, which is left behind the data at the end. With `fixedSize` the file cannot grow: a
// block that does not fit into what remains logs "libjpeg: File too small for saving jpeg" and
// raises JERR_BUFFER_SIZE. A write error is logged ("JpegLib: When writing to: ...") and raises
// JERR_FILE_WRITE.
void jpegRAFdatadst(j_compress_ptr cinfo, RandomAccessFile& file, bool fixedSize);

// Destination into `size` bytes at `buffer`. When the block is used up it logs "libjpeg: File too
// small for saving jpeg" and raises JERR_BUFFER_SIZE. At the end the number of bytes written goes
// to *written when `written` is not null.
void jpegMEMdatadst(j_compress_ptr cinfo, void* buffer, size_t size, size_t* written);

}  // namespace qor::imageio::detail
