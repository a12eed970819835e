// The library's readers and writers of messages of any size.
#include "Contestants.h"
#include "OurMedia.h"

#include <norvcrypto/CMSEnvelopeReader.h>
#include <norvcrypto/CMSEnvelopeWriter.h>
#include <norvcrypto/CMSSignedReader.h>
#include <norvcrypto/CMSSignedWriter.h>

#include <memory>

namespace bench {

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

using Encoding = CMS::EnvelopeEncoding;

Run enveloping(const Material& material, std::size_t size, std::size_t recipients, CMS::ContentCipher cipher,
               Encoding encoding) {
    CMS::EnvelopeOptions options;
    options.cipher = cipher;
    options.encoding = encoding;
    if (encoding == Encoding::der) {
        options.bodyLength = size;
    }
    return writing(size, [&material, recipients, options] {
        return CMS::EnvelopeWriter(
            std::vector<CMS::EnvelopeRecipient>(recipients, CMS::EnvelopeRecipient(material.pair()->certificate)),
            options);
    });
}

/// From memory in place, or copied as from a socket.
Run opening(const Material& material, const Bytes& message, bool copied) {
    const auto bytes = std::make_shared<Bytes>(message);
    const auto source = std::make_shared<MemoryMediaIn>(bufferOf(*bytes));
    const auto lookup = std::make_shared<CMS::KeyStoreLookup>(material.store());
    const auto target = std::make_shared<NullMediaOut>();
    return [bytes, source, lookup, target, copied] {
        MediaIn in = copied ? copyingFrom(*bytes) : MediaIn(*source);
        if (!copied) {
            in.setpos(0);
        }
        CMS::EnvelopeReader reader(in);
        require(reader.open(*lookup), "no key");
        reader.write(*target);
        require(reader.verdict() == CMS::EnvelopeReader::Complete, "not decrypted");
    };
}

Run signing(const Material& material, std::size_t size, CMS::SignedWriter::Content content, std::size_t signers = 1,
            std::size_t certificates = 1) {
    CMS::SignedWriter::Options options;
    options.content = content;
    NVX509::KeyCertificatePair pair(material.pair()->key, material.pair()->certificate);
    pair->chain.resize(certificates - 1, material.pair()->certificate);
    options.signers.assign(signers, CMS::SignedWriter::Signer(pair));
    return writing(size, [options] { return CMS::SignedWriter(options); });
}

Run verifying(const Material& material, std::size_t size, const Bytes& message, bool copied = false) {
    const auto bytes = std::make_shared<Bytes>(message);
    const auto source = std::make_shared<MemoryMediaIn>(bufferOf(*bytes));
    const auto target = std::make_shared<NullMediaOut>();
    return [&material, bytes, source, target, size, copied] {
        MediaIn in = copied ? copyingFrom(*bytes) : MediaIn(*source);
        if (!copied) {
            in.setpos(0);
        }
        CMS::SignedReader reader(in);
        if (reader.isDetached()) {
            MediaOut digest = reader.digest();
            writeBody(digest, size);
        } else {
            reader.write(*target);
        }
        for (const CMS::SignedReader::Signer& signer : reader.signers()) {
            require(reader.isValid(signer, material.pair()->certificate), "not verified");
        }
    };
}

} // namespace

void addStreams(Contest& contest, const Material& material) {
    using Content = CMS::SignedWriter::Content;
    constexpr auto cbc = CMS::ContentCipher::aes256Cbc;
    constexpr auto gcm = CMS::ContentCipher::aes256Gcm;

    contest.add("envelope", "EnvelopeWriter, BER",
                [&](std::size_t size) { return enveloping(material, size, 1, cbc, Encoding::ber); });
    contest.add("envelope", "EnvelopeWriter, DER",
                [&](std::size_t size) { return enveloping(material, size, 1, cbc, Encoding::der); });
    contest.add("envelope authenticated", "EnvelopeWriter, BER",
                [&](std::size_t size) { return enveloping(material, size, 1, gcm, Encoding::ber); });
    for (const bool copied : {false, true}) {
        const char* who = copied ? "EnvelopeReader, copied" : "EnvelopeReader";
        contest.add("open", who, [&material, copied](std::size_t size) {
            return opening(material, material.envelopedMessage(size), copied);
        });
        contest.add("open BER", who, [&material, copied](std::size_t size) {
            return opening(material, material.envelopedMessage(size, true), copied);
        });
        contest.add("open authenticated", who, [&material, copied](std::size_t size) {
            return opening(material, material.envelopedMessage(size, false, 1, true), copied);
        });
    }
    contest.add("sign", "SignedWriter", [&](std::size_t size) { return signing(material, size, Content::detached); });
    contest.add("sign attached", "SignedWriter",
                [&](std::size_t size) { return signing(material, size, Content::attached); });
    contest.add("verify", "SignedReader",
                [&](std::size_t size) { return verifying(material, size, material.signedMessage(size, true)); });
    for (const bool copied : {false, true}) {
        contest.add("verify attached", copied ? "SignedReader, copied" : "SignedReader",
                    [&material, copied](std::size_t size) {
                        return verifying(material, size, material.signedMessage(size, false), copied);
                    });
    }

    contest.add("envelope for recipients", "EnvelopeWriter, BER",
                [&](std::size_t count) { return enveloping(material, 1024, count, cbc, Encoding::ber); });
    contest.add("open as last of recipients", "EnvelopeReader", [&](std::size_t count) {
        return opening(material, material.envelopedMessage(1024, false, count), false);
    });
    contest.add("sign with certificates", "SignedWriter",
                [&](std::size_t count) { return signing(material, 1024, Content::detached, 1, count); });
    contest.add("sign by signers", "SignedWriter",
                [&](std::size_t count) { return signing(material, 1024, Content::detached, count); });
    contest.add("verify among certificates", "SignedReader", [&](std::size_t count) {
        return verifying(material, 1024, material.signedMessage(1024, true, false, 1, count));
    });
    constexpr std::size_t mostSigners = 100; // it takes no more
    contest.add(
        "verify signers", "SignedReader",
        [&](std::size_t count) { return verifying(material, 1024, material.signedMessage(1024, true, false, count)); },
        mostSigners);
}

} // namespace bench
