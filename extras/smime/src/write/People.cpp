#include "write/People.h"

#include "mime/AddressItems.h"
#include "mime/Gmime.h"
#include "mime/Limits.h"
#include "write/CertificateUse.h"
#include "write/Fail.h"
#include "write/Fields.h"

#include <norvcrypto-trust/TrustSender.h>

#include <algorithm>
#include <set>

namespace Norvane::Crypto::SMime::writing {

namespace {

/// GMime goes down a level of the stack for each group that begins within another one, which no sound field does.
constexpr std::ptrdiff_t mostColons = 1000;

mime::GmimeObject<InternetAddressList> parsed(const std::string& value) {
    mime::startGmime();
    return mime::GmimeObject<InternetAddressList>(internet_address_list_parse(nullptr, value.c_str()));
}

void collect(InternetAddressList* list, std::vector<EmailAddress>& addresses, std::vector<std::string>& others) {
    for (int index = 0; index < internet_address_list_length(list); ++index) {
        InternetAddress* const address = internet_address_list_get_address(list, index);
        if (INTERNET_ADDRESS_IS_GROUP(address) != 0) {
            collect(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)), addresses, others);
            continue;
        }
        const char* const text = internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(address));
        EmailAddress parsed = EmailAddress::rfc5321Parse(text == nullptr ? "" : text, true);
        if (parsed.isEmptyAddress()) {
            others.emplace_back(text == nullptr ? "" : text);
        } else {
            addresses.push_back(std::move(parsed));
        }
    }
}

void addAddresses(const mime::Header& header, std::string_view name, std::vector<EmailAddress>& addresses,
                  std::vector<std::string>& others) {
    for (const std::string& value : header.all(name)) {
        if (value.empty()) {
            continue;
        }
        const bool isReadable = std::ranges::count(value, ':') <= mostColons && value.find('\0') == std::string::npos;
        // Nothing where it is not clear: of "a@b@c" GMime reads "a@b", and another reader might not.
        const std::optional<mime::AddressCount> count = isReadable ? mime::countAddresses(value) : std::nullopt;
        const mime::GmimeObject<InternetAddressList> list =
            count && count->others <= mime::maximumOthers ? parsed(value) : nullptr;
        const std::size_t before = addresses.size();
        const std::size_t othersBefore = others.size();
        if (list) {
            collect(list.get(), addresses, others);
        }
        // GMime leaves out what it cannot read, and nobody is to be left out in silence.
        const bool isAll = list && count->addresses == addresses.size() - before;
        if (!isAll && others.size() == othersBefore) {
            others.push_back(value.substr(0, 200));
        }
    }
}

/// The address with A-labels as GMime reads it: with U-labels.
std::string withULabels(const std::string& address) {
    const mime::GmimeObject<InternetAddressList> list = parsed(address);
    InternetAddress* const one = list && internet_address_list_length(list.get()) == 1
                                     ? internet_address_list_get_address(list.get(), 0)
                                     : nullptr;
    const bool isMailbox = INTERNET_ADDRESS_IS_MAILBOX(one) != 0; // and no null pointer
    const char* const text = isMailbox ? internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(one)) : nullptr;
    return text == nullptr ? "" : text;
}

/// An address as it stands and, where its domain is of another script, in the ways in which a store may have it: as A-labels
/// and as U-labels. Of a message GMime gives U-labels alone.
std::vector<EmailAddress> spellingsOf(const EmailAddress& address) {
    std::vector<EmailAddress> all{address};
    const std::string domain = address.domain();
    const bool isInternational = !isSevenBit(domain) || domain.find("--") != std::string::npos;
    const std::string comparable = isInternational ? Trust::comparableAddress(address.address()) : std::string();
    const std::size_t at = comparable.rfind('@');
    if (at == std::string::npos) {
        return all;
    }
    const std::string ascii = address.localPart() + comparable.substr(at);
    for (const std::string& text : {ascii, withULabels(ascii)}) {
        const EmailAddress other = EmailAddress::rfc5321Parse(text, true);
        const bool isKnown =
            std::ranges::any_of(all, [&](const EmailAddress& one) { return one.address() == other.address(); });
        if (!other.isEmptyAddress() && !isKnown) {
            all.push_back(other);
        }
    }
    return all;
}

NVX509::RefCertificate encryptionCertificateOf(const NVX509::RefKeyStore& keys, const EmailAddress& address) {
    for (const EmailAddress& one : spellingsOf(address)) {
        const NVX509::RefCertificate found = keys->findEncryptionCertificate(one);
        if (!found.isNull()) {
            return found;
        }
    }
    return {};
}

NVX509::KeyCertificatePair signingPairOf(const NVX509::RefKeyStore& keys, const EmailAddress& address) {
    for (const EmailAddress& one : spellingsOf(address)) {
        NVX509::KeyCertificatePair pair = keys->findSigningKey(one);
        if (pair && !pair->certificate.isNull() && !pair->key.isNull()) {
            return pair;
        }
    }
    fail("there is no key to sign with for " + address.address());
}

