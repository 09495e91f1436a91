#pragma once
// The jobs that a tile request is made of. Each does one thing for one tile: compute its pixels
// (TileComputationJob), assemble it from other tiles (TileAssemblyJob), move tiles between
// processor and graphics memory (GenericMemoryTransferJob), put it into the tile cache
// (TileCacheJob) or hand it to the request (TileNotifyJob). TerminatorJob is a marker that does
// nothing.
//
// Identity: compare() decides which jobs DependentJobMerger merges: same class, same source, same
// version and the same tile are the same work.
// Failures: ImageSourceJob::performComputation catches everything that compute() throws and
// records it as an ImagingException type and message, which the request merger reads; nothing
// escapes a job.
//
// Thread contract: a job is built under the full lock of its source graph and then run once, on a
// worker or the GL thread as precondition() says, with no source lock held. Results (getResult,
// getTile) are read after the job has finished, and until the executor drops them.
// Memory: dropResults() lets go of the job's tiles, the getters of its inputs and its dependency
// links. The executor calls it once every job that reads this one has finished, and, for a final
// job of a request, after the request has taken its tiles in the finish callback: a request for
// many tiles holds only the tiles still on their way, not every tile it computed.

#include <map>
#include <vector>

#include "base/thread/DependentJob.h"
#include "container/Array2D.h"
#include "imaging/ImagingException.h"
#include "imaging/PixelFormat.h"
#include "imaging/TileLayout.h"
#include "math/GenRect.h"
#include "math/GenVec.h"
#include "util/Function.h"
#include "util/SharedPtr.h"

namespace qor::imaging {

class ImageSource;
class ImageTile;

using TileGetter = Function0<SharedPtr<const ImageTile>>;

class ImageSourceJob : public thread::DependentJob {
public:
    SharedPtr<ImageSource> targetImage;
    unsigned int version = 0;

    // Runs compute() and records what it throws.
    void performComputation() override;
    // A job never fails towards the executor: the request reads the record instead.
    bool failed() const override { return false; }
    // Drops the dependency links; the derived jobs drop their tiles too.
    void dropResults() override;
    virtual void compute() = 0;

    bool exceptionOccurred() const { return _exceptionOccurred; }
    ImagingException::Type exceptionType() const { return _exceptionType; }
    const FastString<char>& exceptionMessage() const { return _exceptionMessage; }

protected:
    explicit ImageSourceJob(FastString<char> label) : DependentJob(std::move(label)) {}
    ImageSourceJob(const ImageSourceJob& other);

    // Steps 1 to 3 of every compare: class, source, version. 0 when all agree.
    int compareBase(const thread::DependentJob& other) const;

private:
    void record(ImagingException::Type type, const char* message);

    bool _exceptionOccurred = false;
    ImagingException::Type _exceptionType = ImagingException::TypeUnknown;
    FastString<char> _exceptionMessage;
};

// Something that hands finished tiles to a request.
class TileFinishInterface {
public:
    struct TileInfo {
        SharedPtr<ImageSource> source;
        SharedPtr<const ImageTile> tile;
        GenVec<int, 2> pos;
    };
    virtual void getFinishedTiles(std::vector<TileInfo>& out) = 0;
    virtual ~TileFinishInterface() = default;
};

class TileComputationJob : public ImageSourceJob {
public:
    Function2<SharedPtr<const ImageTile>, unsigned int, unsigned int> computeTileFunction;
    GenVec<int, 2> pos;
    SharedPtr<const ImageTile> result;

    TileComputationJob();
    TileComputationJob(const TileComputationJob& other);
    int compare(const thread::DependentJob& other) const override;
    thread::DependentJob* dup() const override { return new TileComputationJob(*this); }
    thread::JobType precondition() override { return thread::JtWorker; }
    unsigned int memoryConsumption() const override;
    FastString<char> toString() const override;
    void compute() override;
    void dropResults() override;

    SharedPtr<const ImageTile> getResult() const { return result; }
};

class TileNotifyJob : public ImageSourceJob, public TileFinishInterface {
public:
    GenVec<int, 2> pos{-1, -1};
    TileGetter inputTile;

