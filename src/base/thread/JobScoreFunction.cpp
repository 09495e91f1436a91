#include "base/thread/JobScoreFunction.h"

namespace qor::thread {

JobScoreFunction::~JobScoreFunction() = default;

}  // namespace qor::thread
