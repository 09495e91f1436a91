#pragma once
// SaveModule: the writer of one file format. A module is configured by named integer parameters,
// an optional ICC profile and metadata, then pulls the rows of the picture from a RowProvider,
// top to bottom, one at a time, and writes the file. The file is written under a temporary name
// beside the target and renamed when it is complete, so a failed or cancelled save never leaves a
// partial picture under the target name (nor replaces a file that was there).
//
// Thread contract: one module object is used by one thread at a time.

#include <map>
#include <memory>
#include <string>

#include "imageio/ExportData.h"
#include "imageio/Metadata.h"
#include "imaging/ColorProfile.h"
#include "imaging/ImagingException.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::imageio {

// A save that could not be carried out: a bad argument, a module error, a file system error.
class ImageSaverException : public CloneableException<ImageSaverException> {
public:
    using CloneableException<ImageSaverException>::CloneableException;
};

class SaveModule {
public:
    // Format codes of the modules: the four bytes "JPG ", "TIF ", "EXR " as little-endian numbers.
    static constexpr int FormatJPEG = 0x2047504A;
    static constexpr int FormatTIFF = 0x20464954;
    static constexpr int FormatOpenEXR = 0x20525845;

    // The module of `formatCode`; null for an unknown code.
    static std::unique_ptr<SaveModule> create(int formatCode);

    virtual ~SaveModule() = default;

    void setParameter(const std::string& name, int value) { _parameters[name] = value; }
    int parameter(const std::string& name, int fallback) const;
    void setProfile(const SharedPtr<const imaging::ColorProfile>& profile) { _profile = profile; }
    void setMetadata(const SharedPtr<const Metadata>& metadata) { _metadata = metadata; }

    // The module data type the module asks for when the rows come in `dataType`; 0 when it
    // cannot write such rows.
    virtual int acceptedDataType(int dataType) const = 0;
    // Writes `path` from the rows of `rows` in `dataType` (a type acceptedDataType allows).
    // Returns false, with nothing left behind, when the rows end early (a null row: cancelled);
    // throws ImageSaverException for anything else that goes wrong, also with nothing left behind.
    bool save(const std::string& path, RowProvider& rows, int dataType);

protected:
    // Writes the picture to `file` (the temporary name). False when a row came back null.
    virtual bool write(const std::string& file, RowProvider& rows, int dataType) = 0;

    // The ICC profile when embedding is switched on by `embedParameter`, else null.
    SharedPtr<const imaging::ColorProfile> embeddedProfile(const char* embedParameter) const;

    std::map<std::string, int> _parameters;
    SharedPtr<const imaging::ColorProfile> _profile;
    SharedPtr<const Metadata> _metadata;
};

namespace detail {

// The metadata of `metadata` as an EXIF block (TIFF structure, little-endian, without the
// "Exif\0\0" header) and an XMP packet: "tiff:" keys go to the EXIF image directory, "exif:" keys
// to the photo or GPS directory, every other "prefix:Name" key to XMP. With `exif` null, every key
// goes to XMP. Values that the tag's type does not take are left out. Either output may be empty.
void encodeMetadata(const Metadata& metadata, std::string* exif, std::string& xmp);

}  // namespace detail
}  // namespace qor::imageio
