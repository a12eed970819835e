// A byte that chooses an extension, then its value: every accessor, and comparisons of its general names.
#include "Driver.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto/CRLDistributionPoint.h>
#include <norvcrypto/Extension.h>

#include <openssl/x509v3.h>

#include <list>
#include <memory>

using namespace Norvane;
using namespace Norvane::Crypto::NVX509;

namespace {

void look(const GeneralName& name) {
    fuzz::require(isDisplayable(displayName(name.dn())));
    const std::string address = name.emailAddress().address();
    fuzz::require(name.type() == GEN_EMAIL || address.empty());
    fuzz::require(name.type() == GEN_URI || name.uri().isNull());
    fuzz::require(name.type() == GEN_IPADD || name.ipAddress().isNull());
    fuzz::require(name.type() == GEN_DIRNAME || name.dn().isNull());
    const GeneralName copy(name);
    fuzz::require(copy == name && copy.type() == name.type() && copy.emailAddress().address() == address);
}

/// A few with each other; each with each would be a product that nobody asks for.
void look(const std::list<GeneralName>& names) {
    const GeneralName* before = nullptr;
    for (const GeneralName& name : names) {
        look(name);
        if (before != nullptr) {
            fuzz::require((*before == name) == (name == *before));
            fuzz::require(!(*before == name) || before->type() == name.type());
        }
        before = &name;
    }
}

void read(unsigned int kind, const unsigned char* octets, unsigned int length) {
    switch (kind % 5) {
    case 0: {
        const RefAuthorityKeyIdentifier identifier(octets, length);
        if (!identifier.isNull()) {
            static_cast<void>(identifier->keyId());
        }
        return;
    }
    case 1:
        static_cast<void>(RefBasicConstraints(octets, length).isNull());
        return;
    case 2: {
        const RefSubjectAlternativeName name(octets, length);
        if (!name.isNull()) {
            look(name->names());
        }
        return;
    }
    case 3: {
        const RefAuthorityInformationAccess access(octets, length);
        if (!access.isNull()) {
            look(access->ocspGeneralNames());
            look(access->issuerGeneralNames());
        }
        return;
    }
    default: {
        const RefCRLDistributionPoints points(octets, length);
        if (points.isNull()) {
            return;
        }
        for (const auto& point : points->distributionPoints()) {
            look(point->issuers());
            look(point->distributionPointName().fullName());
        }
    }
    }
}

/// As an extension of which nothing is known: converted to each type.
void convert(const Buffer& input) {
    const unsigned char* at = input.data();
    const std::unique_ptr<X509_EXTENSION, decltype(&X509_EXTENSION_free)> structure(
        d2i_X509_EXTENSION(nullptr, &at, static_cast<long>(input.length())), X509_EXTENSION_free);
    ERR_clear_error();
    if (!structure) {
        return;
    }
    const RefExtension extension(structure.get());
    static_cast<void>(extension->critical());
    static_cast<void>(extension->identifier());
    static_cast<void>(extension->derEncodedValue());
    RefBasicConstraints constraints;
    constraints = extension;
    RefAuthorityKeyIdentifier identifier;
    identifier = extension;
    if (const RefSubjectAlternativeName name(extension); !name.isNull()) {
        look(name->names());
    }
    if (const RefAuthorityInformationAccess access(extension); !access.isNull()) {
        look(access->ocspGeneralNames());
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const unsigned int kind = data[0];
    return fuzz::run(data + 1, size - 1, [kind](const Buffer& input) {
        if ((kind & 0x80U) != 0) {
            convert(input);
        } else {
            read(kind, input.data(), input.length());
        }
    });
}
