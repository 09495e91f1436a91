#pragma once
// PngBandReader: reads a PNG band by band from the top, keeping libpng's read struct between the
// reads, so that bands asked for top to bottom decode every line once instead of each band
// decoding the picture again from its first line. A band above the decoder's position starts the
// decoding over from the file's start.
//
// The file is opened for each read and closed after it; the decoder keeps its offset in the file
// between reads. A file whose size changed meanwhile is decoded again from its start. After the
// last line the decoder is let go.
//
// Pixels come as RGBA at 8 bits, exactly those of loadPng (palette, grey and tRNS expanded,
// 16-bit samples cut to their high byte, alpha 255 where the file has none), or at 16 bits, where
// 16-bit files give their samples as stored and shallower ones are widened (v * 257). Interlaced
// files, whose lines are spread over seven passes, are not read here: read() says so and the
// caller decodes the band another way.
//
// Thread contract: one read at a time; the owner serialises them.

#include <memory>
#include <string>

#include "imageio/ImageIO.h"
#include "imaging/GenImageData.h"

namespace qor::imageio::detail {

class PngBandReader {
public:
    // `logFailure` false leaves the libpng failure to the caller, through failure().
    explicit PngBandReader(std::string path, bool logFailure = true);
    ~PngBandReader();
    PngBandReader(const PngBandReader&) = delete;
    PngBandReader& operator=(const PngBandReader&) = delete;

    // Lines [top, top + height) of the picture at full width, with T = unsigned char (8-bit
    // samples) or unsigned short (16-bit samples). Null when the file cannot be read band by band
    // (interlaced, not a PNG, a second IHDR chunk, lines outside the picture, or an earlier
    // failure): the caller then decodes the band another way. A libpng failure after the header logs "PngBandReader:
    // libpng failed in '...': ..." once and gives null; later reads give null too. Asking for the
    // other sample size than the previous read starts over. Throws std::bad_alloc, and what
    // RandomAccessFileStd throws when the file cannot be opened.
    template <class T>
    SharedPtr<imaging::GenImageData<T, 4>> read(int top, int height);

    // Lines decoded since construction, skipped lines included (for tests and measurements).
    long long linesDecoded() const { return _linesDecoded; }
    // What libpng said when decoding failed after the header; empty when it has not failed (an
    // interlaced file, say, is not a failure).
    const std::string& failure() const { return _failure; }

private:
    struct State;
    // Starts a decoder on `file` for `bits`-bit output; false (and no decoder) when it cannot
    // read this file band by band.
    bool start(RandomAccessFile& file, int bits);
    void stop();

    const std::string _path;
    std::unique_ptr<State> _state;  // null while no decoder runs
    const bool _logFailure;
    bool _unusable = false;         // the file is read another way from now on
    long long _linesDecoded = 0;
    std::string _failure;
};

}  // namespace qor::imageio::detail
