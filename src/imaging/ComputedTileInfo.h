#pragma once
// What a tile request reports to its caller: ComputedTileInfo (one tile is ready, or the request
// has ended, and how), ErrorDescription (the failure that the synchronous road rethrows), and
// RequestHandle (the caller's handle on a running request, to cancel it).

#include "imaging/ImagingException.h"
#include "math/GenVec.h"
#include "text/FastString.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

class ImageSource;
class ImageTile;

struct ComputedTileInfo {
    enum InfoType : int {
        TileReady = 0,     // `tile` at `pos` is ready
        RequestEnded = 1,  // the request is over; `status` says how
    };
    enum Status : int {
        Success = 0,
        Cancelled = 1,
        Outdated = 2,
        Error = 3,
    };

    InfoType type = TileReady;
    Status status = Success;
    SharedPtr<ImageSource> source;
    SharedPtr<const ImageTile> tile;
    // Column and row of the tile; (-2, -2) in a new record, (-1, -1) when a request ends outdated
    // or cancelled.
    GenVec<int, 2> pos{-2, -2};
    ImagingException::Type errorType = ImagingException::TypeUnknown;
    FastString<char> errorMessage;
};

// The failure of a synchronous request, filled by its callback and rethrown by the waiter.
struct ErrorDescription {
    bool errorOccurred = false;
    ImagingException::Type type = ImagingException::TypeUnknown;
    FastString<char> message;
};

// A running request. Thread-safe: any member from any thread, including from inside the request's
// own callbacks.
class RequestHandle {
public:
    virtual ~RequestHandle() = default;
    // True once the request has delivered everything, or has gone.
    virtual bool finished() const = 0;
    // Withdraws this caller: it gets a Cancelled end record and nothing more. The work stops when no
    // caller is left.
    virtual void cancel() = 0;
    virtual bool cancelled() const = 0;
    // The source asked, or null once the request has gone.
    virtual SharedPtr<ImageSource> source() const = 0;
};

}  // namespace qor::imaging
