#include "engine/Engine.h"

#include "engine/Incoming.h"
#include "engine/Outgoing.h"
#include "engine/Streams.h"
#include "policy/Direction.h"

#include <norvcmsg/Exception.h>

#include <new>
#include <utility>

namespace norvmilter {

namespace {

Outcome decided(const Config& config, Stores& stores, const Message& message, const DirectionChoice& direction,
                const Deadline& deadline) {
    if (direction.direction == Direction::ignore)
        return {};
    const std::shared_ptr<const LoadedStores> loaded = stores.loaded();
    if (direction.direction == Direction::incoming)
        return handleIncoming(config, *loaded, stores.learnt(), message, deadline);
    return handleOutgoing(config, *loaded, stores.learnt(), message, deadline);
}

} // namespace

Engine::Engine(std::shared_ptr<const Config> config, std::shared_ptr<Stores> stores)
    : m_config(std::move(config)),
      m_stores(std::move(stores)) {}

Outcome Engine::handle(const Message& message, const Deadline& deadline) const {
    Outcome outcome;
    DirectionChoice direction;
    // The client is told no more than that it is for later; the log has the reason.
    const auto later = [&](const std::string& reason) {
        outcome = temporary("temporary trouble in the mail filter, try again later");
        outcome.facts = {{"reason", reason}};
    };
    try {
        direction = directionOf(*m_config, message.envelope);
        outcome = decided(*m_config, *m_stores, message, direction, deadline);
    } catch (const Temporary& failure) {
        later(failure.what());
    } catch (const Norvane::Exception& failure) {
        later(failure.asString());
    } catch (const std::bad_alloc&) {
        later("out of memory");
    } catch (const std::exception& failure) {
        later(failure.what());
    }
    outcome.facts.insert(outcome.facts.begin(), {{"direction", nameOf(direction.direction)}, {"by", direction.rule}});
    return outcome;
}

} // namespace norvmilter
