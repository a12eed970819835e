// The configuration file of the mail filter: a value, or an error that names what is wrong with it in lines that may be shown.
#include "Driver.h"

#include "config/Config.h"

#include <norvcmsg/Escape.h>

#include <string>
#include <string_view>

using namespace norvmilter;

namespace {

/// As Text of the errors' lines: "FILE:LINE: ...".
void checkError(const std::string& text) {
    fuzz::require(!text.empty());
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        const std::string line(rest.substr(0, end));
        fuzz::require(Norvane::isDisplayable(line) && line.rfind("/etc/milter.toml", 0) == 0);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
}

void ask(const Config& config) {
    fuzz::require(!config.milter.socket.empty() && !config.milter.authservId.empty());
    for (const DirectionRule& rule : config.directions) {
        for (const Network& network : rule.networks) {
            fuzz::require(network.octets.size() == 4 || network.octets.size() == 16);
            fuzz::require(network.bits <= 8 * network.octets.size());
            static_cast<void>(network.contains("192.0.2.1"));
            static_cast<void>(network.contains("2001:db8::1"));
        }
        static_cast<void>(rule.title());
    }
    for (const SenderRule& rule : config.senders) {
        static_cast<void>(rule.authenticated.matches("office"));
        static_cast<void>(rule.envelope.matches("alice@a.example"));
    }
    for (const OutgoingRule& rule : config.outgoing.rules) {
        static_cast<void>(rule.title());
        static_cast<void>(rule.sender.matches("alice@a.example"));
        static_cast<void>(rule.recipient.matches("\"bob\"@b\xC3\xBC"
                                                 "cher.example."));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Norvane::Buffer& input) {
        try {
            ask(Config::parse(fuzz::text(input), "/etc/milter.toml"));
        } catch (const ConfigError& error) {
            checkError(error.what());
        }
    });
}
