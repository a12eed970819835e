#include "daemon/Metrics.h"

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string_view>

namespace norvmilter {

namespace {

using prometheus::Counter;
using prometheus::Family;
using prometheus::Gauge;
using prometheus::Histogram;

constexpr std::array directions{"incoming", "outgoing", "ignore"};
constexpr std::array outcomes{"pass", "change", "reject", "tempfail", "discard"};
constexpr std::array verdicts{"none", "pass", "fail", "policy", "neutral", "temperror", "permerror"};

template <std::size_t Count> std::string oneOf(const std::array<const char*, Count>& known, std::string_view value) {
    return std::ranges::find(known, value) == known.end() ? "other" : std::string(value);
}

const Histogram::BucketBoundaries latencies{0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1, 0.25,
                                            0.5,   1,      2.5,   5,    10,    30,   60};

} // namespace

struct Metrics::Families {
    prometheus::Registry registry;

    Family<Counter>& counters(const char* name, const char* help) {
        return prometheus::BuildCounter().Name(name).Help(help).Register(registry);
    }
    Gauge& gauge(const char* name, const char* help) {
        return prometheus::BuildGauge().Name(name).Help(help).Register(registry).Add({});
    }

    Family<Counter>& messages = counters("norvcrypt_milter_messages_total", "Messages that were answered");
    Family<Counter>& judged = counters("norvcrypt_milter_verdicts_total", "Verdicts on S/MIME of incoming messages");
    Family<Counter>& reloads = counters("norvcrypt_milter_reloads_total", "Reloads of configuration, store and trust");
    Counter& octets = counters("norvcrypt_milter_message_bytes_total", "Octets of messages that were answered").Add({});
    Counter& spills = counters("norvcrypt_milter_spills_total", "Messages whose body was kept in a file").Add({});
    Counter& submitted =
        counters("norvcrypt_milter_submitted_total", "Messages handed over beside the one in hand").Add({});
    Counter& submissionFailures =
        counters("norvcrypt_milter_submission_failures_total", "Messages that could not be handed over").Add({});
    Counter& aborted = counters("norvcrypt_milter_aborted_total", "Messages given up before they were judged").Add({});
    Counter& connectionCount = counters("norvcrypt_milter_connections_total", "Connections of the MTA").Add({});
    Counter& refused =
        counters("norvcrypt_milter_connections_refused_total", "Connections that were one too many").Add({});
    Gauge& connections = gauge("norvcrypt_milter_connections", "Connections of the MTA that are open");
    Gauge& inHand = gauge("norvcrypt_milter_messages_in_hand", "Messages that have begun and are not answered");
    Gauge& loaded = gauge("norvcrypt_milter_store_loaded_timestamp_seconds", "When store and trust were last read");
    Gauge& started = gauge("norvcrypt_milter_worker_start_timestamp_seconds", "When the worker was started");
    Gauge& restarts = gauge("norvcrypt_milter_worker_restarts", "How often a worker that ended was started anew");
    Family<Histogram>& seconds = prometheus::BuildHistogram()
                                     .Name("norvcrypt_milter_message_seconds")
                                     .Help("From the last octet of a message to the answer")
                                     .Register(registry);
};

Metrics::Metrics(unsigned long restarts) : m_families(std::make_unique<Families>()) {
    m_families->restarts.Set(static_cast<double>(restarts));
    m_families->started.Set(static_cast<double>(std::time(nullptr)));
    // Those that are looked for by alarms are there before they first happen.
    for (const bool good : {true, false})
        m_families->reloads.Add({{"result", good ? "success" : "failure"}});
    for (const char* direction : directions)
        m_families->seconds.Add({{"direction", direction}}, latencies);
}

Metrics::~Metrics() = default;

void Metrics::message(const MessageCount& count) {
    const std::string direction = oneOf(directions, count.direction);
    m_families->messages.Add({{"direction", direction}, {"outcome", oneOf(outcomes, count.outcome)}}).Increment();
    m_families->seconds.Add({{"direction", direction}}, latencies).Observe(count.seconds);
    if (!count.verdict.empty())
        m_families->judged.Add({{"verdict", oneOf(verdicts, count.verdict)}}).Increment();
    m_families->octets.Increment(static_cast<double>(count.octets));
    m_families->submitted.Increment(static_cast<double>(count.submitted));
    if (count.spilled)
        m_families->spills.Increment();
}

void Metrics::aborted() {
    m_families->aborted.Increment();
}

void Metrics::connected() {
    m_families->connectionCount.Increment();
    m_families->connections.Increment();
}

void Metrics::disconnected() {
    m_families->connections.Decrement();
}

void Metrics::refused() {
    m_families->refused.Increment();
}

void Metrics::inHand(int change) {
    m_families->inHand.Increment(change);
}

void Metrics::submissionFailed() {
    m_families->submissionFailures.Increment();
}

void Metrics::reloaded(bool good) {
    m_families->reloads.Add({{"result", good ? "success" : "failure"}}).Increment();
}

void Metrics::loadedAt(std::time_t when) {
    m_families->loaded.Set(static_cast<double>(when));
}

std::string Metrics::text() const {
    std::ostringstream out;
    prometheus::TextSerializer().Serialize(out, m_families->registry.Collect());
    return out.str();
}

} // namespace norvmilter
