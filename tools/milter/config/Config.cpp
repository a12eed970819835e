#include "config/Config.h"

namespace norvmilter {

Config Config::load(const std::string& path) {
    throw ConfigError(path + ": not yet");
}

Config Config::parse(std::string_view text, const std::string& path) {
    throw ConfigError(path + ": not yet " + std::string(text.substr(0, 1)));
}

} // namespace norvmilter
