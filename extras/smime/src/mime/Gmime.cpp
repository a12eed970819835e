#include "Gmime.h"

#include <string_view>

namespace Norvane::Crypto::SMime::mime {

namespace {

/// The longest ones that are known have twenty octets.
constexpr std::size_t longestParameterName = 40;

} // namespace

void startGmime() {
    // No std::call_once: through its frame of C nothing can be thrown in a program that carries its own unwinder, as the
    // tool's stand-in for this function does where GMime is not installed.
    [[maybe_unused]] static const bool started = [] {
        g_mime_init();
        return true;
    }();
}

bool haveShortNames(GMimeParamList* parameters) noexcept {
    for (int index = 0; index < g_mime_param_list_length(parameters); ++index) {
        const std::string_view name = g_mime_param_get_name(g_mime_param_list_get_parameter_at(parameters, index));
        if (name.size() > longestParameterName) {
            return false;
        }
    }
    return true;
}

} // namespace Norvane::Crypto::SMime::mime
