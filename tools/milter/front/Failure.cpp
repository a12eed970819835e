#include "front/Failure.h"

#include <norvcmsg/Exception.h>

#include <exception>
#include <new>

namespace norvmilter {

std::string currentFailure() {
    try {
        throw;
    } catch (const Norvane::Exception& known) {
        return known.asString();
    } catch (const std::bad_alloc&) {
        return "out of memory";
    } catch (const std::exception& known) {
        return known.what();
    }
}

} // namespace norvmilter
