#include "gpu/TextureOperatorImageSource.h"

#include <typeinfo>

#include "base/Exception.h"
#include "base/Log.h"
#include "gpu/TextureImageStorage.h"
#include "imaging/ImageTile.h"
#include "imaging/detail/DependeeLink.h"

namespace qor::gpu {

using namespace imaging;

SharedPtr<TextureOperatorImageSource> TextureOperatorImageSource::create(
    const SharedPtr<ImageSource>& input, const std::string& shaderFile,
    const std::string& defines, Setup setup) {
    if (!input) throw Exception("TextureOperatorImageSource: no input source");
    if (!isTextureStorageFormat(input->pixelFormat()))
        throw Exception(formatLog("TextureOperatorImageSource: format %* has no texture form",
                                  pixelFormatString(input->pixelFormat())));
    auto* s = new TextureOperatorImageSource(input, shaderFile, defines, std::move(setup));
    auto self = std::static_pointer_cast<TextureOperatorImageSource>(s->setupSelfRef());
    self->_dependeeConnection = imaging::detail::linkDependee(*input, self);
    return self;
}

TextureOperatorImageSource::TextureOperatorImageSource(const SharedPtr<ImageSource>& input,
                                                       std::string shaderFile,
                                                       std::string defines, Setup setup)
    : ImageSource(input->size(), input->pixelFormat(), input->getDrawParameters()),
      _input(input),
      _shaderFile(std::move(shaderFile)),
      _defines(std::move(defines)),
      _setup(std::move(setup)) {}

TextureOperatorImageSource::~TextureOperatorImageSource() { _dependeeConnection.disconnect(); }

void TextureOperatorImageSource::insertDependencies(SourceList& out) const {
    out.push_back(_input);
}

ImageSource::TileGetter TextureOperatorImageSource::computeJobsUnlocked(
    unsigned int x, unsigned int y, JobSet& jobs,
    thread::DependentJobMerger& merger) QOR_NO_THREAD_SAFETY_ANALYSIS {
    static const FastString<char> name("TextureOperatorImageSource");
    const TileIndex pos{int(x), int(y)};
    const Recti rect = getTileRect(pos.x, pos.y);
    if (TileGetter cached = checkCachedTileUnlocked(jobs, merger, rect, name)) return cached;
    SharedPtr<TileNotifyJob> notifyJob;
    TileGetter existing = createNotifyJobUnlocked(jobs, merger, &notifyJob, pos, rect, name);
    if (!notifyJob) return existing;

    auto job = std::make_shared<GPUTileJob>();
    job->targetImage = selfRef();
    QOR_ASSERT_TEXT(job->targetImage, "job->targetImage");
    job->version = versionUnlocked();
    job->pos = pos;
    job->setCreatorName(typeid(*this).name());
    JobSet inputJobs;
    TileGetter input = _input->computeJobsUnlocked(x, y, inputJobs, merger);
    TextureOperatorImageSource* self = this;
    job->computeTileFunction = [self, input, rect](unsigned int, unsigned int) {
        return self->computeOnGPU(input ? input() : nullptr, rect);
    };
    auto merged = std::static_pointer_cast<GPUTileJob>(merger.merge(job));
    if (merged == job)
        for (const JobPtr& dependency : inputJobs) job->addDependency(dependency);
    return mergeWithNotifyJobUnlocked(jobs, merger, notifyJob, JobPtr(merged),
                                      [merged] { return merged->getResult(); });
}

SharedPtr<const ImageTile> TextureOperatorImageSource::computeOnGPU(
    const SharedPtr<const ImageTile>& input, const Recti& rect) {
    SharedPtr<Renderer> r = renderer();
    if (!r || !r->isValidRenderThread()) {
        QOR_ASSERT_TEXT(r && r->isValidRenderThread(), "renderer()->isValidRenderThread()");
        throw ImagingException(ImagingException::TypeGPU,
                               "TextureOperatorImageSource: no renderer on this thread");
    }
    if (!input || !input->valid())
        throw Exception("TextureOperatorImageSource: the input tile is missing");
    SharedPtr<TextureImageStorage> source = textureStorage(input);
    if (!source || !source->texture())
        throw ImagingException(ImagingException::TypeGPU,
                               "TextureOperatorImageSource: the input tile has no texture");
    const DrawParameters params = getDrawParameters();
    SharedPtr<ImageTile> tile = ImageTile::create(rect.size(), pixelFormat(), params);
    auto* storage = new TextureImageStorage(rect.size(), pixelFormat(), tile, params);
    tile->setData(storage);  // the tile owns it from here

    TextureOperator op(storage->target(), Recti(rect.size()));
    op.setShader(r->createShader(_shaderFile, _defines));
    op.setTexCoords(source->texture()->texCoords());
    op.setUniform("S0", source->texture());
    if (_setup) _setup(op, rect);
    SharedPtr<Drawer> drawer = op.start();
    try {
        op.execute(drawer);
    } catch (...) {
        op.finish(drawer);
        throw;
    }
    op.finish(drawer);
    return tile;
}

}  // namespace qor::gpu
