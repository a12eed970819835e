#include "read/CertificateFile.h"
#include "base/Failure.h"
#include "recognise/DerAndPem.h"

namespace norvcrypt {

namespace NVX509 = Norvane::Crypto::NVX509;

std::list<NVX509::RefCertificate> readCertificates(Inputs& inputs, const std::string& path) {
    const NVX509::CertificateFactory factory;
    std::list<NVX509::RefCertificate> certificates;
    for (const FoundObject& object : objectsIn(inputs.readAll(path, true))) {
        if (!object.problem.empty())
            throw Failure(inputName(path) + ": " + object.problem);
        if (object.kind != ObjectKind::certificate)
            continue;
        const NVX509::RefCertificate certificate = factory.readDER(object.der);
        if (certificate.isNull())
            throw Failure(inputName(path) + ": malformed certificate");
        certificates.push_back(certificate);
    }
    if (certificates.empty())
        throw Failure("no certificate in " + inputName(path));
    return certificates;
}

} // namespace norvcrypt
