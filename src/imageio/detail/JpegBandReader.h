#pragma once
// JpegBandReader: reads a JPEG band by band from the top, keeping libjpeg's decoder between the
// reads, so that bands asked for top to bottom decode every scanline once instead of each band
// decoding the picture again from its first line. A band above the decoder's position starts the
// decoding over.
//
// The file is opened for each read and closed after it; the decoder keeps its place in the file
// between reads. A file whose size changed meanwhile is decoded again from its start. After the
// last line the decoder is let go.
//
// The pixels are those of decodeJpeg with a region: RGBA with alpha 255, the same DCT and
// upsampling. Progressive files (whose decoder holds the coefficients of the whole picture) and
// CMYK files are not read here: read() says so and the caller decodes the band by itself.
//
// With a scale denominator of 2, 4 or 8 the reader gives the picture reduced by that factor as
// libjpeg's DCT scaling decodes it: ceil(W / d) x ceil(H / d) pixels, each from the low
// frequencies of its block, at a fraction of the work of the full size (the inverse DCTs are
// smaller and colour conversion and upsampling see a d-th of the lines).
//
// Thread contract: one read at a time; the owner serialises them.

#include <memory>
#include <string>

#include "imageio/ImageIO.h"

namespace qor::imageio::detail {

class JpegBandReader {
public:
    // `scaleDenominator` 1 reads the picture as stored; 2, 4 or 8 reduces it (see above).
    JpegBandReader(std::string path, ImageQuality quality, int scaleDenominator = 1);
    ~JpegBandReader();
    JpegBandReader(const JpegBandReader&) = delete;
    JpegBandReader& operator=(const JpegBandReader&) = delete;

    // True when `path` is a JPEG that this reader reads: its header can be read, and it is
    // neither progressive nor CMYK. Reads the header alone; throws nothing but std::bad_alloc.
    static bool readsFile(const std::string& path);

    // Lines [top, top + height) of the stored picture (reduced by the scale denominator) at full
    // width. Null when the file cannot be
    // read band by band (progressive, CMYK, no header, lines outside the picture, or an earlier
    // failure): the caller then decodes the band another way. A libjpeg failure after the first
    // line logs "JpegBandReader: libjpeg failed in '...': ..." and gives the lines read so far,
    // the rest mid-grey, as decodeJpeg does; later reads return null. Throws std::bad_alloc.
    ImagePtr read(int top, int height);

    // Lines decoded since construction, skipped lines included (for tests and measurements).
    long long linesDecoded() const { return _linesDecoded; }

private:
    struct State;
    // Starts a decoder on `file`; false (and no decoder) when it cannot read this file.
    bool start(RandomAccessFile& file);
    void stop();

    const std::string _path;
    const ImageQuality _quality;
    const int _scaleDenominator;
    std::unique_ptr<State> _state;  // null while no decoder runs
    bool _unusable = false;         // the file is read another way from now on
    long long _linesDecoded = 0;
};

}  // namespace qor::imageio::detail
