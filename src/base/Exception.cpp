#include "base/Exception.h"

namespace qor {

CarriedException CarriedException::current() {
    CarriedException carried;
    try {
        throw;
    } catch (const Exception& e) {
        carried._exception = std::shared_ptr<Exception>(e.clone());
    } catch (const std::exception& e) {
        carried._exception = std::make_shared<Exception>(e.what());
    } catch (...) {
        carried._exception = std::make_shared<Exception>("unknown exception");
    }
    return carried;
}

}  // namespace qor
