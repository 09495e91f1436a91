#pragma once
// TextureOperatorImageSource: a source whose tiles are computed on the GPU. Each output tile is
// the tile of the same place of the input source, drawn through a shader by a TextureOperator
// into a texture tile (TextureImageStorage). The shader is a filter file found through the
// renderer's search paths; it reads the input from the sampler "S0", and the setup function may
// set further uniforms for each tile.
//
// The output tiles live in graphics memory; a caller on any thread reads them as processor
// pixels through getData<RawImageStorage>(), which reads back through a job on the GL thread.
//
// Jobs: the input tile's jobs, then one GPUTileJob (JobType 2, on the GL thread) that uploads the
// input tile when it has no texture yet and draws the output, then the usual cache or notify job
// on a worker.
//
// Thread contract: as ImageSource; the setup function and the shader run on the GL thread.

#include <string>

#include "gpu/TextureOperator.h"
#include "imaging/ImageSource.h"
#include "imaging/ImageSourceJobs.h"
#include "util/Signal.h"

namespace qor::gpu {

class TextureOperatorImageSource : public imaging::ImageSource {
public:
    // Sets the per-tile uniforms: the operator (shader set, "S0" the input texture) and the tile.
    using Setup = Function2<void, TextureOperator&, const Recti&>;

    // The computation of one tile, on the GL thread.
    class GPUTileJob : public imaging::TileComputationJob {
    public:
        GPUTileJob() = default;
        GPUTileJob(const GPUTileJob& other) = default;
        thread::DependentJob* dup() const override { return new GPUTileJob(*this); }
        thread::JobType precondition() override { return thread::JtGLThread; }
    };

    // Throws Exception for a null input or an input format without a GPU form.
    static SharedPtr<TextureOperatorImageSource> create(const SharedPtr<ImageSource>& input,
                                                        const std::string& shaderFile,
                                                        const std::string& defines,
                                                        Setup setup = Setup());
    ~TextureOperatorImageSource() override;

    imaging::TileLayout tileLayout() const override { return _input->tileLayout(); }
    TileGetter computeJobsUnlocked(unsigned int x, unsigned int y, JobSet& jobs,
                                   thread::DependentJobMerger& merger) override;
    void insertDependencies(SourceList& out) const override;

    // The output tile for `input` at `rect`: GL thread; throws std::bad_alloc and
    // RenderTargetException, and Exception when the shader cannot be built.
    SharedPtr<const imaging::ImageTile> computeOnGPU(
        const SharedPtr<const imaging::ImageTile>& input, const Recti& rect);

private:
    TextureOperatorImageSource(const SharedPtr<ImageSource>& input, std::string shaderFile,
                               std::string defines, Setup setup);

    const SharedPtr<ImageSource> _input;
    const std::string _shaderFile;
    const std::string _defines;
    const Setup _setup;
    ScopedConnection _dependeeConnection;
};

}  // namespace qor::gpu
