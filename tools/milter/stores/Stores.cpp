#include "stores/Stores.h"

#include "message/Temporary.h"
#include "stores/LearntFolder.h"

#include <stdexcept>

namespace norvmilter {

struct Stores::Places {};

Stores::Stores(const Config& config) {
    static_cast<void>(config);
    reload();
}
Stores::~Stores() = default;

void Stores::reload() {
    const std::lock_guard<std::mutex> loading(m_loading);
    auto loaded = load();
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_loaded = std::move(loaded);
}

std::shared_ptr<const LoadedStores> Stores::loaded() const {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_loaded;
}

std::shared_ptr<const LoadedStores> Stores::load() const {
    throw Temporary("not yet");
}

} // namespace norvmilter
