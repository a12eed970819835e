#include "trust/TrustOptions.h"
#include "base/Failure.h"

#include <norvcrypto-trust/TrustSender.h>

#include <algorithm>
#include <array>
#include <string_view>

namespace norvcrypt {

namespace Trust = Norvane::Crypto::Trust;

namespace {

constexpr const char* signingTime = "signing-time";

/// The names of an enumeration's values from the first to the last.
template <class Enum> std::vector<std::string> names(Enum first, Enum last) {
    std::vector<std::string> all;
    for (int value = static_cast<int>(first); value <= static_cast<int>(last); ++value)
        all.emplace_back(Trust::nameOf(static_cast<Enum>(value)));
    return all;
}

/// The value of that name, which the parser has checked.
template <class Enum> Enum valueOf(const std::vector<std::string>& all, const std::string& name) {
    return static_cast<Enum>(std::find(all.begin(), all.end(), name) - all.begin());
}

std::vector<std::string> revocations() {
    return names(Trust::Revocation::none, Trust::Revocation::required);
}

/// Those that a user may ask for, in the order of their numbers.
std::vector<std::string> purposes() {
    return names(Trust::Purpose::any, Trust::Purpose::encrypt);
}

bool fits(std::string_view text, std::string_view pattern) {
    return text.size() == pattern.size() &&
           std::equal(text.begin(), text.end(), pattern.begin(), [](char character, char wanted) {
               return wanted == '0' ? character >= '0' && character <= '9' : character == wanted;
           });
}

int number(const std::string& text, std::size_t at, std::size_t length) {
    return std::stoi(text.substr(at, length));
}

} // namespace

std::optional<std::time_t> momentOf(const std::string& text) {
    const bool withTime = fits(text, "0000-00-00T00:00:00Z");
    if (!withTime && !fits(text, "0000-00-00"))
        return std::nullopt;
    std::tm wanted{};
    wanted.tm_year = number(text, 0, 4) - 1900;
    wanted.tm_mon = number(text, 5, 2) - 1;
    wanted.tm_mday = number(text, 8, 2);
    if (withTime) {
        wanted.tm_hour = number(text, 11, 2);
        wanted.tm_min = number(text, 14, 2);
        wanted.tm_sec = number(text, 17, 2);
    }
    // A day or hour that is none would be taken for a later one.
    std::tm made = wanted;
    const std::time_t moment = timegm(&made);
    const std::array same{made.tm_year == wanted.tm_year, made.tm_mon == wanted.tm_mon, made.tm_mday == wanted.tm_mday,
                          made.tm_hour == wanted.tm_hour, made.tm_min == wanted.tm_min, made.tm_sec == wanted.tm_sec};
    if (wanted.tm_year < 70 || std::find(same.begin(), same.end(), false) != same.end())
        return std::nullopt;
    return moment;
}

TrustOptions::TrustOptions(Command& command, Trust::Purpose purpose, Anchors anchors)
    : m_anchors(command
                    .repeated("--ca", "Whom to believe: roots, in a file or all files of a directory, PEM or DER. "
                                      "May be given several times; example: --ca /etc/ssl/certs")
                    ->typeName("FILE|DIR")
                    ->required(anchors == Anchors::required)),
      m_untrusted(command
                      .repeated("--untrusted", "Certificates between the roots and the one to be judged; they help to "
                                               "find a way and are not believed. Example: --untrusted chain.pem")
                      ->typeName("FILE|DIR")
                      ->needs(m_anchors)),
      m_lists(command.repeated("--crl", "Revocation lists; nothing is fetched. Example: --crl /var/cache/lists")
                  ->typeName("FILE|DIR")
                  ->needs(m_anchors)),
      m_policies(command
                     .repeated("--policy", "Demand this certificate policy; with several, one of them. Example: "
                                           "--policy 2.23.140.1.5.3.2")
                     ->typeName("OID")
                     ->needs(m_anchors)),
      m_from(command
                 .repeated("--from", "Demand that the certificate is for this address, the sender of the mail; with "
                                     "several, for each. It takes the place of the From outside of a mail; one that a "
                                     "layer covers counts, too. Example: "
                                     "--from anna@example.org")
                 ->typeName("ADDRESS")
                 ->needs(m_anchors)),
      m_purpose(Trust::nameOf(purpose)) {
    command
        .option("--revocation", m_revocation,
                "Whether certificates are looked up in revocation lists: not at all, where there is a list, or a list "
                "that is up to date is required. Without it: available when --crl is given, else none. Example: "
                "--revocation required")
        ->typeName("WHEN")
        ->among(revocations())
        ->needs(m_anchors);
    command
        .option("--at", m_moment,
                "Judge by that day (its first second) or moment, in UTC, instead of now; for signatures "
                "\"signing-time\" is the time "
                "that the signer states, which could be anything. Example: --at 2026-06-01T12:00:00Z")
        ->typeName("MOMENT")
        ->needs(m_anchors);
    command
        .option("--purpose", m_purpose,
                "What the certificate has to be for: to sign mail, to encrypt mail to, or anything. Example: --purpose "
                "sign")
        ->typeName("PURPOSE")
        ->among(purposes())
        ->showDefault()
        ->needs(m_anchors);
    command.flag("--json", m_json, "Tell the result in JSON (docs/json.md)");
}

TrustRequest TrustOptions::request() const {
    TrustRequest request{.anchors = m_anchors->values(),
                         .untrusted = m_untrusted->values(),
                         .lists = m_lists->values(),
                         .options = {},
                         .from = m_from->values()};
    Trust::Options& options = request.options;
    options.purpose = valueOf<Trust::Purpose>(purposes(), m_purpose);
    options.policies = m_policies->values();
    if (m_revocation)
        options.revocation = valueOf<Trust::Revocation>(revocations(), *m_revocation);
    else
        options.revocation = request.lists.empty() ? Trust::Revocation::none : Trust::Revocation::available;
    options.atSigningTime = m_moment == signingTime;
    if (m_moment && !options.atSigningTime && !(options.at = momentOf(*m_moment)))
        throw Failure("--at " + *m_moment +
                      " is no moment: give one as 2026-06-01, 2026-06-01T12:00:00Z or signing-time");
    for (const std::string& address : request.from)
        if (Trust::comparableAddress(address).empty())
            throw Failure("no mail address: " + address);
    return request;
}

} // namespace norvcrypt
