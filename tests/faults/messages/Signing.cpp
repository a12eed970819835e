#include "Operations.h"

#include <norvcrypto/Hasher.h>

namespace faultsofmessages {

using Crypto::Hasher;

Answer verified(const Target& target, const Bytes& over, const Identity& by) {
    const faults::Pause pause;
    if (!target.ended()) {
        return {Answer::wrong, "the target was not ended"};
    }
    const CmsStructure structure = decodedCms(bytesOf(target.content()));
    if (structure == nullptr) {
        return {Answer::wrong, "the structure does not decode"};
    }
    const auto certificate = by.certificate.x509();
    const X509Stack stack(sk_X509_new_null());
    sk_X509_push(stack.get(), certificate.get());
    const bool detached = CMS_is_detached(structure.get()) == 1;
    const Bio content(detached ? BIO_new_mem_buf(over.data(), static_cast<int>(over.size())) : nullptr);
    const Bio out(BIO_new(BIO_s_mem()));
    const bool good = CMS_verify(structure.get(), stack.get(), nullptr, content.get(), out.get(),
                                 CMS_BINARY | CMS_NO_SIGNER_CERT_VERIFY) == 1 &&
                      contentOf(out.get()) == over;
    ERR_clear_error();
    return good ? Answer{Answer::done} : Answer{Answer::wrong, "the signature is not good"};
}

Operation signsAsPrescribed() {
    const auto pair = pairOf(alice());
    return {.name = "SignerMediaOut", .act = [pair] {
                Target target;
                CMS::SignerMediaOut signer(Hasher::SHA256, pair);
                signer.attach(target);
                writeInPieces(signer, body(), 1000);
                signer.end();
                return verified(target, body(), alice());
            }};
}

Operation signs(const std::string& name, const Identity& who,
                const std::function<void(SignedWriter::Options&)>& change) {
    SignedWriter::Options options;
    options.signers.emplace_back(pairOf(who));
    options.memory = 500;
    options.spillFile = "/tmp/faultsXXXXXX";
    change(options);
    return {.name = "SignedWriter " + name, .act = [options, &who] {
                Target target;
                SignedWriter writer(options);
                writer.attach(target);
                writeInPieces(writer, body(), 1000);
                writer.end();
                return verified(target, body(), who);
            }};
}

Operation signsADigest() {
    const Crypto::RefKey key = pairOf(alice())->key;
    return {.name = "Signer", .act = [key] {
                const Crypto::SignerRef signer(Hasher::SHA256);
                signer->signingKey(key);
                signer->update(body().data(), static_cast<unsigned int>(body().size()));
                const Norvane::Buffer signature = signer->sign();
                const faults::Pause pause;
                const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                                      EVP_MD_CTX_free);
                const bool good =
                    EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, alice().key.get()) == 1 &&
                    EVP_DigestVerify(context.get(), signature.data(), signature.length(), body().data(),
                                     body().size()) == 1;
                ERR_clear_error();
                return good ? Answer{Answer::done} : Answer{Answer::wrong, "the signature is not good"};
            }};
}

} // namespace faultsofmessages
