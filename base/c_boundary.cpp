#include "base/c_boundary.h"

#include <new>
#include <system_error>

namespace ulmo {

int errno_of_exception() noexcept {
    try {
        throw;
    } catch (const std::system_error &error) {
        return error.code().value();
    } catch (const std::bad_alloc &) {
        return ENOMEM;
    } catch (...) {
        return EIO;
    }
}

} // namespace ulmo
