// What is declared and not written yet.
#include <norvcrypto-trust/Trust.h>
#include <norvcrypto-trust/TrustSender.h>

#include <norvcmsg/Exception.h>

namespace Norvane::Crypto::Trust {

namespace {
[[noreturn]] void unfinished(const char* where) {
    throw Exception(where, 4, "Trust", __LINE__).stringParameter("not written yet");
}
} // namespace

namespace detail {
class Sources {};
class Cache {};
} // namespace detail

std::string listCacheName(const std::string& /*uri*/) {
    unfinished("listCacheName");
}
Material::Material() = default;
Material::~Material() = default;
void Material::addAnchors(const std::string& /*path*/) {
    unfinished("Material");
}
void Material::addUntrusted(const std::string& /*path*/) {
    unfinished("Material");
}
void Material::addLists(const std::string& /*path*/) {
    unfinished("Material");
}
void Material::addListCache(const std::string& /*path*/) {
    unfinished("Material");
}
void Material::addAnchor(const NVX509::RefCertificate& /*certificate*/) {
    unfinished("Material");
}
void Material::addUntrusted(const NVX509::RefCertificate& /*certificate*/) {
    unfinished("Material");
}
void Material::addList(const NVX509::RefCertificateRevocationList& /*list*/) {
    unfinished("Material");
}
void Material::reload() {}
std::vector<Material::Problem> Material::problems() const {
    return {};
}
Material::Counts Material::counts() const {
    return {};
}
std::vector<NVX509::RefCertificate> Material::anchors() const {
    return {};
}

Verifier::Verifier(std::shared_ptr<const Material> material, const Options& defaults, const CacheLimits& /*limits*/)
    : m_material(std::move(material)),
      m_defaults(defaults) {}
Verifier::~Verifier() = default;
Verdict Verifier::judge(const NVX509::RefCertificate& /*certificate*/, const std::list<NVX509::RefCertificate>& /*c*/,
                        const std::list<NVX509::RefCertificateRevocationList>& /*l*/,
                        const Options& /*options*/) const {
    unfinished("Verifier");
}
Verdict Verifier::judge(const NVX509::RefCertificate& certificate) const {
    return judge(certificate, {}, {}, m_defaults);
}
bool Verifier::isValid(const NVX509::RefCertificate& /*certificate*/, int /*purpose*/, bool /*online*/) {
    return false;
}
CacheCounts Verifier::cacheCounts() const {
    return {};
}

SenderMatch matchSender(const NVX509::RefCertificate& /*certificate*/, const std::vector<std::string>& /*from*/,
                        const std::string& /*sender*/) {
    unfinished("matchSender");
}
std::string comparableAddress(const std::string& /*address*/) {
    unfinished("comparableAddress");
}

} // namespace Norvane::Crypto::Trust
