#include "stores/Stores.h"

#include "message/Temporary.h"
#include "stores/LearntFolder.h"

#include <norvcmsg/Escape.h>

#include <utility>

namespace norvmilter {

using namespace Norvane::Crypto;

struct Stores::Places {
    Config::Store store;
    Config::TrustPart trust;
};

namespace {

/// What a failure says to people: its texts.
std::string reasonOf(const Norvane::Exception& failure) {
    std::string reason;
    for (const Norvane::Exception::Parameter& parameter : failure.parameters()) {
        if (const auto* text = std::get_if<std::string>(&parameter))
            reason.append(reason.empty() ? "" : ": ").append(Norvane::escapeForDisplay(*text));
    }
    return reason.empty() ? failure.asString() : reason;
}

/// Runs one step of loading; what cannot be loaded now may be there later.
template <class Work> void load(Work work) {
    try {
        work();
    } catch (const Norvane::Exception& failure) {
        throw Temporary(reasonOf(failure));
    }
}

void loadKeys(const std::string& directory, LoadedStores& loaded) {
    std::list<NVX509::KeyCertificatePair> pairs;
    if (!directory.empty()) {
        loaded.directory = NVX509::RefDirectoryKeyStore(directory, NVX509::DirectoryKeyStore::Reading::ahead);
        loaded.keys->add(loaded.directory.plugin());
        const auto contents = loaded.directory->contents();
        for (const auto& problem : contents->problems)
            loaded.problems.push_back(Norvane::escapeForDisplay(directory + '/' + problem.folder +
                                                                (problem.file.empty() ? "" : '/' + problem.file)) +
                                      ": " + problem.reason);
        loaded.identities = contents->identities.size();
        for (const auto& identity : contents->identities) {
            if (!identity.hasKey)
                continue;
            ++loaded.privateKeys;
            try {
                pairs.push_back(
                    loaded.directory->find(identity.certificate->issuer(), identity.certificate->serialNumber()));
            } catch (const Norvane::Exception&) {
                loaded.problems.push_back(Norvane::escapeForDisplay(directory + '/' + identity.folder) +
                                          ": a negative serial number, by which no mail can name it");
            }
        }
    }
    loaded.decryption = std::make_unique<const CMS::KeyListLookup>(pairs);
}

void loadTrust(const Config::TrustPart& part, LoadedStores& loaded) {
    const auto material = std::make_shared<Trust::Material>();
    for (const std::string& path : part.anchors)
        material->addAnchors(path);
    for (const std::string& path : part.untrusted)
        material->addUntrusted(path);
    for (const std::string& path : part.lists)
        material->addLists(path);
    if (!part.listCache.empty())
        material->addListCache(part.listCache);
    for (const auto& problem : material->problems())
        loaded.problems.push_back(Norvane::escapeForDisplay(problem.path) + ": " + problem.reason);
    loaded.trust = material->counts();
    Trust::Options defaults;
    defaults.revocation = part.revocation;
    defaults.minimumRsaBits = part.minimumRsaBits;
    defaults.atSigningTime = part.atSigningTime;
    if (loaded.trust.anchors > 0)
        loaded.verifier = std::make_unique<const Trust::Verifier>(material, defaults);
}

} // namespace

Stores::Stores(const Config& config) : m_places(new Places{config.store, config.trust}) {
    if (config.learn.enabled)
        m_learnt = std::make_unique<LearntFolder>(config.learn.folder, config.learn.perAddress, config.learn.total);
    m_loaded = load();
}

Stores::~Stores() = default;

std::shared_ptr<const LoadedStores> Stores::load() const {
    auto loaded = std::make_shared<LoadedStores>();
    norvmilter::load([&] { loadKeys(m_places->store.directory, *loaded); });
    norvmilter::load([&] { loadTrust(m_places->trust, *loaded); });
    loaded->loadedAt = std::time(nullptr);
    return loaded;
}

void Stores::reload() {
    const std::lock_guard<std::mutex> loading(m_loading);
    auto loaded = load();
    if (m_learnt)
        m_learnt->reload();
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_loaded = std::move(loaded);
}

std::shared_ptr<const LoadedStores> Stores::loaded() const {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_loaded;
}

} // namespace norvmilter
