#pragma once
// IImageSaver: one file format's saver object, the link between ImageSaver (or a caller with a
// whole picture) and the format's SaveModule. It carries the format's parameters, the ICC profile
// and the metadata, and runs the module over a row source.
//
// ImageSaverJPEG, ImageSaverTIFF and ImageSaverOpenEXR are the three formats. Their parameters:
//   JPEG: "ffm_J_chck_EmbedICC" (0/1), "ffm_J_sldr_JPEGQlty" (0 to 100)
//   TIFF: "ffm_T_chck_EmbedICC" (0/1), "ffm_T_rb_UseLZW", "ffm_T_rb_UseZIP" (0/1),
//         "ffm_T_rb_BitDepth" (0: 8 bits, 1: 16 bits, 2: 32 bits, from the pixel format)
//   OpenEXR: "EXR_SaveFormat_As_qorFormat" (the row data type of the pixel format); no profile.
//
// Thread contract: a saver object is used by one save at a time; its setters are called before.

#include <map>
#include <memory>

#include "imageio/ExportData.h"
#include "imageio/Metadata.h"
#include "imaging/ColorProfile.h"
#include "imaging/GenImageData.h"
#include "imaging/PixelFormat.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

class SaveModule;

class IImageSaver {
public:
    using String = FastString<char>;

    // Makes the module of `formatCode`; an unknown code leaves it missing (setters then assert
    // "_saver" and do nothing, saves throw ImageSaverException).
    explicit IImageSaver(int formatCode);
    virtual ~IImageSaver();
    IImageSaver(const IImageSaver&) = delete;
    IImageSaver& operator=(const IImageSaver&) = delete;

    // Whole pictures, RGBA. Throw ImageSaverException when the file cannot be written.
    virtual void save4ub(const String& path, SharedPtr<const imaging::GenImageData<unsigned char, 4>> image);
    virtual void save4us(const String& path, SharedPtr<const imaging::GenImageData<unsigned short, 4>> image);
    virtual void setMetadata(const SharedPtr<Metadata>& metadata);
    // A raw map ("prefix:Name" keys); null clears the metadata.
    virtual void setMetadata(const std::map<String, String>* raw);
    virtual void setICCProfile(SharedPtr<imaging::ColorProfile> profile) = 0;
    // Prepares the module for rows of `format`.
    virtual void setupSaver(imaging::RawPixelFormat format);

    // setupSaver(format), then the module writes `path` from `rows`. False when the rows ended
    // early (cancelled): no file is left. Throws ImageSaverException for a format the module
    // cannot write and for any failure of the module.
    bool saveRows(const String& path, imaging::RawPixelFormat format, RowProvider& rows);

    int formatCode() const { return _formatCode; }

protected:
    // Sets a module parameter; asserts "_saver" and does nothing when the module is missing.
    void setParameter(const char* name, int value);
    // Keeps `profile` for embedding and sets `embedParameter` to 1 with a profile, else 0.
    void setProfileParameter(const char* embedParameter, SharedPtr<imaging::ColorProfile> profile);

    std::unique_ptr<SaveModule> _saver;

private:
    const int _formatCode;
};

class ImageSaverJPEG : public IImageSaver {
public:
    ImageSaverJPEG();
    void setICCProfile(SharedPtr<imaging::ColorProfile> profile) override;
    // The quality, 0 to 100.
    void setCompression(int quality);
};

class ImageSaverTIFF : public IImageSaver {
public:
    ImageSaverTIFF();
    void setICCProfile(SharedPtr<imaging::ColorProfile> profile) override;
    void setUseLZW(bool on);
    void setUseZIP(bool on);
    void setupSaver(imaging::RawPixelFormat format) override;
};

class ImageSaverOpenEXR : public IImageSaver {
public:
    ImageSaverOpenEXR();
    // OpenEXR holds linear light: the profile is ignored.
    void setICCProfile(SharedPtr<imaging::ColorProfile> profile) override;
    void setupSaver(imaging::RawPixelFormat format) override;
};

}  // namespace qor::imageio
