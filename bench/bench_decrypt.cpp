// The decrypting stream beside the EVP and RSA calls that do the same work: one content key decrypted, the body
// decrypted from memory in pieces. The recipient with the key is the last one; no structure is decoded on the raw side.
#include "Envelope.h"

#include <norvcmsg/Logger.h>
#include <norvcmsg/Media.h>

using namespace Norvane;
using namespace Norvane::Crypto;

namespace {

/// Drops records: each recipient without a key makes one.
class Silence : public LogSink {
public:
    void record(const LogRecord& /*record*/) override {}
};

/// The signer's pair, for whoever is named as it is.
class OnePair : public NVX509::KeyStorePlugin {
public:
    NVX509::KeyCertificatePair find(const NVX509::DistinguishedName& /*issuer*/, const ASN1::Integer& serial) override {
        return serial == m_pair->certificate->serialNumber() ? m_pair : m_none;
    }
    NVX509::RefCertificate findEncryptionCertificate(const EmailAddress& /*address*/) override { return {}; }
    NVX509::KeyCertificatePair findSigningKey(const EmailAddress& /*address*/) override { return m_none; }
    NVX509::KeyCertificatePair findDecryptionKey(const EmailAddress& /*address*/) override { return m_none; }

private:
    NVX509::KeyCertificatePair m_pair = bench::signerPair();
    NVX509::KeyCertificatePair m_none{true};
};

/// A message of that size whose last recipient is the signer.
Buffer message(std::size_t size, std::size_t count) {
    // Serial number 12: sorts before 1234, whose encoding is longer.
    static const auto other = norvauthority::issue({.subject = {{"CN", "Other"}},
                                                    .key = norvauthority::Key::rsa(3072),
                                                    .issuer = &bench::authority(),
                                                    .serial = "12"});
    std::list<NVX509::RefCertificate> recipients(
        count - 1, NVX509::CertificateFactory().readDER(bench::buffer(other.certificate.der)));
    recipients.push_back(bench::certificate());
    MemoryMediaOut target;
    CMS::EncrypterMediaOut out(AES_256_CBC, recipients);
    out.attach(target);
    out.write(bench::body(size).data(), static_cast<unsigned int>(size));
    out.end();
    getErrString();
    return target.content();
}

/// A source whose bytes cannot be read in place: what a file or a pipe is.
class CopyingIn : public MediaInImpl {
public:
    explicit CopyingIn(const MediaIn& source) : m_source(source) {}
    using MediaInImpl::read;
    bool atEnd() const override { return m_source.atEnd(); }
    int peek() const override { return m_source.peek(); }
    int read(unsigned char* out, unsigned int length) override { return m_source.read(out, length); }

private:
    MediaIn m_source;
};

template <bool InPlace> void decryptStream(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const MemoryMediaIn source(message(size, static_cast<std::size_t>(state.range(1))));
    NVX509::RefKeyStore keys(true);
    keys->add(NVX509::RefKeyStorePlugin(new OnePair));
    NullMediaOut target;
    for (auto _ : state) {
        MediaIn in(source);
        in.setpos(0);
        if (!InPlace) {
            in = MediaIn(makeReference<CopyingIn, MediaInImpl>(in));
        }
        CMS::DecrypterMediaIn decrypter(in, keys);
        decrypter.write(target);
        if (!decrypter.decryptionSucceeded()) {
            state.SkipWithError("not decrypted");
            break;
        }
    }
    bench::countBytes(state);
}
BENCHMARK(decryptStream<true>)->Apply(bench::envelopes);
BENCHMARK(decryptStream<false>)->Apply(bench::envelopes);

void decryptRaw(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    EVP_PKEY* key = bench::signer().key.get();
    const std::vector<unsigned char> contentKey(32, 0x5A);
    const std::vector<unsigned char> vector(16, 0xA5);
    const std::vector<unsigned char> wrapped = bench::wrap(key, contentKey.data(), contentKey.size());
    const std::vector<unsigned char> encrypted = bench::encrypt(bench::body(size), size, contentKey, vector);
    std::vector<unsigned char> out(bench::piece + EVP_MAX_BLOCK_LENGTH);
    for (auto _ : state) {
        const std::vector<unsigned char> opened = bench::unwrap(key, wrapped);
        EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
        EVP_DecryptInit_ex(context, EVP_aes_256_cbc(), nullptr, opened.data(), vector.data());
        int count = 0;
        bench::inPieces(encrypted, encrypted.size(), [&](const unsigned char* data, unsigned int length) {
            EVP_DecryptUpdate(context, out.data(), &count, data, static_cast<int>(length));
        });
        if (EVP_DecryptFinal_ex(context, out.data(), &count) != 1) {
            state.SkipWithError("not decrypted");
            break;
        }
        EVP_CIPHER_CTX_free(context);
    }
    bench::countBytes(state);
}
BENCHMARK(decryptRaw)->Apply(bench::envelopes);

} // namespace

int main(int argc, char** argv) {
    Logger::instance(false).sink(std::make_shared<Silence>());
    return bench::run(argc, argv);
}
