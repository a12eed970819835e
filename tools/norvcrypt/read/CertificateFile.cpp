#include "read/CertificateFile.h"
#include "base/Failure.h"
#include "recognise/DerAndPem.h"
#include "recognise/WhatElse.h"

#include <norvcrypto/Acceptance.h>

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;

std::list<NVX509::RefCertificate> readCertificates(Inputs& inputs, const std::string& path) {
    const NVX509::CertificateFactory factory;
    std::list<NVX509::RefCertificate> certificates;
    const Norvane::Buffer content = inputs.readAll(path, true);
    for (const FoundObject& object : objectsIn(content)) {
        if (!object.problem.empty())
            throw Failure("no certificate in " + inputName(path) + ": " + object.problem);
        if (object.kind != ObjectKind::certificate)
            continue;
        const NVX509::RefCertificate certificate = factory.readDER(object.der);
        if (certificate.isNull()) {
            const std::string refusal = Norvane::Crypto::refusal(object.der);
            throw Failure(inputName(path) + ": " +
                          (refusal.empty() ? std::string("malformed certificate") : "certificate " + refusal));
        }
        certificates.push_back(certificate);
    }
    if (certificates.empty())
        throw Failure("no certificate in " + inputName(path) + whatElseIsIn(content));
    return certificates;
}

} // namespace norvcrypt
