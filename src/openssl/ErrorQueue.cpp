#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

#include <cstdint>
#include <cstring>
#include <locale>
#include <new>
#include <sstream>

namespace Norvane::Crypto::openssl {

namespace {

/// The reason text. System errors carry an errno instead of a registered reason.
const char* reasonText(unsigned long code) {
    if (ERR_SYSTEM_ERROR(code)) {
        return strerrordesc_np(ERR_GET_REASON(code));
    }
    return ERR_reason_error_string(code);
}

/// Writes a text as a C++ stream of old did: a null one puts the stream into its failed state, so that nothing follows.
void put(std::ostream& out, const char* text) {
    if (text == nullptr) {
        out.setstate(std::ios_base::badbit);
        return;
    }
    out << text;
}

} // namespace

std::string drainErrorQueue() {
    std::ostringstream text;
    text.imbue(std::locale::classic()); // the host's locale must not group the digits of a code
    const char* file = nullptr;
    const char* function = nullptr;
    const char* data = nullptr;
    int line = 0;
    int flags = 0;
    unsigned long code = 0;
    while ((code = ERR_get_error_all(&file, &line, &function, &data, &flags)) != 0) {
        text << "0x" << std::hex << static_cast<std::uint32_t>(code) << ": ";
        put(text, ERR_lib_error_string(code));
        text << " / ";
        put(text, function != nullptr && *function != '\0' ? function : nullptr);
        text << " / ";
        put(text, reasonText(code));
        text << "; ";
    }
    return text.str();
}

void queueError(const char* function, int library, int reason, const char* file, int line) {
    ERR_new();
    ERR_set_debug(file, line, function);
    ERR_set_error(library, reason, nullptr);
}

ErrorMark::ErrorMark() noexcept : m_onlyOurs(ERR_peek_error() == 0) {
    ERR_set_mark();
}

ErrorMark::~ErrorMark() {
    ERR_pop_to_mark();
}

bool ErrorMark::ranOutOfMemory() const noexcept {
    if (!m_onlyOurs) {
        return ERR_GET_REASON(ERR_peek_last_error()) == ERR_R_MALLOC_FAILURE;
    }
    bool told = false;
    while (const unsigned long code = ERR_get_error()) {
        told = told || ERR_GET_REASON(code) == ERR_R_MALLOC_FAILURE;
    }
    return told;
}

void ErrorMark::throwWithoutMemory() const {
    if (ranOutOfMemory()) {
        throw std::bad_alloc();
    }
}

} // namespace Norvane::Crypto::openssl
