#include "base/Failure.h"

#include <norvcmsg/Escape.h>

#include <new>
#include <system_error>
#include <unistd.h>

namespace norvcrypt {

Failure::Failure(const std::string& text, int error)
    : std::runtime_error(text + ": " + std::generic_category().message(error)) {}

Exit exitOf(const Failure& failure) noexcept {
    return dynamic_cast<const Refusal*>(&failure) != nullptr ? Exit::refused : Exit::failed;
}

Told toldOfException() {
    try {
        throw;
    } catch (const Norvane::Exception& failure) {
        return {.exit = Exit::failed, .text = inPlainWords(failure)};
    } catch (const Failure& failure) {
        return {.exit = exitOf(failure), .text = failure.what()};
    } catch (const std::bad_alloc&) {
        return {.exit = Exit::failed, .text = "out of memory"};
    } catch (const std::exception& failure) {
        return {.exit = Exit::failed, .text = failure.what()};
    }
}

void reportError(const std::string& text) {
    // One call, so that lines of processes that share a terminal stay whole; nobody is left to tell when it fails.
    const std::string line = "norvcrypt: " + Norvane::escapeForDisplay(text) + "\n";
    static_cast<void>(!write(STDERR_FILENO, line.data(), line.size()));
}

} // namespace norvcrypt
