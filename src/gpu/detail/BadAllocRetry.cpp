#include "gpu/detail/BadAllocRetry.h"

#include <new>
#include <string_view>

#include "base/Log.h"
#include "gpu/GPUBadAlloc.h"
#include "gpu/Renderer.h"
#include "imaging/ImageMemoryManager.h"
#include "imaging/ImageStorageManager.h"

namespace qor::gpu::detail {

void makeRoomInGPUMemory(std::uint64_t bytes, bool freeImageMemory) {
    if (freeImageMemory) imaging::ImageMemoryManager::freeUnlocked();
    imaging::ImageStorageManager* manager = imaging::ImageStorageManager::instance();
    manager->setMemoryLimitToCurrentConsumption(imaging::SaGPU);
    manager->discard(imaging::SaGPU, bytes);
    if (SharedPtr<Renderer> r = renderer()) r->clearTextureCache();
}

void runWithGPURetry(const Function0<void>& work, std::uint64_t bytes, bool freeImageMemory,
                     const RetryTexts& texts) {
    const bool takesText = std::string_view(texts.caught).find("%*") != std::string_view::npos;
    for (int attempt = 0; attempt < MaxGPUAttempts; ++attempt) {
        try {
            work();
            return;
        } catch (const std::bad_alloc& e) {
            if (takesText)
                QOR_LOG(LogError, texts.caught, e.what());
            else
                QOR_LOG(LogError, texts.caught);
            makeRoomInGPUMemory(bytes, freeImageMemory);
        }
    }
    QOR_LOG(LogError, texts.lastLog);
    throw GPUBadAlloc(texts.lastThrow);
}

}  // namespace qor::gpu::detail