/// The address that signs.
EmailAddress senderOf(const std::optional<EmailAddress>& given, const mime::Header& header) {
    if (given) {
        return *given;
    }
    std::vector<EmailAddress> from;
    std::vector<std::string> others;
    addAddresses(header, "From", from, others);
    if (from.size() == 1 && others.empty()) {
        return from.front();
    }
    std::vector<EmailAddress> sender;
    addAddresses(header, "Sender", sender, others);
    if (!from.empty() && sender.size() == 1 && others.empty()) {
        return sender.front();
    }
    if (from.size() > 1) {
        fail("the message has several From addresses and no Sender: say who signs");
    }
    fail(header.count("From") == 0 ? "the message has no From" : "the From of the message is no address");
}

std::string derOf(const NVX509::RefCertificate& certificate) {
    MemoryMediaOut der;
    certificate->writeDER(der);
    return {reinterpret_cast<const char*>(der.content().data()), der.content().length()};
}

std::string listed(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text.append(text.empty() ? "" : ", ").append(name);
    }
    return text;
}

} // namespace

Correspondents correspondentsIn(const mime::Header& header) {
    Correspondents people;
    addAddresses(header, "From", people.from, people.noAddresses);
    addAddresses(header, "Sender", people.sender, people.noAddresses);
    for (const char* const name : {"To", "Cc", "Bcc"}) {
        addAddresses(header, name, people.to, people.noAddresses);
    }
    return people;
}

std::vector<CMS::SignedWriter::Signer> signersFor(const SignOptions& options, const mime::Header& header,
                                                  std::time_t at) {
    std::vector<CMS::SignedWriter::Signer> signers = options.signers;
    if (signers.empty()) {
        if (options.keys.isNull()) {
            fail("there is nobody to sign: no signer was given, and no store to find the sender in");
        }
        const EmailAddress sender = senderOf(options.from, header);
        signers.emplace_back(signingPairOf(options.keys, sender));
    }
    for (CMS::SignedWriter::Signer& signer : signers) {
        // What is empty, SignedWriter refuses with the signer's number.
        if (signer.pair && !signer.pair->certificate.isNull()) {
            requireUsable(signer.pair->certificate, Use::signing, at);
            if (!signer.digest) {
                signer.digest = options.digest ? options.digest : suitableDigest(signer.pair->certificate);
            }
        }
        if (options.pss) {
            signer.rsaScheme = CMS::SignedWriter::RsaScheme::pss;
        }
    }
    return signers;
}

std::vector<CMS::EnvelopeRecipient> recipientsFor(const EncryptOptions& options, const mime::Header& header,
                                                  const WriteBudget& budget, std::time_t at) {
    std::vector<EmailAddress> addresses = options.addresses;
    if (options.addressesOfMessage) {
        Correspondents people;
        for (const char* const name : {"To", "Cc", "Bcc"}) {
            addAddresses(header, name, people.to, people.noAddresses);
        }
        if (!people.noAddresses.empty()) {
            fail("To, Cc or Bcc of the message have what is no address: " + people.noAddresses.front());
        }
        addresses.insert(addresses.end(), people.to.begin(), people.to.end());
    }
    if (options.sender) {
        addresses.push_back(senderOf(options.from, header));
    }
    if (addresses.size() > budget.recipients) {
        fail("the message has more than " + std::to_string(budget.recipients) + " recipients");
    }
    if (!addresses.empty() && options.keys.isNull()) {
        fail("there is no store to find the recipients in");
    }
    std::vector<NVX509::RefCertificate> certificates = options.certificates;
    std::vector<std::string> missing;
    std::set<std::string> asked;
    for (const EmailAddress& address : addresses) {
        if (!asked.insert(address.address()).second) {
            continue;
        }
        const NVX509::RefCertificate found = encryptionCertificateOf(options.keys, address);
        if (found.isNull()) {
            missing.push_back(address.address());
        } else {
            certificates.push_back(found);
        }
    }
    if (!missing.empty()) {
        fail("there is no certificate for " + listed(missing));
    }
    std::vector<CMS::EnvelopeRecipient> recipients;
    std::set<std::string> taken;
    bool anyByOaep = false;
    for (const NVX509::RefCertificate& certificate : certificates) {
        if (certificate.isNull()) {
            fail("the certificate of a recipient is an empty handle");
        }
        if (taken.insert(derOf(certificate)).second) {
            requireUsable(certificate, Use::encryption, at);
            const bool byOaep = options.oaep && hasRsaKey(certificate);
            recipients.push_back(byOaep ? CMS::EnvelopeRecipient::rsaOaep(certificate, *options.oaep)
                                        : CMS::EnvelopeRecipient(certificate));
            anyByOaep = anyByOaep || byOaep;
        }
    }
    if (options.oaep && !anyByOaep) {
        fail("RSAES-OAEP is for RSA keys, and no certificate of a recipient has one");
    }
    recipients.insert(recipients.end(), options.recipients.begin(), options.recipients.end());
    if (recipients.empty()) {
        fail("there is nobody to encrypt to");
    }
    return recipients;
}

} // namespace Norvane::Crypto::SMime::writing