    TileNotifyJob();
    TileNotifyJob(const TileNotifyJob& other);
    int compare(const thread::DependentJob& other) const override;
    thread::DependentJob* dup() const override { return new TileNotifyJob(*this); }
    thread::JobType precondition() override { return thread::JtWorker; }
    unsigned int memoryConsumption() const override;
    FastString<char> toString() const override;
    void compute() override;
    void dropResults() override;
    void getFinishedTiles(std::vector<TileInfo>& out) override;

    SharedPtr<const ImageTile> getTile() const { return _tile; }

protected:
    explicit TileNotifyJob(FastString<char> label) : ImageSourceJob(std::move(label)) {}

    SharedPtr<const ImageTile> _tile;
};

class TileCacheJob : public TileNotifyJob {
public:
    Recti rect;

    TileCacheJob();
    TileCacheJob(const TileCacheJob& other) = default;
    thread::DependentJob* dup() const override { return new TileCacheJob(*this); }
    FastString<char> toString() const override;
    void compute() override;
};

class GenericMemoryTransferJob : public ImageSourceJob {
public:
    enum TransferType : int {
        TransferNone = 0,
        TransferToCPU = 1,  // graphics to processor
        TransferToGPU = 2,  // processor to graphics
    };

    // Called with each source tile, in the job's thread; moves it into the wanted memory.
    Function1<void, const SharedPtr<const ImageTile>&> transferFunction;
    std::map<GenVec<int, 2>, TileGetter> sourceTiles;
    std::map<GenVec<int, 2>, SharedPtr<const ImageTile>> sourceTilesCopy;

    GenericMemoryTransferJob();
    GenericMemoryTransferJob(const GenericMemoryTransferJob& other) = default;
    int compare(const thread::DependentJob& other) const override;
    thread::DependentJob* dup() const override { return new GenericMemoryTransferJob(*this); }
    thread::JobType precondition() override;
    FastString<char> toString() const override;
    void compute() override;
    void dropResults() override;

    // The tile at `pos` after compute; logs "it != sourceTilesCopy.end()" when there is none.
    SharedPtr<const ImageTile> getTile(const GenVec<int, 2>& pos) const;
    bool destIsGPU() const { return _destIsGPU; }
    void setDestIsGPU(bool gpu) { _destIsGPU = gpu; }

    // How a tile is found to hold texture data; the GPU layer installs it. Without it no tile
    // counts as being on the card.
    static void setHasTextureQuery(Function1<bool, const ImageTile&> query);
    static bool tileHasTexture(const ImageTile& tile);

protected:
    explicit GenericMemoryTransferJob(FastString<char> label) : ImageSourceJob(std::move(label)) {}
    TransferType getTransferType() const;
    // Transfer of the job's own tiles (the base) or none.
    int compareTransfer(const GenericMemoryTransferJob& other) const;

    bool _destIsGPU = false;
};

class TileAssemblyJob : public GenericMemoryTransferJob {
public:
    GenVec<int, 2> startTile;
    container::Array2D<TileGetter> tileGetters;
    Recti rect;
    SharedPtr<const ImageTile> result;
    TileLayout layout;
    RawPixelFormat format = PfInvalid;

    TileAssemblyJob();
    TileAssemblyJob(const TileAssemblyJob& other) = default;
    int compare(const thread::DependentJob& other) const override;
    thread::DependentJob* dup() const override { return new TileAssemblyJob(*this); }
    thread::JobType precondition() override;
    unsigned int memoryConsumption() const override;
    FastString<char> toString() const override;
    void compute() override;
    void dropResults() override;

    SharedPtr<const ImageTile> getResult() const { return result; }

protected:
    explicit TileAssemblyJob(FastString<char> label)
        : GenericMemoryTransferJob(std::move(label)) {}
    // The tiles of tileGetters, in their array.
    container::Array2D<SharedPtr<const ImageTile>> fetchTiles() const;
    // Builds the result from the fetched tiles; the assembly job copies the region.
    virtual SharedPtr<const ImageTile> assemble();

    TransferType _transferType = TransferNone;
};

class TerminatorJob : public thread::DependentJob {
public:
    TerminatorJob();
    TerminatorJob(const TerminatorJob& other) : DependentJob(other) {}
    int compare(const thread::DependentJob& other) const override;
    thread::DependentJob* dup() const override { return new TerminatorJob(*this); }
    thread::JobType precondition() override { return thread::JtTrivial; }
    FastString<char> toString() const override;
    void performComputation() override {}
};

}  // namespace qor::imaging
