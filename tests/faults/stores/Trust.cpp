#include "Operations.h"

#include "support/TemporaryFolder.h"

#include <norvcrypto-trust/Trust.h>

#include <filesystem>
#include <fstream>

namespace faultsofstores {

namespace Trust = Norvane::Crypto::Trust;

const Chain& chain() {
    static const Chain made;
    return made;
}

Operation judges(const std::string& name, const Identity& who, const Identity& anchor, bool bad) {
    const auto material = std::make_shared<Trust::Material>();
    material->addAnchor(certificateOf(anchor));
    material->addUntrusted(certificateOf(chain().middle));
    material->addList(x509testing::read(chain().rootList));
    material->addList(x509testing::read(chain().middleList)); // asked for its number before the other one
    material->addList(x509testing::read(chain().replacedList));
    Trust::Options options;
    options.revocation = Trust::Revocation::required;
    const auto verifier = std::make_shared<Trust::Verifier>(material, options,
                                                            Trust::CacheLimits{.entries = 0, .bytes = 0, .seconds = 0});
    return {
        .name = "Trust::Verifier " + name,
        .act =
            [=] {
                NVX509::RefCertificate certificate;
                {
                    const faults::Pause pause;
                    certificate = certificateOf(who);
                }
                const Trust::Verdict verdict = verifier->judge(certificate);
                const faults::Pause pause;
                if (verdict.accepted) {
                    return verdict.chain.size() == 3 ? Answer{Answer::done} : Answer{Answer::wrong, "a short chain"};
                }
                return verdict.reasons.empty() ? Answer{Answer::wrong, "no reason"}
                                               : Answer{Answer::refused, verdict.reasons.front().text};
            },
        .mustRefuse = bad};
}

Operation loadsMaterial() {
    const auto folder = std::make_shared<norvtest::TemporaryFolder>();
    std::ofstream(folder->path("roots.pem")) << chain().root.certificate.pem() << chain().stranger.certificate.pem();
    std::filesystem::create_directory(folder->path("lists"));
    std::ofstream(folder->path("lists/one")) << chain().rootList.pem();
    std::ofstream(folder->path("lists/two")) << chain().middleList.pem();
    return {.name = "Trust::Material",
            .act =
                [=] {
                    Trust::Material material;
                    material.addAnchors(folder->path("roots.pem"));
                    material.addLists(folder->path("lists"));
                    material.reload();
                    const auto counts = material.counts();
                    const faults::Pause pause;
                    if (counts.anchors == 2 && counts.lists == 2) {
                        return Answer{Answer::done};
                    }
                    return material.problems().empty()
                               ? Answer{Answer::wrong, "something is missing, and nobody is told"}
                               : Answer{Answer::refused, material.problems().front().reason};
                },
            .mayRefuse = true};
}

} // namespace faultsofstores
