#pragma once

/// \file
/// What the operator wrote: the configuration file as a value. docs/gateway-configuration.md and norvcrypt-milter.toml explain
/// each key; the members here have the names of the keys.
///
/// \code
/// const auto config = std::make_shared<const Config>(Config::load("/etc/norvcrypt/milter.toml"));
/// \endcode
///
/// A value without behaviour, which any number of threads may read.

#include "config/AddressPattern.h"

#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto-trust/TrustVerdict.h>

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace norvmilter {

/// The file cannot be used. The text has a line for each thing that is wrong with it: "FILE:LINE: KEY: what", escaped.
class ConfigError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Which way a message goes.
enum class Direction { incoming, outgoing, ignore };
/// Whether something is done with a message.
enum class Wish { never, possible, must };
/// What becomes of a message that cannot be judged for its size.
enum class TooLarge { pass, reject, tempfail };
/// What becomes of one message whose recipients must not all have the same.
enum class Mixed { separate, reject };
/// What becomes of what is wrong, where a policy may let it pass.
enum class Refusal { reject, pass };
/// What is delivered after decrypting.
enum class Deliver { content, asSigned };
enum class LogTarget { standardError, syslog };
enum class LogLevel { error, warning, info, debug };

/// "incoming", as in the file.
[[nodiscard]] const char* nameOf(Direction direction) noexcept;
[[nodiscard]] const char* nameOf(Wish wish) noexcept;
/// "aes-256-gcm"
[[nodiscard]] const char* nameOf(Norvane::Crypto::CMS::ContentCipher cipher) noexcept;

/// A range of addresses: "192.0.2.0/24".
struct Network {
    std::string octets; ///< 4 or 16
    unsigned int bits = 0;
    std::string text; ///< as it stands in the file

    /// Whether an address is in it; an IPv6 address that maps an IPv4 one counts as that. False for what is no address.
    [[nodiscard]] bool contains(const std::string& address) const;
};
/// \throws std::invalid_argument with what is wrong
[[nodiscard]] Network networkOf(const std::string& text);

/// [[direction]]: all conditions that are there have to fit.
struct DirectionRule {
    std::string listener;      ///< empty: any
    std::string authenticated; ///< a pattern; empty: whoever, nobody included. "*": anybody who authenticated
    std::vector<Network> networks;
    Direction direction = Direction::incoming;
    unsigned int line = 0;

    [[nodiscard]] std::string title() const; ///< "direction in line 12"
};

/// [[sender]]: whose From addresses somebody may use.
struct SenderRule {
    NamePattern authenticated{"*"};   ///< of {auth_authen}; "*" takes those in who did not authenticate
    AddressPattern envelope{"*"};     ///< of the envelope's sender
    std::vector<AddressPattern> from; ///< the addresses that may stand in From
    unsigned int line = 0;
};

/// [[outgoing.rule]]
struct OutgoingRule {
    std::string name;
    AddressPattern sender{"*"};    ///< of the address in From
    AddressPattern recipient{"*"}; ///< of the envelope's recipient
    Wish sign = Wish::possible;
    Wish encrypt = Wish::never;
    Mixed mixed = Mixed::separate;
    Norvane::Crypto::SMime::SigningForm form = Norvane::Crypto::SMime::SigningForm::multipartSigned;
    Norvane::Crypto::CMS::ContentCipher cipher = Norvane::Crypto::CMS::ContentCipher::aes256Cbc;
    bool oaep = false;
    bool pss = false;
    bool protectHeader = false;
    bool encryptToSender = false;
    unsigned int line = 0; ///< 0: the rule that holds where none fits

    [[nodiscard]] std::string title() const; ///< "partners (line 40)", "no rule fits"
};

struct Config {
    /// Reads a file. \throws ConfigError
    [[nodiscard]] static Config load(const std::string& path);
    /// Reads a text. \param path for messages; relative paths in the text are taken from its folder. \throws ConfigError
    [[nodiscard]] static Config parse(std::string_view text, const std::string& path);

    std::string path; ///< of the file itself

    struct Milter {
        std::string socket; ///< "unix:/run/norvcrypt-milter/milter.sock", "inet:8891@127.0.0.1", "inet6:8891@::1"
        mode_t socketMode = 0660;
        std::string authservId;
        std::string spool;             ///< empty: the system's folder for temporary files
        std::string pidFile;           ///< empty: none
        unsigned int timeout = 60;     ///< seconds that the MTA may be silent
        unsigned int stopTimeout = 60; ///< seconds that a stop waits for messages in hand
    } milter;

    struct Limits {
        std::uint64_t messageBytes = 104857600; ///< of header and body
        unsigned int connections = 100;
        unsigned int secondsPerMessage = 60;    ///< 0: no limit
        std::uint64_t memoryBytes = 1073741824; ///< 0: no limit
        unsigned int recipients = 1000;
        TooLarge tooLarge = TooLarge::pass;
    } limits;

    struct Store {
        std::string directory; ///< empty: no keys
    } store;

    struct TrustPart {
        std::vector<std::string> anchors;
        std::vector<std::string> untrusted;
        std::vector<std::string> lists;
        std::string listCache; ///< empty: none
        Norvane::Crypto::Trust::Revocation revocation = Norvane::Crypto::Trust::Revocation::none;
        unsigned int minimumRsaBits = 2048;
        bool atSigningTime = false;
    } trust;

    struct Learn {
        bool enabled = false;
        std::string folder;
        unsigned int perAddress = 4;
        unsigned int total = 100000;
    } learn;

    std::vector<DirectionRule> directions;
    std::vector<SenderRule> senders;

    struct Outgoing {
        Refusal noKey = Refusal::pass;
        Refusal senderMismatch = Refusal::reject;
        std::string submit;                       ///< "smtp://127.0.0.1:10026"; empty: nothing can be submitted
        unsigned int separateMessages = 50;       ///< that one message is split into at most
        std::uint64_t separateBytes = 1073741824; ///< that those have together at most
        std::vector<OutgoingRule> rules;
    } outgoing;

    struct Incoming {
        bool decrypt = true;
        bool verify = true;
        Deliver deliver = Deliver::asSigned;
        bool clientHeaders = false;
        bool announceNone = false;
        std::set<std::string> refuse; ///< of "fail", "policy", "permerror"
    } incoming;

    struct Metrics {
        std::string socket; ///< empty: none
    } metrics;

    struct Log {
        LogTarget target = LogTarget::standardError;
        LogLevel level = LogLevel::info;
    } log;
};

} // namespace norvmilter
