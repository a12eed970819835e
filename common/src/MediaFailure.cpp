#include "MediaFailure.h"

#include <system_error>

namespace Norvane::detail {

void throwMedia(const char* where, const char* module, const std::string& reason, SourceLocation here) {
    MediaException failure(where, 4, module, here.line());
    failure.stringParameter(reason);
    throw failure;
}

void throwMediaErrno(const char* where, const char* module, const std::string& what, int error, SourceLocation here) {
    MediaException failure(where, 4, module, here.line());
    failure.stringParameter(what + ": " + std::generic_category().message(error));
    failure.intParameter(error);
    throw failure;
}

} // namespace Norvane::detail
