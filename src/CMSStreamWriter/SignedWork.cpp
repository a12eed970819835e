#include "CMSStreamWriter/SignedWork.h"

#include "CMS/TemporaryFile.h"

#include "failures/Raise.h"
#include "openssl/AlgorithmIdentifiers.h"
#include "openssl/Encode.h"

#include <algorithm>
#include <ctime>
#include <string>
#include <utility>

namespace Norvane::Crypto::CMS {

namespace {

using framing::Encoded;
using framing::TagClass;

constexpr std::uint64_t longestBody = std::uint64_t{1} << 62U; // what stands around it fits 63 bits

[[noreturn]] void refuse(const std::string& why) {
    failures::raise(failures::signedWriter, why);
}

void addEncoding(std::vector<Encoded>& all, Encoded encoding, const std::string& what) {
    if (encoding.empty()) {
        failures::raiseWithErrors(failures::signedWriter, what);
    }
    all.push_back(std::move(encoding));
}

void addCertificate(std::vector<Encoded>& all, const NVX509::RefCertificate& certificate, const std::string& what) {
    X509* x509 = certificate;
    if (x509 == nullptr) {
        refuse(what + "the handle is empty");
    }
    addEncoding(all, openssl::encode<i2d_X509>(x509), what);
}

std::vector<Encoded> certificatesOf(const SignedWriter::Options& options) {
    std::vector<Encoded> all;
    std::size_t number = 0;
    for (const SignedWriter::Signer& signer : options.signers) {
        const std::string who = "signer " + std::to_string(++number) + ": ";
        if (signer.include == SignedWriter::Include::nothing) {
            continue;
        }
        addCertificate(all, signer.pair->certificate, who);
        if (signer.include == SignedWriter::Include::certificateAndChain) {
            std::size_t link = 0;
            for (const NVX509::RefCertificate& certificate : signer.pair->chain) {
                addCertificate(all, certificate, who + "certificate " + std::to_string(++link) + " of the chain: ");
            }
        }
    }
    number = 0;
    for (const NVX509::RefCertificate& certificate : options.certificates) {
        addCertificate(all, certificate, "certificate " + std::to_string(++number) + ": ");
    }
    return all;
}

std::vector<Encoded> revocationListsOf(const SignedWriter::Options& options) {
    std::vector<Encoded> all;
    for (const NVX509::RefCertificateRevocationList& list : options.revocationLists) {
        const std::string what = "revocation list " + std::to_string(all.size() + 1) + ": ";
        X509_CRL* crl = list;
        if (crl == nullptr) {
            refuse(what + "the handle is empty");
        }
        addEncoding(all, openssl::encode<i2d_X509_CRL>(crl), what);
    }
    return all;
}

/// A set in which each member stands once, under a context-specific tag; nothing when it has none.
Encoded setOfDifferent(std::vector<Encoded> members, std::uint32_t tag) {
    framing::sortForDer(members);
    members.erase(std::unique(members.begin(), members.end()), members.end());
    if (members.empty()) {
        return {};
    }
    const std::vector<framing::Octets> parts(members.begin(), members.end());
    Encoded made = framing::constructed(TagClass::contextSpecific, tag, parts);
    if (made.empty()) {
        refuse("the certificates or revocation lists are too long");
    }
    return made;
}

void checkCertificatesOnly(const SignedWriter::Options& options, bool isData) {
    if (!options.certificatesOnly) {
        if (options.signers.empty()) {
            refuse("there is no signer");
        }
        return;
    }
    if (!options.signers.empty()) {
        refuse("certificates alone have no signers");
    }
    if (!isData) {
        refuse("certificates alone are of the content type id-data");
    }
    if (options.certificates.empty() && options.revocationLists.empty()) {
        refuse("there are no certificates and no revocation lists");
    }
}

} // namespace

SignedWork::SignedWork(const SignedWriter::Options& options)
    : m_announced(options.length),
      m_certificatesOnly(options.certificatesOnly),
      m_way(Way::nowhere) {
    const auto contentType = openssl::objectIdentifier(options.contentType);
    if (!contentType) {
        refuse("the content type is no object identifier");
    }
    m_framing.contentType = *contentType;
    if (m_announced.value_or(0) > longestBody) {
        refuse("the announced length is more than 2^62 octets");
    }
    const bool isData = m_framing.contentType == openssl::objectIdentifier(NID_pkcs7_data);
    checkCertificatesOnly(options, isData);
    addSigners(options, m_framing.contentType, isData);
    prepareFraming(options, isData);
    m_way = wayOf(options);
    if (m_way == Way::spill) {
        m_spill.emplace(options.memory, temporaryFile(options.spillFile).c_str());
    }
}

void SignedWork::addSigners(const SignedWriter::Options& options, const Encoded& contentType, bool isData) {
    m_signers.reserve(options.signers.size());
    for (const SignedWriter::Signer& signer : options.signers) {
        const std::string who = "signer " + std::to_string(m_signers.size() + 1) + ": ";
        m_signers.emplace_back(signer, contentType, isData, who);
        Digesting& one = digesting(m_signers.back().key().digest());
        if (one.context == nullptr) {
            one.context = one.digest.start();
        }
        if (one.context == nullptr) {
            failures::raiseWithErrors(failures::signedWriter, who);
        }
    }
}

SignedWork::Digesting& SignedWork::digesting(const openssl::SignatureDigest& digest) {
    const auto found = std::find_if(m_digests.begin(), m_digests.end(),
                                    [&](const Digesting& one) { return one.digest.number == digest.number; });
    return found != m_digests.end() ? *found : m_digests.emplace_back(Digesting{digest, nullptr, {}});
}

void SignedWork::prepareFraming(const SignedWriter::Options& options, bool isData) {
    const bool later = !isData || std::any_of(m_signers.begin(), m_signers.end(),
                                              [](const SignedSigner& signer) { return signer.version() == 3; });
    m_framing.version = framing::integerOf(later ? 3 : 1); // RFC 5652, 5.1
    std::vector<Encoded> algorithms;
    for (const Digesting& one : m_digests) {
        algorithms.push_back(one.digest.identifier);
    }
    framing::sortForDer(algorithms);
    m_framing.digestAlgorithms = framing::setOf(algorithms);
    m_framing.certificates = setOfDifferent(certificatesOf(options), 0);
    m_framing.revocationLists = setOfDifferent(revocationListsOf(options), 1);
}

SignedWork::Way SignedWork::wayOf(const SignedWriter::Options& options) const {
    if (options.certificatesOnly || options.content == SignedWriter::Content::detached) {
        return Way::nowhere;
    }
    if (options.encoding == SignedWriter::Encoding::ber) {
        return Way::segments;
    }
    const bool foreseen =
        options.length && std::all_of(m_signers.begin(), m_signers.end(),
                                      [](const SignedSigner& one) { return one.key().fixedLength() != 0; });
    return foreseen ? Way::straight : Way::spill;
}

void SignedWork::requireOpen(const failures::Failure& failure) const {
    if (m_state == State::ended) {
        failures::raise(failure, "the structure was ended");
    }
    if (m_state == State::broken) {
        failures::raise(failure, "writing failed before");
    }
}

void SignedWork::write(const unsigned char* data, unsigned int length) {
    requireOpen(failures::signedWriterWrite);
    if (length == 0) {
        return;
    }
    if (m_certificatesOnly) {
        failures::raise(failures::signedWriterWrite, "certificates alone have no body");
    }
    if (writesWhileReading()) {
        static_cast<void>(m_target.operator->()); // throws without a target, while nothing is lost
    }
    const State before = std::exchange(m_state, State::broken);
    if (length > m_announced.value_or(longestBody) - m_written) {
        failures::raise(failures::signedWriterWrite,
                        m_announced
                            ? "the body is longer than the " + std::to_string(*m_announced) + " octets announced"
                            : std::string("the body is longer than 2^62 octets"));
    }
    if (before == State::fresh) {
        begin();
    }
    for (const Digesting& one : m_digests) {
        if (EVP_DigestUpdate(one.context.get(), data, length) != 1) {
            failures::raiseWithErrors(failures::signedWriterWrite);
        }
    }
    switch (m_way) {
    case Way::segments:
        m_segments.write(m_target, data, length);
        break;
    case Way::straight:
        m_target.write(data, length);
        break;
    case Way::spill:
        m_spill->write(data, length);
        break;
    case Way::nowhere:
        break;
    }
    m_written += length;
    m_state = State::begun;
}

void SignedWork::begin() {
    m_now = static_cast<std::int64_t>(std::time(nullptr));
    if (m_way == Way::segments) {
        put(m_framing.berHead());
    } else if (m_way == Way::straight) {
        put(m_framing.derHead(m_announced, lengthOfInfos()));
    }
}

std::size_t SignedWork::lengthOfInfos() const {
    std::size_t length = 0;
    for (const SignedSigner& signer : m_signers) {
        length += signer.infoLength(m_now);
    }
    return framing::headerSize(framing::set, length) + length;
}

Encoded SignedWork::infos() {
    for (Digesting& one : m_digests) {
        one.result = one.digest.finish(one.context.get());
        if (one.result.empty()) {
            failures::raiseWithErrors(failures::signedWriterEnd);
        }
    }
    std::vector<Encoded> all;
    for (const SignedSigner& signer : m_signers) {
        all.push_back(signer.info(digesting(signer.key().digest()).result, m_now));
    }
    framing::sortForDer(all);
    Encoded set = framing::setOf(all);
    if (set.empty()) {
        failures::raise(failures::signedWriterEnd, "the structure is too long");
    }
    return set;
}

void SignedWork::end() {
    requireOpen(failures::signedWriterEnd);
    static_cast<void>(m_target.operator->());
    const State before = std::exchange(m_state, State::broken);
    if (m_announced && m_written != *m_announced) {
        failures::raise(failures::signedWriterEnd, "the body has " + std::to_string(m_written) +
                                                       " octets, announced were " + std::to_string(*m_announced));
    }
    if (before == State::fresh) {
        begin();
    }
    finish(infos());
    m_target.end();
    m_state = State::ended;
}

void SignedWork::finish(const Encoded& infos) {
    // The ends of the octet string, of the tag around it and of the content; of the structure, its tag and what is around.
    static const Encoded threeEnds(6);
    switch (m_way) {
    case Way::nowhere:
        put(m_framing.derHead(std::nullopt, infos.size()));
        break;
    case Way::segments:
        m_segments.flush(m_target);
        put(threeEnds);
        break;
    case Way::straight:
        if (infos.size() != lengthOfInfos()) {
            failures::raise(failures::signedWriterEnd, "a signature has another length than its key foretold");
        }
        break;
    case Way::spill:
        put(m_framing.derHead(m_spill->length(), infos.size()));
        m_spill->in().write(m_target);
        break;
    }
    m_framing.writeTail(m_target, infos);
    if (m_way == Way::segments) {
        put(threeEnds);
    }
}

void SignedWork::put(const Encoded& octets) {
    m_target.write(octets.data(), static_cast<unsigned int>(octets.size()));
}

} // namespace Norvane::Crypto::CMS
