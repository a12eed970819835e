// NSS: digests and ciphers of its software token, and its CMS, with a database that holds the key.
#include "Contestants.h"

#include <nss/cert.h>
#include <nss/cms.h>
#include <nss/nss.h>
#include <nss/pk11pub.h>
#include <nss/secoid.h>

#include <memory>

namespace bench {

namespace {

constexpr const char* who = "NSS";

using MessagePtr = std::unique_ptr<NSSCMSMessage, With<NSS_CMSMessage_Destroy>>;
using SlotPtr = std::unique_ptr<PK11SlotInfo, With<PK11_FreeSlot>>;
using SymKeyPtr = std::unique_ptr<PK11SymKey, With<PK11_FreeSymKey>>;
struct FreeArena {
    void operator()(PLArenaPool* arena) const noexcept { PORT_FreeArena(arena, PR_FALSE); }
};
using ArenaPtr = std::unique_ptr<PLArenaPool, FreeArena>;

SECItem itemOf(const unsigned char* data, std::size_t length) {
    return {siBuffer, const_cast<unsigned char*>(data), static_cast<unsigned int>(length)};
}

const unsigned char s_key[32] = {1};
const unsigned char s_vector[16] = {2};

/// Counts what it is given.
void take(void* count, const char* /*data*/, unsigned long length) {
    *static_cast<unsigned long*>(count) += length;
}

struct ContextDeleter {
    void operator()(PK11Context* context) const noexcept { PK11_DestroyContext(context, PR_TRUE); }
};
using ContextPtr = std::unique_ptr<PK11Context, ContextDeleter>;

Bytes crypted(const Bytes& bytes, CK_ATTRIBUTE_TYPE direction, bool collect) {
    const SlotPtr slot(PK11_GetInternalSlot());
    SECItem keyItem = itemOf(s_key, sizeof s_key);
    SECItem vectorItem = itemOf(s_vector, sizeof s_vector);
    const SymKeyPtr key(
        PK11_ImportSymKey(slot.get(), CKM_AES_CBC_PAD, PK11_OriginUnwrap, direction, &keyItem, nullptr));
    SECItem* parameter = PK11_ParamFromIV(CKM_AES_CBC_PAD, &vectorItem);
    const ContextPtr context(PK11_CreateContextBySymKey(CKM_AES_CBC_PAD, direction, key.get(), parameter));
    SECITEM_FreeItem(parameter, PR_TRUE);
    require(context != nullptr, "no cipher");
    Bytes all;
    unsigned char out[piece + 32];
    inPieces(bytes, bytes.size(), [&](const unsigned char* data, unsigned int length) {
        int count = 0;
        require(PK11_CipherOp(context.get(), out, &count, sizeof out, data, static_cast<int>(length)) == SECSuccess,
                "not done");
        if (collect) {
            all.insert(all.end(), out, out + count);
        }
    });
    unsigned int last = 0;
    require(PK11_DigestFinal(context.get(), out, &last, sizeof out) == SECSuccess, "not done");
    if (collect) {
        all.insert(all.end(), out, out + last);
    }
    return all;
}

Run crypting(std::size_t size, CK_ATTRIBUTE_TYPE direction) {
    auto bytes = std::make_shared<Bytes>(body(size).begin(), body(size).begin() + static_cast<std::ptrdiff_t>(size));
    if (direction == CKA_DECRYPT) {
        bytes->pop_back();
        *bytes = crypted(*bytes, CKA_ENCRYPT, true);
    }
    return [bytes, direction] { keep(crypted(*bytes, direction, false)); };
}

/// A message whose content a body is, encoded to nowhere.
void encode(NSSCMSMessage* message, std::size_t size) {
    unsigned long count = 0;
    NSSCMSEncoderContext* encoder = NSS_CMSEncoder_Start(message, take, &count, nullptr, nullptr, nullptr, nullptr,
                                                         nullptr, nullptr, nullptr, nullptr);
    require(encoder != nullptr, "not started");
    inPieces(body(size), size, [&](const unsigned char* data, unsigned int length) {
        NSS_CMSEncoder_Update(encoder, reinterpret_cast<const char*>(data), length);
    });
    require(NSS_CMSEncoder_Finish(encoder) == SECSuccess && count != 0, "not encoded");
}

Run signing(CERTCertificate* certificate, std::size_t size, bool detached) {
    return [certificate, size, detached] {
        const MessagePtr message(NSS_CMSMessage_Create(nullptr));
        NSSCMSSignedData* data = NSS_CMSSignedData_Create(message.get());
        NSS_CMSContentInfo_SetContent_SignedData(message.get(), NSS_CMSMessage_GetContentInfo(message.get()), data);
        NSS_CMSContentInfo_SetContent_Data(message.get(), NSS_CMSSignedData_GetContentInfo(data), nullptr,
                                           detached ? PR_TRUE : PR_FALSE);
        NSSCMSSignerInfo* signer = NSS_CMSSignerInfo_Create(message.get(), certificate, SEC_OID_SHA256);
        require(signer != nullptr &&
                    NSS_CMSSignerInfo_IncludeCerts(signer, NSSCMSCM_CertOnly, certUsageEmailSigner) == SECSuccess &&
                    NSS_CMSSignedData_AddSignerInfo(data, signer) == SECSuccess,
                "no signer");
        encode(message.get(), size);
    };
}

Run enveloping(CERTCertificate* certificate, std::size_t size, std::size_t recipients) {
    return [certificate, size, recipients] {
        const MessagePtr message(NSS_CMSMessage_Create(nullptr));
        NSSCMSEnvelopedData* data = NSS_CMSEnvelopedData_Create(message.get(), SEC_OID_AES_256_CBC, 256);
        NSS_CMSContentInfo_SetContent_EnvelopedData(message.get(), NSS_CMSMessage_GetContentInfo(message.get()), data);
        NSS_CMSContentInfo_SetContent_Data(message.get(), NSS_CMSEnvelopedData_GetContentInfo(data), nullptr, PR_FALSE);
        for (std::size_t i = 0; i != recipients; ++i) {
            NSSCMSRecipientInfo* recipient = NSS_CMSRecipientInfo_Create(message.get(), certificate);
            require(recipient != nullptr && NSS_CMSEnvelopedData_AddRecipient(data, recipient) == SECSuccess,
                    "no recipient");
        }
        encode(message.get(), size);
    };
}

MessagePtr decoded(const Bytes& bytes, unsigned long& count) {
    NSSCMSDecoderContext* decoder = NSS_CMSDecoder_Start(nullptr, take, &count, nullptr, nullptr, nullptr, nullptr);
    inPieces(bytes, bytes.size(), [&](const unsigned char* data, unsigned int length) {
        NSS_CMSDecoder_Update(decoder, reinterpret_cast<const char*>(data), length);
    });
    MessagePtr message(NSS_CMSDecoder_Finish(decoder));
    require(message != nullptr, "not decoded");
    return message;
}

Run opening(const Bytes& bytes, std::size_t size) {
    const auto secret = std::make_shared<Bytes>(bytes);
    return [secret, size] {
        unsigned long count = 0;
        const MessagePtr message = decoded(*secret, count);
        require(count == size, "not decrypted");
    };
}

/// It checks the signer's certificate too, which cannot be left out.
Run verifying(const Bytes& bytes, std::size_t size, bool detached) {
    const auto structure = std::make_shared<Bytes>(bytes);
    return [structure, size, detached] {
        unsigned long count = 0;
        const MessagePtr message = decoded(*structure, count);
        auto* data = static_cast<NSSCMSSignedData*>(
            NSS_CMSContentInfo_GetContent(NSS_CMSMessage_ContentLevel(message.get(), 0)));
        if (detached) {
            SECAlgorithmID** algorithms = NSS_CMSSignedData_GetDigestAlgs(data);
            NSSCMSDigestContext* digests = NSS_CMSDigestContext_StartMultiple(algorithms);
            inPieces(body(size), size, [&](const unsigned char* piece, unsigned int length) {
                NSS_CMSDigestContext_Update(digests, piece, static_cast<int>(length));
            });
            const ArenaPtr arena(PORT_NewArena(1024));
            SECItem** values = nullptr;
            require(NSS_CMSDigestContext_FinishMultiple(digests, arena.get(), &values) == SECSuccess &&
                        NSS_CMSSignedData_SetDigests(data, algorithms, values) == SECSuccess,
                    "not digested");
        }
        CERTCertDBHandle* database = CERT_GetDefaultCertDB();
        require(NSS_CMSSignedData_ImportCerts(data, database, certUsageEmailSigner, PR_FALSE) == SECSuccess &&
                    NSS_CMSSignedData_VerifySignerInfo(data, 0, database, certUsageEmailSigner) == SECSuccess,
                "not verified");
    };
}

} // namespace

void addNss(Contest& contest, const Material& material) {
    if (NSS_Initialize(("sql:" + material.folder + "/nss").c_str(), "", "", SECMOD_DB, NSS_INIT_READONLY) !=
        SECSuccess) {
        std::fprintf(stderr, "NSS is left out: it does not open its database\n");
        return;
    }
    CERTCertificate* certificate = PK11_FindCertFromNickname("bench", nullptr);
    contest.add("digest", who, [](std::size_t size) -> Run {
        return [size] {
            const ContextPtr context(PK11_CreateDigestContext(SEC_OID_SHA256));
            PK11_DigestBegin(context.get());
            inPieces(body(size), size, [&](const unsigned char* data, unsigned int length) {
                PK11_DigestOp(context.get(), data, length);
            });
            unsigned char out[64];
            unsigned int length = 0;
            require(PK11_DigestFinal(context.get(), out, &length, sizeof out) == SECSuccess, "no digest");
            keep(out);
        };
    });
    contest.add("encrypt", who, [](std::size_t size) { return crypting(size, CKA_ENCRYPT); });
    contest.add("decrypt", who, [](std::size_t size) { return crypting(size, CKA_DECRYPT); });
    if (certificate == nullptr) {
        std::fprintf(stderr, "NSS has no certificate: its CMS is left out\n");
        return;
    }
    contest.add("sign", who, [certificate](std::size_t size) { return signing(certificate, size, true); });
    contest.add("sign attached", who, [certificate](std::size_t size) { return signing(certificate, size, false); });
    contest.add("verify", who,
                [&material](std::size_t size) { return verifying(material.signedMessage(size, true), size, true); });
    contest.add("verify attached", who,
                [&material](std::size_t size) { return verifying(material.signedMessage(size, false), size, false); });
    contest.add("envelope", who, [certificate](std::size_t size) { return enveloping(certificate, size, 1); });
    contest.add("envelope for recipients", who,
                [certificate](std::size_t count) { return enveloping(certificate, 1024, count); });
    contest.add("open", who, [&material](std::size_t size) { return opening(material.envelopedMessage(size), size); });
    contest.add("open BER", who,
                [&material](std::size_t size) { return opening(material.envelopedMessage(size, true), size); });
    contest.add("open as last of recipients", who, [&material](std::size_t count) {
        return opening(material.envelopedMessage(1024, false, count), 1024);
    });
}

} // namespace bench
