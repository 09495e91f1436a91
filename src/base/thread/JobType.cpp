#include "base/thread/JobType.h"

namespace qor::thread {

const char* jobTypeName(JobType type) {
    switch (type) {
        case JtTrivial:
            return "trivial";
        case JtGLThread:
            return "GL thread";
        case JtWorker:
            return "worker";
    }
    return "invalid";
}

}  // namespace qor::thread
