#include "Operations.h"

#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>
#include <norvcrypto-trust/Trust.h>

namespace faultsofstores {

namespace SMime = Norvane::Crypto::SMime;
namespace Trust = Norvane::Crypto::Trust;

namespace {

const std::string s_mail =
    "From: Anna <anna@example.org>\r\nTo: bob@example.org\r\nSubject: faults\r\n"
    "MIME-Version: 1.0\r\nContent-Type: text/plain; charset=utf-8\r\n\r\nHello Bob,\r\n\r\nyours\r\n";
const std::string s_content = "Content-Type: text/plain; charset=utf-8\r\n\r\nHello Bob,\r\n\r\nyours\r\n";

SMime::SignOptions signing() {
    SMime::SignOptions options;
    options.signers.emplace_back(
        NVX509::KeyCertificatePair(keyOf(chain().anna), certificateOf(chain().anna), {certificateOf(chain().middle)}));
    return options;
}
SMime::EncryptOptions encrypting() {
    SMime::EncryptOptions options;
    options.certificates.push_back(certificateOf(bob()));
    return options;
}
SMime::WriteOptions writing() {
    SMime::WriteOptions options;
    options.spillTemplate = "/tmp/faultsXXXXXX";
    return options;
}

std::string contentOf(const Norvane::MemoryMediaOut& out) {
    return {reinterpret_cast<const char*>(out.content().data()), out.content().length()};
}

/// What the reader says of a mail that was written.
Answer readBack(const Target& written, SMime::Verdict expected) {
    const faults::Pause pause;
    if (!written.ended()) {
        return {Answer::wrong, "the target was not ended"};
    }
    SMime::ReadOptions options;
    const CMS::KeyListLookup keys({pairOf(bob())});
    options.keys = &keys;
    Norvane::MemoryMediaOut content;
    const SMime::Answer answer = SMime::read(Norvane::MemoryMediaIn(written.content()), content, options);
    return answer.verdict == expected && contentOf(content) == s_content
               ? Answer{Answer::done}
               : Answer{Answer::wrong, std::string(SMime::nameOf(answer.verdict)) + ": " + answer.detail};
}

} // namespace

std::string signedAndEncrypted() {
    Norvane::MemoryMediaOut out;
    SMime::signAndEncrypt(Norvane::MemoryMediaIn(s_mail), signing(), encrypting(), out, writing());
    return contentOf(out);
}
std::string signedMail() {
    Norvane::MemoryMediaOut out;
    SMime::sign(Norvane::MemoryMediaIn(s_mail), signing(), out, writing());
    return contentOf(out);
}

Operation readsMail(const std::string& name, const std::string& mail, const Identity& anchor, bool bad) {
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchor(certificateOf(anchor));
    const auto verifier = std::make_shared<Trust::Verifier>(material, Trust::Options(),
                                                            Trust::CacheLimits{.entries = 0, .bytes = 0, .seconds = 0});
    const auto keys = std::make_shared<CMS::KeyListLookup>(std::list<NVX509::KeyCertificatePair>{pairOf(bob())});
    return {.name = "SMime::read " + name,
            .act =
                [=] {
                    SMime::ReadOptions options;
                    options.keys = keys.get();
                    options.trust = verifier.get();
                    options.spillTemplate = "/tmp/faultsXXXXXX";
                    Target content;
                    const SMime::Answer answer = SMime::read(faults::source(mail), content, options);
                    const faults::Pause pause;
                    if (answer.verdict != SMime::Verdict::accepted) {
                        return Answer{answer.verdict == SMime::Verdict::unsupported ? Answer::undecided
                                                                                    : Answer::refused,
                                      std::string(SMime::nameOf(answer.verdict)) + ": " + answer.detail};
                    }
                    return content.content().find("Hello Bob,\r\n\r\nyours\r\n") != std::string::npos
                               ? Answer{Answer::done}
                               : Answer{Answer::wrong, "another content: " + content.content()};
                },
            .mustRefuse = bad,
            .weight = 2};
}

std::vector<Operation> writesMails() {
    const auto sign = signing();
    const auto encrypt = encrypting();
    const auto how = writing();
    return {{.name = "SMime::sign",
             .act =
                 [=] {
                     Target out;
                     SMime::sign(faults::source(s_mail), sign, out, how);
                     return readBack(out, SMime::Verdict::signatureGood);
                 },
             .weight = 2},
            {.name = "SMime::encrypt",
             .act =
                 [=] {
                     Target out;
                     SMime::encrypt(faults::source(s_mail), encrypt, out, how);
                     return readBack(out, SMime::Verdict::decrypted);
                 },
             .weight = 2},
            {.name = "SMime::signAndEncrypt",
             .act =
                 [=] {
                     Target out;
                     SMime::signAndEncrypt(faults::source(s_mail), sign, encrypt, out, how);
                     return readBack(out, SMime::Verdict::signatureGood);
                 },
             .weight = 2}};
}

} // namespace faultsofstores
