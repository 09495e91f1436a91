#include "imaging/PixelFormat.h"

#include <string>

#include "base/Log.h"

namespace qor::imaging {

FastString<char> pixelFormatString(RawPixelFormat pf) {
    static const struct {
        std::uint32_t bit;
        char letter;
    } kLetters[] = {{PfChannelR, 'R'}, {PfChannelG, 'G'}, {PfChannelB, 'B'}, {PfChannelA, 'A'},
                    {PfChannelL, 'L'}};
    std::string name;
    if (isReversed(pf)) {
        for (int i = 4; i >= 0; --i)
            if (std::uint32_t(pf) & kLetters[i].bit) name += kLetters[i].letter;
    } else {
        for (const auto& l : kLetters)
            if (std::uint32_t(pf) & l.bit) name += l.letter;
    }
    name += std::to_string(getBitsPerChannel(pf));
    switch (pixelFormatKind(pf)) {
        case PfkUnsigned: name += 'u'; break;
        case PfkFloat: name += 'f'; break;
        default: name += '?'; break;
    }
    return FastString<char>(std::move(name));
}

bool losslessConversionPossible(RawPixelFormat source, RawPixelFormat dest) {
    QOR_ASSERT(source != PfInvalid && dest != PfInvalid);
    if (getChannelCount(source) > getChannelCount(dest)) return false;
    if (pixelFormatKind(source) < pixelFormatKind(dest)) return false;
    if (pixelFormatKind(source) == pixelFormatKind(dest) &&
        getBitsPerChannel(source) > getBitsPerChannel(dest))
        return false;
    if (pixelFormatKind(source) == PfkFloat && pixelFormatKind(dest) == PfkUnsigned)
        return getBitsPerChannel(source) <= 2 * getBitsPerChannel(dest);
    return true;
}

unsigned int computeStride(int width, unsigned int bytesPerChannel, unsigned int channels,
                           int alignment) {
    if (bytesPerChannel == 0 || channels == 0) return 0;
    int s = alignment / int(bytesPerChannel);
    if (s < 1) s = 1;
    if ((channels & (channels - 1)) == 0) {
        s /= int(channels);
        if (s < 1) s = 1;
    }
    long long c = channels;
    return unsigned((((s + (long long)width) * c - 1) / (s * c)) * s * c);
}

}  // namespace qor::imaging
