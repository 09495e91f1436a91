#include "imageio/detail/JpegIO.h"

#include <jerror.h>

#include <algorithm>
#include <exception>
#include <new>

#include "base/Log.h"

namespace qor::imageio::detail {

namespace {

const JOCTET EndOfImage[2] = {0xFF, JPEG_EOI};

[[noreturn]] void errorExit(j_common_ptr object) {
    std::longjmp(reinterpret_cast<JpegErrorManager*>(object->err)->jump, 1);
}

// Every callback below is called by libjpeg, whose C frames an exception must never cross: they
// catch whatever the file throws, log without throwing, and report through libjpeg's own error
// path (error_exit, a long jump) or by ending the input.

// Logs `text`, or `format` with the file's name and `what`; a failure of the log itself (no
// memory) is dropped.
void logNoThrow(int level, const char* text) noexcept {
    try {
        QOR_LOG(level, text);
    } catch (...) {
    }
}

void logNoThrow(int level, const char* format, const RandomAccessFile& file,
                const char* what) noexcept {
    try {
        QOR_LOG(level, format, file.name(), what);
    } catch (...) {
    }
}

// Runs `io` on `file`: true when it returned, false when it threw, after logging `format` with the
// file's name and the error's text.
template <class Io>
bool guardedIo(const RandomAccessFile& file, const char* format, Io&& io) noexcept {
    try {
        io();
        return true;
    } catch (const std::exception& e) {
        logNoThrow(LogError, format, file, e.what());
    } catch (...) {
        logNoThrow(LogError, format, file, "unknown exception");
    }
    return false;
}

void outputMessage(j_common_ptr object) noexcept {
    try {
        QOR_LOG(LogDebug, "libjpeg: %*", jpegMessage(object));
    } catch (...) {
    }
}

// Level -1 is a warning; the codes below are those of data that broke off.
void emitMessage(j_common_ptr object, int level) noexcept {
    auto* manager = reinterpret_cast<JpegErrorManager*>(object->err);
    const int code = object->err->msg_code;
    if (level < 0 && (code == JWRN_JPEG_EOF || code == JWRN_HIT_MARKER))
        manager->dataMissing = true;
    manager->standardEmit(object, level);
}

// Allocates a T from the object's permanent pool; it goes with the object.
template <class T>
T* allocatePermanent(j_common_ptr object) {
    void* block = (*object->mem->alloc_small)(object, JPOOL_PERMANENT, sizeof(T));
    return new (block) T();
}

// ---- source over a RandomAccessFile ----

struct RafSource {
    jpeg_source_mgr pub;
    RandomAccessFile* file;
    uint64_t position;
    JOCTET buffer[JpegFileBufferSize];
};

void rafInitSource(j_decompress_ptr) {}
void rafTermSource(j_decompress_ptr) {}

boolean rafFillInputBuffer(j_decompress_ptr cinfo) {
    RafSource* src = reinterpret_cast<RafSource*>(cinfo->src);
    size_t got = 0;
    if (!guardedIo(*src->file, "JpegLib: When reading from: %*, Error: %*", [src, &got] {
            if (src->position < src->file->size())
                got = src->file->readAt(src->position, src->buffer, JpegFileBufferSize);
        }))
        got = 0;
    if (got == 0) {
        logNoThrow(LogWarning, "raf_fill_input_buffer: Premature end of file");
        src->pub.next_input_byte = EndOfImage;
        src->pub.bytes_in_buffer = sizeof EndOfImage;
        return TRUE;
    }
    src->position += got;
    src->pub.next_input_byte = src->buffer;
    src->pub.bytes_in_buffer = got;
    return TRUE;
}

// Skips by moving the read position, so that a long skip past the end of the file costs one
// refill, not one per block.
void rafSkipInputData(j_decompress_ptr cinfo, long count) {
    if (count <= 0) return;
    RafSource* src = reinterpret_cast<RafSource*>(cinfo->src);
    const size_t skip = static_cast<size_t>(count);
    if (skip <= src->pub.bytes_in_buffer) {
        src->pub.next_input_byte += skip;
        src->pub.bytes_in_buffer -= skip;
        return;
    }
    src->position += skip - src->pub.bytes_in_buffer;
    src->pub.bytes_in_buffer = 0;
    rafFillInputBuffer(cinfo);
}

// ---- source over memory ----

boolean memFillInputBuffer(j_decompress_ptr cinfo) {
    WARNMS(cinfo, JWRN_JPEG_EOF);
    cinfo->src->next_input_byte = EndOfImage;
    cinfo->src->bytes_in_buffer = sizeof EndOfImage;
    return TRUE;
}

void memSkipInputData(j_decompress_ptr cinfo, long count) {
    if (count <= 0) return;
    jpeg_source_mgr* src = cinfo->src;
    const size_t skip = static_cast<size_t>(count);
    if (skip <= src->bytes_in_buffer) {
        src->next_input_byte += skip;
        src->bytes_in_buffer -= skip;
        return;
    }
    src->bytes_in_buffer = 0;
    memFillInputBuffer(cinfo);
}

// ---- destination into a RandomAccessFile ----

struct RafDestination {
    jpeg_destination_mgr pub;
    RandomAccessFile* file;
    uint64_t position;
    bool fixedSize;
    JOCTET buffer[JpegFileBufferSize];
};

void rafInitDestination(j_compress_ptr cinfo) {
    RafDestination* dst = reinterpret_cast<RafDestination*>(cinfo->dest);
    dst->pub.next_output_byte = dst->buffer;
    dst->pub.free_in_buffer = JpegFileBufferSize;
}

// Writes the first `count` bytes of the buffer; raises a libjpeg error when that is impossible.
// The error is raised after guardedIo has returned, so that no exception object is alive during
// the long jump.
void rafWriteBlock(j_compress_ptr cinfo, size_t count) {
    RafDestination* dst = reinterpret_cast<RafDestination*>(cinfo->dest);
    if (count == 0) return;
    bool tooSmall = false;
    const bool written =
        guardedIo(*dst->file, "JpegLib: When writing to: %*, Error: %*", [dst, count, &tooSmall] {
            if (dst->fixedSize) {
                const uint64_t size = dst->file->size();
                tooSmall = size < dst->position || size - dst->position < count;
            }
            if (!tooSmall) {
                dst->file->writeAt(dst->position, dst->buffer, count);
                dst->position += count;
            }
        });
    if (tooSmall) {
        logNoThrow(LogError, "libjpeg: File too small for saving jpeg");
        ERREXIT(cinfo, JERR_BUFFER_SIZE);
    }
    if (!written) ERREXIT(cinfo, JERR_FILE_WRITE);
}

boolean rafEmptyOutputBuffer(j_compress_ptr cinfo) {
    rafWriteBlock(cinfo, JpegFileBufferSize);
    rafInitDestination(cinfo);
    return TRUE;
}

void rafTermDestination(j_compress_ptr cinfo) {
    RafDestination* dst = reinterpret_cast<RafDestination*>(cinfo->dest);
    rafWriteBlock(cinfo, JpegFileBufferSize - dst->pub.free_in_buffer);
    dst->file->seek(dst->position);
}

// ---- destination into memory ----

struct MemDestination {
    jpeg_destination_mgr pub;
    JOCTET* buffer;
    size_t size;
    size_t* written;
};

[[noreturn]] void memTooSmall(j_compress_ptr cinfo) {
    logNoThrow(LogError, "libjpeg: File too small for saving jpeg");
    ERREXIT(cinfo, JERR_BUFFER_SIZE);
    std::abort();  // ERREXIT does not return
}

void memInitDestination(j_compress_ptr cinfo) {
    MemDestination* dst = reinterpret_cast<MemDestination*>(cinfo->dest);
    // libjpeg stores a byte before it checks the room left, so an empty block must fail here.
    if (dst->size == 0 || !dst->buffer) memTooSmall(cinfo);
    dst->pub.next_output_byte = dst->buffer;
    dst->pub.free_in_buffer = dst->size;
}

boolean memEmptyOutputBuffer(j_compress_ptr cinfo) { memTooSmall(cinfo); }

void memTermDestination(j_compress_ptr cinfo) {
    MemDestination* dst = reinterpret_cast<MemDestination*>(cinfo->dest);
    if (dst->written) *dst->written = dst->size - dst->pub.free_in_buffer;
}

}  // namespace

jpeg_error_mgr* initJpegErrorManager(JpegErrorManager& manager) {
    jpeg_error_mgr* err = jpeg_std_error(&manager.pub);
    err->error_exit = errorExit;
    err->output_message = outputMessage;
    manager.standardEmit = err->emit_message;
    err->emit_message = emitMessage;
    return err;
}

std::string jpegMessage(j_common_ptr object) {
    char text[JMSG_LENGTH_MAX] = {};
    (*object->err->format_message)(object, text);
    return text;
}

void jpegRAFdatasrc(j_decompress_ptr cinfo, RandomAccessFile& file) {
    RafSource* src = allocatePermanent<RafSource>(reinterpret_cast<j_common_ptr>(cinfo));
    src->file = &file;
    src->position = 0;
    src->pub.init_source = rafInitSource;
    src->pub.fill_input_buffer = rafFillInputBuffer;
    src->pub.skip_input_data = rafSkipInputData;
    src->pub.resync_to_restart = jpeg_resync_to_restart;
    src->pub.term_source = rafTermSource;
    src->pub.next_input_byte = nullptr;
    src->pub.bytes_in_buffer = 0;
    cinfo->src = &src->pub;
}

void jpegRAFdatasrcRebind(j_decompress_ptr cinfo, RandomAccessFile& file) {
    reinterpret_cast<RafSource*>(cinfo->src)->file = &file;
}

void jpegMEMdatasrc(j_decompress_ptr cinfo, const void* data, size_t size) {
    jpeg_source_mgr* src =
        allocatePermanent<jpeg_source_mgr>(reinterpret_cast<j_common_ptr>(cinfo));
    src->init_source = rafInitSource;
    src->fill_input_buffer = memFillInputBuffer;
    src->skip_input_data = memSkipInputData;
    src->resync_to_restart = jpeg_resync_to_restart;
    src->term_source = rafTermSource;
    src->next_input_byte = static_cast<const JOCTET*>(data);
    src->bytes_in_buffer = data ? size : 0;
    cinfo->src = src;
}

void jpegRAFdatadst(j_compress_ptr cinfo, RandomAccessFile& file, bool fixedSize) {
    RafDestination* dst = allocatePermanent<RafDestination>(reinterpret_cast<j_common_ptr>(cinfo));
    dst->file = &file;
    dst->position = file.tell();
    dst->fixedSize = fixedSize;
    dst->pub.init_destination = rafInitDestination;
    dst->pub.empty_output_buffer = rafEmptyOutputBuffer;
    dst->pub.term_destination = rafTermDestination;
    cinfo->dest = &dst->pub;
}

void jpegMEMdatadst(j_compress_ptr cinfo, void* buffer, size_t size, size_t* written) {
    MemDestination* dst = allocatePermanent<MemDestination>(reinterpret_cast<j_common_ptr>(cinfo));
    dst->buffer = static_cast<JOCTET*>(buffer);
    dst->size = size;
    dst->written = written;
    dst->pub.init_destination = memInitDestination;
    dst->pub.empty_output_buffer = memEmptyOutputBuffer;
    dst->pub.term_destination = memTermDestination;
    if (written) *written = 0;
    cinfo->dest = &dst->pub;
}

}  // namespace qor::imageio::detail
