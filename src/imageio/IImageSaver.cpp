#include "imageio/IImageSaver.h"

#include "base/Log.h"
#include "imageio/savers/SaveModule.h"

namespace qor::imageio {

using imaging::RawPixelFormat;

int moduleDataType(RawPixelFormat format) {
    switch (format) {
        case imaging::PfRGB8: return DtRGB8;
        case imaging::PfRGB16: return DtRGB16;
        case imaging::PfRGB16F: return DtRGB16F;
        case imaging::PfRGB32F: return DtRGB32F;
        case imaging::PfRGBA8: return DtRGBA8;
        case imaging::PfRGBA16: return DtRGBA16;
        case imaging::PfRGBA16F: return DtRGBA16F;
        case imaging::PfRGBA32F: return DtRGBA32F;
        default: return 0;
    }
}

IImageSaver::IImageSaver(int formatCode)
    : _saver(SaveModule::create(formatCode)), _formatCode(formatCode) {
    if (!_saver) QOR_LOG(LogError, "IImageSaver: no save module for format code %*", formatCode);
}

IImageSaver::~IImageSaver() = default;

void IImageSaver::setParameter(const char* name, int value) {
    QOR_ASSERT_TEXT(_saver, "_saver");
    if (_saver) _saver->setParameter(name, value);
}

void IImageSaver::setProfileParameter(const char* embedParameter,
                                      SharedPtr<imaging::ColorProfile> profile) {
    setParameter(embedParameter, profile ? 1 : 0);
    if (_saver) _saver->setProfile(profile);
}

void IImageSaver::setMetadata(const SharedPtr<Metadata>& metadata) {
    QOR_ASSERT_TEXT(_saver, "_saver");
    if (_saver) _saver->setMetadata(metadata);
}

void IImageSaver::setMetadata(const std::map<String, String>* raw) {
    QOR_ASSERT_TEXT(_saver, "_saver");
    if (!_saver) return;
    if (!raw) {
        _saver->setMetadata(nullptr);
        return;
    }
    auto metadata = std::make_shared<Metadata>();
    for (const auto& [key, value] : *raw) metadata->setRaw(key, value);
    _saver->setMetadata(metadata);
}

void IImageSaver::setupSaver(RawPixelFormat) {}

bool IImageSaver::saveRows(const String& path, RawPixelFormat format, RowProvider& rows) {
    if (!_saver)
        throw ImageSaverException("no save module for format code " + std::to_string(_formatCode));
    setupSaver(format);
    const int dataType = moduleDataType(format);
    if (!dataType)
        throw ImageSaverException(std::string("cannot save pixels of format ") +
                                  std::string(imaging::pixelFormatString(format).view()));
    return _saver->save(std::string(path.view()), rows, dataType);
}

void IImageSaver::save4ub(const String& path, SharedPtr<const imaging::GenImageData<unsigned char, 4>> image) {
    if (!image) throw ImageSaverException("IImageSaver::save4ub: no image");
    ExportData<imaging::PfRGBA8> rows(image);
    saveRows(path, imaging::PfRGBA8, rows);
}

void IImageSaver::save4us(const String& path,
                          SharedPtr<const imaging::GenImageData<unsigned short, 4>> image) {
    if (!image) throw ImageSaverException("IImageSaver::save4us: no image");
    ExportData<imaging::PfRGBA16> rows(image);
    saveRows(path, imaging::PfRGBA16, rows);
}

// ---- the formats ----

ImageSaverJPEG::ImageSaverJPEG() : IImageSaver(SaveModule::FormatJPEG) {
    setParameter("ffm_J_chck_EmbedICC", 0);
}

void ImageSaverJPEG::setICCProfile(SharedPtr<imaging::ColorProfile> profile) {
    setProfileParameter("ffm_J_chck_EmbedICC", std::move(profile));
}

void ImageSaverJPEG::setCompression(int quality) { setParameter("ffm_J_sldr_JPEGQlty", quality); }

ImageSaverTIFF::ImageSaverTIFF() : IImageSaver(SaveModule::FormatTIFF) {
    setParameter("ffm_T_chck_EmbedICC", 0);
}

void ImageSaverTIFF::setICCProfile(SharedPtr<imaging::ColorProfile> profile) {
    setProfileParameter("ffm_T_chck_EmbedICC", std::move(profile));
}

void ImageSaverTIFF::setUseLZW(bool on) { setParameter("ffm_T_rb_UseLZW", on ? 1 : 0); }

void ImageSaverTIFF::setUseZIP(bool on) { setParameter("ffm_T_rb_UseZIP", on ? 1 : 0); }

void ImageSaverTIFF::setupSaver(RawPixelFormat format) {
    const int bits = (int(format) >> 4) & 0xFF;
    setParameter("ffm_T_rb_BitDepth", bits == 0x10 ? 1 : bits == 0x20 ? 2 : 0);
}

ImageSaverOpenEXR::ImageSaverOpenEXR() : IImageSaver(SaveModule::FormatOpenEXR) {}

void ImageSaverOpenEXR::setICCProfile(SharedPtr<imaging::ColorProfile>) {}

void ImageSaverOpenEXR::setupSaver(RawPixelFormat format) {
    setParameter("EXR_SaveFormat_As_qorFormat", moduleDataType(format));
}

}  // namespace qor::imageio
