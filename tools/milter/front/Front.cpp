#include "front/Front.h"

#include <utility>

namespace norvmilter {

Front::Front(Log& log, Metrics& metrics, std::shared_ptr<const Generation> generation, Clock::duration progress)
    : m_log(log),
      m_metrics(metrics),
      m_generation(std::move(generation)),
      m_progress(progress) {}

std::shared_ptr<const Generation> Front::generation() const {
    const std::lock_guard<std::mutex> guard(m_mutex);
    return m_generation;
}

void Front::use(std::shared_ptr<const Generation> generation) {
    // The old one goes outside of the lock, if it goes here at all.
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_generation.swap(generation);
}

bool Front::isDrained() const noexcept {
    // libmilter sends the answer after the last callback of a message has returned, and tells nobody when it has.
    constexpr auto toBeSent = std::chrono::milliseconds(300);
    const Clock::duration now = Clock::now().time_since_epoch();
    return m_inHand == 0 && now - Clock::duration(m_lastAnswer.load()) >= toBeSent;
}

Front::Connected::Connected(Front& front)
    : m_front(front),
      m_isWithinLimit(++front.m_connections <= front.generation()->limits.connections) {
    m_front.metrics().connected();
}

Front::Connected::~Connected() {
    --m_front.m_connections;
    m_front.metrics().disconnected();
}

Front::InHand::InHand(Front& front) : m_front(front) {
    ++m_front.m_inHand;
    m_front.metrics().inHand(1);
}

Front::InHand::~InHand() {
    m_front.metrics().inHand(-1);
    m_front.m_lastAnswer = Clock::now().time_since_epoch().count();
    --m_front.m_inHand;
}

} // namespace norvmilter
