#pragma once
// The link by which a derived source hears of version changes of a source it reads: connected to
// the input's OnCollectDependees, it adds the derived source to the collected dependees while that
// source is alive. The slot holds the derived source weakly, so the link never keeps it alive, and
// a source that is being destroyed is simply not collected.

#include "imaging/ImageSource.h"

namespace qor::imaging::detail {

// Connects `dependee` to the dependee signal of `input`; the connection ends with the result.
inline ScopedConnection linkDependee(ImageSource& input,
                                     const WeakSharedPtr<ImageSource>& dependee) {
    return ScopedConnection(
        input.OnCollectDependees.connect([dependee](ImageSource::SourceList& out) {
            if (SharedPtr<ImageSource> source = dependee.lock()) out.push_back(source);
        }));
}

}  // namespace qor::imaging::detail
