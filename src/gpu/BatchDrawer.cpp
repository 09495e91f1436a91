#include "gpu/BatchDrawer.h"

#include "base/Log.h"

namespace qor::gpu {

void BatchDrawer::setDrawer(const SharedPtr<Drawer>& drawer) {
    flushAll();
    ForwardingDrawer::setDrawer(drawer);
}

void BatchDrawer::begin() {
    QOR_ASSERT_TEXT(_tex2dBatch._flushed && _tex4dBatch._flushed,
                    "_tex2dBatch._flushed && _tex4dBatch._flushed");
    QOR_ASSERT_TEXT(_tex2dBatch._indices.empty() && _tex4dBatch._indices.empty(),
                    "_tex2dBatch._indices.empty() && _tex4dBatch._indices.empty()");
    QOR_ASSERT_TEXT(_tex2dBatch._points.empty() && _tex4dBatch._points.empty(),
                    "_tex2dBatch._points.empty() && _tex4dBatch._points.empty()");
}

void BatchDrawer::drawArray(Primitive primitive, const Points& points, const TexCoords2& texCoords,
                            const Colors& colors, const ShadingState& state) {
    append(_tex2dBatch, _tex4dBatch, primitive, points, texCoords, colors, nullptr, state);
}

void BatchDrawer::drawArray(Primitive primitive, const Points& points, const TexCoords4& texCoords,
                            const Colors& colors, const ShadingState& state) {
    append(_tex4dBatch, _tex2dBatch, primitive, points, texCoords, colors, nullptr, state);
}

void BatchDrawer::drawIndices(Primitive primitive, const Points& points,
                              const TexCoords2& texCoords, const Colors& colors,
                              const Indices& indices, const ShadingState& state) {
    append(_tex2dBatch, _tex4dBatch, primitive, points, texCoords, colors, &indices, state);
}

void BatchDrawer::drawIndices(Primitive primitive, const Points& points,
                              const TexCoords4& texCoords, const Colors& colors,
                              const Indices& indices, const ShadingState& state) {
    append(_tex4dBatch, _tex2dBatch, primitive, points, texCoords, colors, &indices, state);
}

void BatchDrawer::flushAll() {
    flush(_tex2dBatch);
    flush(_tex4dBatch);
}

template <class TexCoord, class Other>
void BatchDrawer::append(Batch<TexCoord>& batch, Batch<Other>& other, Primitive primitive,
                         const Points& points, const std::vector<TexCoord>& texCoords,
                         const Colors& colors, const Indices* indices, const ShadingState& state) {
    const bool parallel = (texCoords.empty() || texCoords.size() == points.size()) &&
                          (colors.empty() || colors.size() == points.size());
    QOR_ASSERT_TEXT(parallel, "texCoords and colors run in parallel with points");
    const bool known =
        primitive == PrimTriangles || primitive == PrimLines || primitive == PrimLineStrip;
    QOR_ASSERT_TEXT(known, "0");
    if (!parallel || !known || points.empty()) return;

    flush(other);
    // Line strips join the batch as pairs of points.
    const Primitive kind = primitive == PrimTriangles ? PrimTriangles : PrimLines;
    if (!batch._points.empty() && (batch._state != state || batch._primitive != kind)) flush(batch);
    batch._state = state;
    batch._primitive = kind;
    batch._flushed = false;

    const auto base = std::uint32_t(batch._points.size());
    batch._points.insert(batch._points.end(), points.begin(), points.end());
    if (!texCoords.empty()) {
        batch._hasTexCoords = true;
        batch._texCoords.insert(batch._texCoords.end(), texCoords.begin(), texCoords.end());
    } else {
        batch._texCoords.resize(batch._points.size());
    }
    if (!colors.empty())
        batch._colors.insert(batch._colors.end(), colors.begin(), colors.end());
    else
        batch._colors.resize(batch._points.size(), state.color);

    if (indices) {
        if (primitive == PrimLineStrip) {
            for (std::size_t i = 0; i + 1 < indices->size(); ++i) {
                batch._indices.push_back(base + (*indices)[i]);
                batch._indices.push_back(base + (*indices)[i + 1]);
            }
        } else {
            for (std::uint32_t i : *indices) batch._indices.push_back(base + i);
        }
    } else if (primitive == PrimLineStrip) {
        for (std::uint32_t i = 0; i + 1 < points.size(); ++i) {
            batch._indices.push_back(base + i);
            batch._indices.push_back(base + i + 1);
        }
    } else {
        for (std::uint32_t i = 0; i < points.size(); ++i) batch._indices.push_back(base + i);
    }
}

template <class TexCoord>
void BatchDrawer::flush(Batch<TexCoord>& batch) {
    if (!batch._points.empty() && _drawer) {
        const std::vector<TexCoord> none;
        _drawer->drawIndices(batch._primitive, batch._points,
                             batch._hasTexCoords ? batch._texCoords : none, batch._colors,
                             batch._indices, batch._state);
    }
    batch._points.clear();
    batch._texCoords.clear();
    batch._colors.clear();
    batch._indices.clear();
    batch._hasTexCoords = false;
    batch._flushed = true;
}

}  // namespace qor::gpu
