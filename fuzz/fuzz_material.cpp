// A file that a verifier is given: certificates, lists or a structure that holds both. What cannot be used is told.
#include "Driver.h"

#include <norvcmsg/Escape.h>
#include <norvcrypto-trust/TrustMaterial.h>

#include <sys/mman.h>
#include <unistd.h>

#include <string>

using namespace Norvane;
using Norvane::Crypto::Trust::Material;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return fuzz::run(data, size, [](const Buffer& input) {
        const int descriptor = memfd_create("material", 0);
        fuzz::require(write(descriptor, input.data(), input.length()) == static_cast<ssize_t>(input.length()));
        const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
        Material material;
        material.addAnchors(path);
        material.addUntrusted(path);
        material.addLists(path);
        for (const Material::Problem& problem : material.problems()) {
            fuzz::require(problem.path == path && !problem.reason.empty() && isDisplayable(problem.reason));
        }
        const Material::Counts before = material.counts();
        fuzz::require(material.anchors().size() == before.anchors);
        material.reload();
        const Material::Counts after = material.counts();
        fuzz::require(before.anchors == after.anchors && before.untrusted == after.untrusted &&
                      before.lists == after.lists);
        close(descriptor);
    });
}
