// What OpenSSL's decoder refuses in a message is refused by the readers that take messages apart themselves, also where they
// have no use for it.
#include "HandMade.h"

namespace {

using namespace cmstest;

const Bytes kek(16, 0x42);

/// How an otherwise sound message for a key-encryption key departs from one.
struct Departure {
    std::string name{};
    Bytes version = der::integer("2");
    Bytes recipientVersion = der::integer("4");
    Bytes identifier = der::sequence({der::octetString({'k'})});
    Bytes contentType = der::oid("1.2.840.113549.1.7.1");
};

Bytes messageOf(const Departure& parts) {
    const Bytes key = contentKey();
    const Bytes vector(16, 0x11);
    const CipherContext context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    EVP_EncryptInit_ex(context.get(), EVP_aes_128_cbc(), nullptr, key.data(), vector.data());
    const Bytes recipient = cmstest::context(
        2, der::concat({parts.recipientVersion, parts.identifier, der::sequence({der::oid("2.16.840.1.101.3.4.1.5")}),
                        der::octetString(aesWrapped(kek, key))}));
    const Bytes encrypted =
        der::sequence({parts.contentType, der::sequence({der::oid("2.16.840.1.101.3.4.1.2"), der::octetString(vector)}),
                       contentElement(encryptedWith(context.get(), bodyOf(100)))});
    return der::sequence({der::oid("1.2.840.113549.1.7.3"),
                          cmstest::context(0, der::sequence({parts.version, der::set({recipient}), encrypted}))});
}

bool decodes(const Bytes& message) {
    const unsigned char* at = message.data();
    const CmsStructure decoded(d2i_CMS_ContentInfo(nullptr, &at, static_cast<long>(message.size())));
    ERR_clear_error();
    return decoded != nullptr;
}

bool opens(const Bytes& message) {
    try {
        Norvane::MemoryMediaIn in(bufferOf(message));
        Reader reader(in);
        if (!withSecretKey(kek)(reader)) {
            return false;
        }
        Norvane::MemoryMediaOut out;
        reader.write(out);
        return reader.verdict() == Reader::Complete && bytesOf(out.content()) == bodyOf(100);
    } catch (const Norvane::Exception&) {
        return false;
    }
}

TEST(EnvelopeReaderStrictness, OpensWhatIsSound) {
    EXPECT_TRUE(decodes(messageOf({})));
    EXPECT_TRUE(opens(messageOf({})));
    const Bytes dated = der::sequence({der::octetString({'k'}), der::element(0x18, bytesOf("20260101000000Z")),
                                       der::sequence({der::oid("1.2.3"), der::null()})});
    EXPECT_TRUE(decodes(messageOf({.identifier = dated})));
    EXPECT_TRUE(opens(messageOf({.identifier = dated})));
}

TEST(EnvelopeReaderStrictness, RefusesWhatOpensslDoesNotDecode) {
    const Bytes octets = der::octetString({'k'});
    const std::vector<Departure> all{
        {.name = "constructed version", .version = {0x22, 0x01, 0x02}},
        {.name = "padded version", .version = {0x02, 0x02, 0x00, 0x02}},
        {.name = "version of 40 bits", .version = {0x02, 0x05, 0x01, 0x00, 0x00, 0x00, 0x00}},
        {.name = "no version of the recipient", .recipientVersion = {}},
        {.name = "constructed version of the recipient", .recipientVersion = {0x22, 0x01, 0x04}},
        {.name = "primitive sequence", .identifier = der::element(0x10, octets)},
        {.name = "attribute without a type", .identifier = der::sequence({octets, der::sequence({})})},
        {.name = "attribute of something else", .identifier = der::sequence({octets, der::null()})},
        {.name = "two values",
         .identifier = der::sequence({octets, der::sequence({der::oid("1.2.3"), der::null(), der::null()})})},
        {.name = "constructed content type", .contentType = der::element(0x26, Bytes{0x2A, 0x03})},
        {.name = "content type that goes on", .contentType = {0x06, 0x02, 0x2A, 0x83}},
        {.name = "content type with padding", .contentType = {0x06, 0x03, 0x2A, 0x80, 0x01}},
        {.name = "empty content type", .contentType = {0x06, 0x00}},
    };
    for (const Departure& departure : all) {
        EXPECT_FALSE(decodes(messageOf(departure))) << departure.name;
        EXPECT_FALSE(opens(messageOf(departure))) << departure.name;
    }
}

} // namespace
