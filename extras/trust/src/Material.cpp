#include <norvcrypto-trust/TrustMaterial.h>

#include "Reading.h"
#include "Snapshot.h"

#include <norvcmsg/Exception.h>
#include <norvcmsg/Mutex.h>

#include <utility>

namespace Norvane::Crypto::Trust {

namespace detail {

/// What was added, and the snapshot of it.
class Sources {
public:
    void addPath(Kind kind, const std::string& path);
    void addObject(Kind kind, FileContents contents);
    void reload();
    [[nodiscard]] std::shared_ptr<const Snapshot> snapshot();

private:
    [[nodiscard]] Source load(Kind kind, const std::string& path);
    [[nodiscard]] std::shared_ptr<const Snapshot> replace(std::shared_ptr<const Snapshot> other);

    Mutex m_loading; ///< guards the sources and their cache
    std::vector<Source> m_sources;
    FileCache m_files;
    Mutex m_mutex;                              ///< guards the handle, and is never held for longer than its copy
    std::shared_ptr<const Snapshot> m_snapshot; ///< null: to be made of the sources when it is asked for
};

Source Sources::load(Kind kind, const std::string& path) {
    try {
        return {kind, path,
                readPath(path, kind == Kind::listCache ? Expected::directory : Expected::fileOrDirectory, m_files)};
    } catch (const Unreadable& reason) {
        throw Exception("Trust::Material", 4, "TrustMaterial", __LINE__).stringParameter(path + ": " + reason.what());
    }
}

std::shared_ptr<const Snapshot> Sources::replace(std::shared_ptr<const Snapshot> other) {
    const Synchronized lock(m_mutex);
    m_snapshot.swap(other);
    return other;
}

void Sources::addPath(Kind kind, const std::string& path) {
    const Synchronized loading(m_loading);
    m_sources.push_back(load(kind, path));
    static_cast<void>(replace(nullptr));
}

void Sources::addObject(Kind kind, FileContents contents) {
    const Synchronized loading(m_loading);
    Source source{kind, "", {}};
    source.read.files.push_back({"", std::make_shared<const FileContents>(std::move(contents))});
    m_sources.push_back(std::move(source));
    static_cast<void>(replace(nullptr));
}

void Sources::reload() {
    const Synchronized loading(m_loading);
    m_files.forgetUnused();
    std::vector<Source> fresh;
    for (const Source& source : m_sources) {
        fresh.push_back(source.path.empty() ? source : load(source.kind, source.path));
    }
    const auto earlier = replace(std::make_shared<const Snapshot>(fresh));
    m_sources.swap(fresh);
}

std::shared_ptr<const Snapshot> Sources::snapshot() {
    {
        const Synchronized lock(m_mutex);
        if (m_snapshot) {
            return m_snapshot;
        }
    }
    const Synchronized loading(m_loading);
    {
        const Synchronized lock(m_mutex);
        if (m_snapshot) {
            return m_snapshot;
        }
    }
    auto snapshot = std::make_shared<const Snapshot>(m_sources);
    static_cast<void>(replace(snapshot));
    return snapshot;
}

} // namespace detail

std::string listCacheName(const std::string& uri) {
    constexpr const char* digits = "0123456789abcdef";
    std::string name;
    for (const unsigned int byte : detail::fingerprintOf(uri)) {
        name += digits[byte >> 4U];
        name += digits[byte & 15U];
    }
    return name + ".crl";
}

Material::Material() : m_sources(std::make_unique<detail::Sources>()) {}
Material::~Material() = default;

void Material::addAnchors(const std::string& path) {
    m_sources->addPath(detail::Kind::anchors, path);
}

void Material::addUntrusted(const std::string& path) {
    m_sources->addPath(detail::Kind::untrusted, path);
}

void Material::addLists(const std::string& path) {
    m_sources->addPath(detail::Kind::lists, path);
}

void Material::addListCache(const std::string& directory) {
    m_sources->addPath(detail::Kind::listCache, directory);
}

void Material::addAnchor(const NVX509::RefCertificate& certificate) {
    if (static_cast<x509_st*>(certificate) != nullptr) {
        certificate->warm();
        m_sources->addObject(detail::Kind::anchors, {{certificate}, {}, {}});
    }
}

void Material::addUntrusted(const NVX509::RefCertificate& certificate) {
    if (static_cast<x509_st*>(certificate) != nullptr) {
        certificate->warm();
        m_sources->addObject(detail::Kind::untrusted, {{certificate}, {}, {}});
    }
}

void Material::addList(const NVX509::RefCertificateRevocationList& list) {
    if (static_cast<X509_crl_st*>(list) != nullptr) {
        list->warm();
        m_sources->addObject(detail::Kind::lists, {{}, {list}, {}});
    }
}

void Material::reload() {
    m_sources->reload();
}

std::vector<Material::Problem> Material::problems() const {
    return snapshot()->problems;
}

Material::Counts Material::counts() const {
    const auto found = snapshot();
    return {found->anchors.size(), found->untrusted.size(), found->lists.size()};
}

std::vector<NVX509::RefCertificate> Material::anchors() const {
    return snapshot()->anchors;
}

std::shared_ptr<const detail::Snapshot> Material::snapshot() const {
    return m_sources->snapshot();
}

} // namespace Norvane::Crypto::Trust
