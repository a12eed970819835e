#include "SocketFailure.h"

#include <cerrno>
#include <system_error>

namespace Norvane::detail {

void throwSocket(const char* where, const char* module, const std::string& reason, SourceLocation here) {
    SocketException failure(where, 4, module, here.line());
    failure.stringParameter(reason);
    throw failure;
}

void throwSocketErrno(const char* where, const char* module, const std::string& what, int error, SourceLocation here) {
    if (error == ENOTCONN) {
        SocketException failure(where, 1, module, here.line());
        failure.stringParameter("not connected");
        throw failure;
    }
    SocketException failure(where, 4, module, here.line());
    failure.stringParameter((what.empty() ? what : what + ": ") + std::generic_category().message(error));
    failure.intParameter(error);
    throw failure;
}

} // namespace Norvane::detail
