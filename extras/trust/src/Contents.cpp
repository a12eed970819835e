// What the bytes of one file hold.

#include "OpenSsl.h"
#include "Reading.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/Media.h>
#include <norvcrypto/Acceptance.h>
#include <norvcrypto/CMS.h>
#include <norvcrypto/EncodedKind.h>

#include <openssl/pem.h>

#include <algorithm>
#include <string_view>

namespace Norvane::Crypto::Trust::detail {

namespace {

using NVX509::CertificateFactory;
using NVX509::CertificateRevocationListFactory;
using NVX509::RefCertificate;
using NVX509::RefCertificateRevocationList;

void addCertificate(const Buffer& der, const std::string& which, FileContents& contents) {
    RefCertificate certificate = CertificateFactory().readDER(der);
    if (certificate.isNull()) {
        const std::string refused = refusal(der);
        contents.problems.push_back(refused.empty() ? which + "does not decode" : (which + "is ").append(refused));
        return;
    }
    certificate->warm();
    contents.certificates.push_back(std::move(certificate));
}

void addList(const Buffer& der, const std::string& which, FileContents& contents) {
    RefCertificateRevocationList list = CertificateRevocationListFactory().readDER(der);
    if (list.isNull()) {
        contents.problems.push_back(which + "does not decode");
        return;
    }
    list->warm();
    contents.lists.push_back(std::move(list));
}

/// The certificates and lists of a structure outlive it: OpenSSL counts the handles on them.
void addStructure(const Buffer& der, const std::string& which, FileContents& contents) {
    const auto isOfNoUse = [&] {
        contents.problems.push_back(which + "is a structure that does not decode, or is no signed data");
    };
    try {
        MemoryMediaIn source(der);
        const CMS::RefContentInfo structure(source);
        if (const PKCS7* const decoded = structure; decoded == nullptr || !PKCS7_type_is_signed(decoded)) {
            isOfNoUse();
            return;
        }
        const auto signedData = CMS::signedData(structure);
        for (const RefCertificate& one : signedData.certificates()) {
            if (X509* const x509 = one; x509 != nullptr && X509_up_ref(x509) == 1) {
                contents.certificates.push_back(CertificateFactory()(x509, true));
                contents.certificates.back()->warm();
            }
        }
        for (const RefCertificateRevocationList& one : signedData.certificateRevocationLists()) {
            if (X509_CRL* const list = one; list != nullptr && X509_CRL_up_ref(list) == 1) {
                contents.lists.push_back(CertificateRevocationListFactory()(list, true));
                contents.lists.back()->warm();
            }
        }
    } catch (const Exception&) {
        isOfNoUse();
    }
}

/// Whether anything but blanks stands behind the first element, which decoders leave unread. Not told of one without a length.
bool goesOn(const Buffer& der) {
    const unsigned char* at = der.data();
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    const int form = ASN1_get_object(&at, &length, &tag, &tagClass, static_cast<long>(der.length()));
    constexpr int unreadable = 0x80;
    constexpr int indefinite = 1;
    const unsigned char* const end = der.data() + der.length();
    return (form & (unreadable | indefinite)) == 0 && std::any_of(at + length, end, [](unsigned char octet) {
               return std::string_view(" \t\r\n").find(static_cast<char>(octet)) == std::string_view::npos;
           });
}

void addEncoded(const Buffer& der, const std::string& which, FileContents& contents) {
    switch (encodedKind(der)) {
    case EncodedKind::certificate:
        addCertificate(der, which, contents);
        break;
    case EncodedKind::certificateRevocationList:
        addList(der, which, contents);
        break;
    case EncodedKind::contentInfo:
        addStructure(der, which, contents);
        break;
    default:
        contents.problems.push_back(which + "is no certificate and no revocation list");
    }
}

/// One block of a PEM text.
struct Block {
    Owned<char> name, header;
    Owned<unsigned char> bytes;
    long length = 0;
};

/// The next block; false at the end. \throws Unreadable: a damaged one, behind which reading may go on
bool nextBlock(BIO* source, Block& block) {
    const QuietQuestion quiet;
    char* name = nullptr;
    char* header = nullptr;
    unsigned char* bytes = nullptr;
    const bool read = PEM_read_bio(source, &name, &header, &bytes, &block.length) == 1;
    block.name.reset(name);
    block.header.reset(header);
    block.bytes.reset(bytes);
    if (!read && ERR_GET_REASON(ERR_peek_last_error()) != PEM_R_NO_START_LINE) {
        throw Unreadable("is damaged");
    }
    return read;
}

void addBlock(const Block& block, const std::string& which, FileContents& contents) {
    const std::string_view name = block.name.get();
    const bool certificate = name == PEM_STRING_X509 || name == PEM_STRING_X509_OLD;
    const bool list = name == PEM_STRING_X509_CRL;
    const bool structure = name == PEM_STRING_PKCS7 || name == PEM_STRING_PKCS7_SIGNED || name == PEM_STRING_CMS;
    if (name == PEM_STRING_X509_TRUSTED) {
        contents.problems.push_back(which +
                                    "is of OpenSSL's own kind TRUSTED CERTIFICATE, which is not read: write it as "
                                    "CERTIFICATE (openssl x509 does)");
    } else if ((certificate || list || structure) && block.header && *block.header != '\0') {
        contents.problems.push_back(which + "is encrypted");
    } else if (certificate || list || structure) {
        const Buffer der(block.bytes.get(), static_cast<unsigned int>(block.length), false);
        certificate ? addCertificate(der, which, contents)
        : list      ? addList(der, which, contents)
                    : addStructure(der, which, contents);
    }
}

void addPem(const Buffer& text, FileContents& contents) {
    const auto source = made(BIO_new_mem_buf(text.data(), static_cast<int>(text.length())));
    std::size_t count = 0;
    for (;;) {
        const std::string which = "block " + std::to_string(++count) + " in it ";
        const auto left = BIO_ctrl_pending(source.get());
        try {
            Block block;
            if (!nextBlock(source.get(), block)) {
                break;
            }
            addBlock(block, which, contents);
        } catch (const Unreadable& damage) {
            contents.problems.push_back(which + damage.what());
            if (BIO_ctrl_pending(source.get()) == left) {
                break;
            }
        }
    }
}

/// The text in front of PEM may begin with "0", as DER does, which has more than letters in front of what may look like PEM in it.
bool isDer(const Buffer& bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.length());
    if (!text.starts_with('0')) {
        return false;
    }
    const auto block = text.find("\n-----BEGIN ");
    const auto isOfText = [](char one) {
        return (one >= ' ' && one <= '~') || one == '\t' || one == '\r' || one == '\n';
    };
    return block == std::string_view::npos || !std::all_of(text.begin(), text.begin() + block, isOfText);
}

} // namespace

FileContents contentsOf(const Buffer& bytes) {
    const QuietQuestion quiet;
    FileContents contents;
    if (isDer(bytes)) {
        addEncoded(bytes, "", contents);
        if (contents.problems.empty() && goesOn(bytes)) {
            contents.problems.emplace_back(
                "goes on behind its first object, which alone is read: several can be in PEM");
        }
    } else {
        addPem(bytes, contents);
    }
    if (contents.certificates.empty() && contents.lists.empty() && contents.problems.empty()) {
        contents.problems.emplace_back("holds no certificate and no revocation list");
    }
    return contents;
}

} // namespace Norvane::Crypto::Trust::detail
