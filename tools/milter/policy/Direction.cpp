#include "policy/Direction.h"

#include <algorithm>

namespace norvmilter {

namespace {

bool fits(const DirectionRule& rule, const Envelope& envelope) {
    if (!rule.listener.empty() && rule.listener != envelope.listener)
        return false;
    if (!rule.authenticated.empty()) {
        const bool isWanted =
            !envelope.authenticated.empty() && NamePattern(rule.authenticated).matches(envelope.authenticated);
        if (!isWanted)
            return false;
    }
    return rule.networks.empty() ||
           std::ranges::any_of(rule.networks, [&](const Network& one) { return one.contains(envelope.clientAddress); });
}

} // namespace

DirectionChoice directionOf(const Config& config, const Envelope& envelope) {
    for (const DirectionRule& rule : config.directions) {
        if (fits(rule, envelope))
            return {rule.direction, rule.title()};
    }
    return {Direction::incoming, "no direction fits"};
}

} // namespace norvmilter
