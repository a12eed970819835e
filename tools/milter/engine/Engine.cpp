#include "engine/Engine.h"

#include <stdexcept>
#include <utility>

namespace norvmilter {

Engine::Engine(std::shared_ptr<const Config> config, std::shared_ptr<Stores> stores)
    : m_config(std::move(config)),
      m_stores(std::move(stores)) {}

Outcome Engine::handle(const Message& message, const Deadline& deadline) const {
    static_cast<void>(message);
    static_cast<void>(deadline);
    throw std::logic_error("not yet");
}

} // namespace norvmilter
