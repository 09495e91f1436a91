#include "base/thread/RunLogged.h"

#include <exception>

#include "base/Log.h"

namespace qor::thread {

bool runLogged(const Function0<void>& fn, const char* who) {
    try {
        fn();
        return true;
    } catch (const std::exception& e) {
        QOR_LOG(LogError, "%* terminated with an exception: %*", who, e.what());
    } catch (...) {
        QOR_LOG(LogError, "%* terminated with an unknown exception", who);
    }
    return false;
}

}  // namespace qor::thread
