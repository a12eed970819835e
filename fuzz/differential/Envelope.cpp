#include "Envelope.h"

#include "Messages.h"

#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/Key.h>

#include <openssl/err.h>

#include <algorithm>
#include <list>

namespace fuzz {

namespace {

namespace CMS = Norvane::Crypto::CMS;
namespace NVX509 = Norvane::Crypto::NVX509;

/// What the other side is spared, too.
constexpr std::uint32_t mostIterations = 4000;

const CMS::KeyListLookup& lookupOf(Opener opener) {
    static const CMS::KeyListLookup rsa(std::list<NVX509::KeyCertificatePair>{pairOf(rsaRecipient())});
    static const CMS::KeyListLookup agreement(std::list<NVX509::KeyCertificatePair>{pairOf(agreementRecipient())});
    return opener == Opener::rsa ? rsa : agreement;
}

std::string textOf(const Norvane::Exception& failure) {
    return failure.asString();
}

using Recipient = CMS::EnvelopeReader::Recipient;

/// What the reader says of every damage behind the head.
const char* const damaged = "damaged, or not the right key";

/// Opens with the secret that a recipient has; the `number`th of a password.
bool openSecret(CMS::EnvelopeReader& message, Opener opener, std::size_t number) {
    for (const Recipient& recipient : message.recipients()) {
        if (opener == Opener::keyEncryptionKey && recipient.kind() == Recipient::keyEncryptionKey) {
            const Norvane::Buffer identifier = recipient.keyIdentifier();
            const Bytes& own = keyEncryptionKeyIdentifier();
            if (std::equal(own.begin(), own.end(), identifier.data(), identifier.data() + identifier.length())) {
                return message.open(recipient, bufferOf(keyEncryptionKey()));
            }
        } else if (opener == Opener::password && recipient.kind() == Recipient::password && number-- == 0) {
            const std::string& password = messagePassword();
            return message.openWithPassword(recipient, bufferOf(Bytes(password.begin(), password.end())));
        }
    }
    return false;
}

Answer readOnce(Norvane::MediaIn& in, Opener opener, std::size_t number) {
    Answer answer;
    try {
        CMS::EnvelopeReader::Budget budget;
        budget.passwordIterations = mostIterations;
        CMS::EnvelopeReader message(in, budget);
        const bool opened =
            identityOf(opener) != nullptr ? message.open(lookupOf(opener)) : openSecret(message, opener, number);
        if (!opened) {
            answer.text = message.unsupported().empty() ? "no key" : "not supported: " + message.unsupported();
            return answer;
        }
        Norvane::MemoryMediaOut out;
        message.write(out);
        answer.accepted = message.verdict() == CMS::EnvelopeReader::Complete && message.atEnd();
        const Norvane::Buffer content = out.content();
        answer.content.assign(content.data(), content.data() + content.length());
    } catch (const Norvane::Crypto::TooCostlyException& failure) {
        answer.costly = true;
        answer.text = textOf(failure);
    } catch (const Norvane::Exception& failure) {
        const std::string text = textOf(failure);
        answer.text = text.find("the message is damaged") == std::string::npos ? text : damaged;
    }
    return answer;
}

/// What a message is opened to twice. Where no content key opens, a random one is used, so that nobody learns of it
/// (RFC 3218): one of some 256 such messages ends in what looks like padding. Only what comes out the same again is opened.
Answer readTwice(Norvane::MediaIn& in, const Bytes& octets, Opener opener, std::size_t number) {
    Answer answer = readOnce(in, opener, number);
    if (answer.accepted) {
        Norvane::MemoryMediaIn again(Norvane::Buffer(octets.data(), static_cast<unsigned int>(octets.size()), true));
        const Answer second = readOnce(again, opener, number);
        if (!second.accepted || second.content != answer.content) {
            answer = Answer();
            answer.text = damaged;
        }
    }
    return answer;
}

/// Both in agreement, or why not, for one opener.
Comparison compareFor(const Bytes& octets, Opener opener) {
    std::string finding;
    const Answer reader = readerSays(octets, opener, finding);
    const Answer openssl = opensslSays(octets, opener);
    const auto said = [&] { return "reader " + described(reader) + "\nOpenSSL " + described(openssl); };
    if (!finding.empty()) {
        return {Outcome::unexplained, finding};
    }
    if (openssl.costly) {
        return {reader.accepted ? Outcome::unexplained : Outcome::budget, said()};
    }
    if (reader.accepted == openssl.accepted) {
        return reader.sameAs(openssl) ? Comparison{reader.accepted ? Outcome::bothAccept : Outcome::bothRefuse, {}}
                                      : Comparison{Outcome::unexplained, said()};
    }
    const auto why =
        reader.accepted ? whyWider(octets, opener, reader) : whyStricter(octets, opener, reader, openssl, finding);
    return {finding.empty() ? why.value_or(Outcome::unexplained) : Outcome::unexplained, said() + finding};
}

/// Which of them either side finds a recipient for.
std::array<bool, openers.size()> concerned(const Bytes& octets) {
    std::array<bool, openers.size()> found{};
    try {
        Norvane::MemoryMediaIn in(Norvane::Buffer(octets.data(), static_cast<unsigned int>(octets.size()), true));
        CMS::EnvelopeReader message(in);
        for (const Recipient& recipient : message.recipients()) {
            if (recipient.kind() != Recipient::other) {
                found[static_cast<std::size_t>(recipient.kind())] = true;
            }
        }
    } catch (const Norvane::Exception& failure) {
        static_cast<void>(failure);
    }
    std::size_t consumed = 0;
    const CmsPtr structure = decoded(octets, consumed);
    const auto* recipients = structure == nullptr ? nullptr : CMS_get0_RecipientInfos(structure.get());
    for (int i = 0; i < sk_CMS_RecipientInfo_num(recipients); ++i) {
        const int type = CMS_RecipientInfo_type(sk_CMS_RecipientInfo_value(recipients, i));
        if (type >= CMS_RECIPINFO_TRANS && type <= CMS_RECIPINFO_PASS) {
            found[static_cast<std::size_t>(type)] = true;
        }
    }
    ERR_clear_error();
    if (std::none_of(found.begin(), found.end(), [](bool one) { return one; })) {
        found[0] = true; // refused in both ways, then
    }
    return found;
}

} // namespace

Answer readerSays(const Bytes& octets, Opener opener, std::string& finding) {
    Answer answer;
    const std::size_t tries = opener == Opener::password ? 3 : 1;
    for (std::size_t number = 0; number < tries && !answer.accepted; ++number) {
        const Answer next = inBothWays(
            octets, [&](Norvane::MediaIn& in) { return readTwice(in, octets, opener, number); }, finding);
        if (number == 0 || next.accepted) {
            answer = next;
        }
    }
    return answer;
}

Comparison compareEnvelope(const Bytes& octets) {
    Comparison worst{Outcome::bothRefuse, {}};
    const auto wanted = concerned(octets);
    for (const Opener opener : openers) {
        if (!wanted[static_cast<std::size_t>(opener)]) {
            continue;
        }
        Comparison comparison = compareFor(octets, opener);
        if (comparison.outcome == Outcome::unexplained) {
            comparison.detail = "opener " + std::to_string(static_cast<int>(opener)) + ": " + comparison.detail;
            return comparison;
        }
        if (worst.outcome == Outcome::bothRefuse ||
            (worst.outcome == Outcome::bothAccept && comparison.outcome != Outcome::bothRefuse)) {
            worst = comparison;
        }
    }
    return worst;
}

} // namespace fuzz
