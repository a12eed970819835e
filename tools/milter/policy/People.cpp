#include "policy/People.h"

#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto-trust/TrustSender.h>

namespace norvmilter {

namespace {

using namespace Norvane::Crypto;

/// The octets that are kept of what no one can read.
constexpr std::size_t shown = 100;

/// The fields of these names as fields of another one, with an empty line behind them.
std::string renamed(const std::vector<HeaderField>& header, const std::vector<std::string>& names, const char* name) {
    std::string octets;
    for (const HeaderField& field : header) {
        for (const std::string& wanted : names) {
            if (isSameName(field.name, wanted))
                octets += octetsOf(HeaderField{name, field.value});
        }
    }
    return octets + "\r\n";
}

} // namespace

People peopleOf(const std::vector<HeaderField>& header) {
    People people;
    try {
        const SMime::Correspondents from =
            SMime::correspondentsOf(Norvane::MemoryMediaIn(renamed(header, {"From"}, "From")));
        for (const Norvane::EmailAddress& address : from.from)
            people.from.push_back(address.address());
        if (!from.noAddresses.empty())
            people.problem = "From has what is no address: " + from.noAddresses.front().substr(0, shown);
        const SMime::Correspondents to = SMime::correspondentsOf(
            Norvane::MemoryMediaIn(renamed(header, {"To", "Cc", "Resent-To", "Resent-Cc"}, "To")));
        for (const Norvane::EmailAddress& address : to.to)
            people.visible.insert(Trust::comparableAddress(address.address()));
    } catch (const Norvane::Exception& failure) {
        people.problem = "From, To and Cc cannot be read: they are too long";
    }
    return people;
}

} // namespace norvmilter
