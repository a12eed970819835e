// What an MTA tells the mail filter: callbacks in any order with any octets, into the front with the engine behind it and a libmilter that
// is made up. Each message that is ended has one answer, nothing is in hand when the connections are gone, and what passes is
// not changed.
#include "Driver.h"
#include "EnvelopeKey.h"
#include "milter/support/FakeLibmilter.h"
#include "support/TemporaryFolder.h"

#include "engine/Engine.h"
#include "front/Callbacks.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <string_view>

using namespace norvmilter;

namespace {

constexpr const char* settings = R"([milter]
socket = "unix:/nonexistent/milter.sock"
authserv_id = "mx.a.example"
[limits]
message_bytes = 100000
recipients = 20
connections = 3
[[direction]]
listener = "OUT"
direction = "outgoing"
[[direction]]
listener = "PASS"
direction = "ignore"
[store]
directory = "store"
[trust]
anchors = ["roots.pem"]
[outgoing]
submit = "smtp://127.0.0.1:9"
[[outgoing.rule]]
recipient = "*@must.example"
encrypt = "must"
[[outgoing.rule]]
sign = "possible"
encrypt = "possible"
[incoming]
client_headers = true
)";

class Quiet : public Log {
protected:
    void write(LogLevel /*level*/, const std::string& line) override {
        // One line an event, whatever the octets.
        fuzz::require(line.find('\n') == std::string::npos && line.find('\0') == std::string::npos);
    }
};

/// Made once: nothing in it changes.
struct Filter {
    Quiet log;
    Metrics metrics;
    norvtest::TemporaryFolder folder; // as long as the process runs: stores read files when they are asked for
    std::shared_ptr<const Config> config = written(folder);
    std::shared_ptr<Stores> stores = std::make_shared<Stores>(*config);
    std::shared_ptr<const Engine> engine = std::make_shared<const Engine>(config, stores);
    Front front{log, metrics, generation(), std::chrono::hours(1)};
    smfiDesc callbacks = callbacksFor(front);

    /// With a store of one pair, the same for every run.
    static std::shared_ptr<const Config> written(const norvtest::TemporaryFolder& folder) {
        const norvauthority::Identity bob = fuzz::envelopeIdentity();
        std::filesystem::create_directories(folder.path("store/bob"));
        folder.write("roots.pem", bob.certificate.pem());
        folder.write("store/bob/cert.pem", bob.certificate.pem());
        folder.write("store/bob/owners.txt", "*@b.example\n");
        std::filesystem::permissions(folder.write("store/bob/key.pem", bob.key.pkcs8Pem()),
                                     std::filesystem::perms::owner_read);
        return std::make_shared<const Config>(Config::parse(settings, folder.path("milter.toml")));
    }

    std::shared_ptr<const Generation> generation() const {
        Generation made;
        made.limits.messageBytes = config->limits.messageBytes;
        made.limits.recipients = config->limits.recipients;
        made.limits.connections = config->limits.connections;
        made.limits.headerBytes = 20000;
        made.limits.headerFields = 100;
        made.judge = [engine = engine](const Message& message, const Deadline& deadline) {
            return engine->handle(message, deadline);
        };
        made.submit = [](const std::vector<Submission>& submissions) {
            for (const Submission& one : submissions)
                fuzz::require(!one.recipients.empty());
        };
        return std::make_shared<const Generation>(std::move(made));
    }
};

/// The input as a list of choices and texts.
class Choices {
public:
    explicit Choices(std::string_view octets) : m_octets(octets) {}
    [[nodiscard]] bool isOver() const { return m_octets.empty(); }
    unsigned int number() {
        if (m_octets.empty())
            return 0;
        const auto one = static_cast<unsigned char>(m_octets.front());
        m_octets.remove_prefix(1);
        return one;
    }
    /// Up to a byte 0xFE, which no text in UTF-8 has.
    std::string text() {
        const std::size_t end = m_octets.find('\xFE');
        std::string one(m_octets.substr(0, end));
        m_octets.remove_prefix(end == std::string_view::npos ? m_octets.size() : end + 1);
        return one;
    }

private:
    std::string_view m_octets;
};

/// As libmilter gives texts: they end at the first NUL.
std::string untilNul(std::string text) {
    return text.substr(0, text.find('\0'));
}

void checkCalls(smfi_str& context, sfsistat status) {
    bool hasReply = false;
    for (const std::string& call : context.calls) {
        hasReply = hasReply || call.starts_with("setreply ");
        // A field that is added is one field: each line end has a blank behind it. What is taken away has the name it came with.
        if (!call.starts_with("addheader ") && !call.starts_with("insheader "))
            continue;
        for (std::size_t at = 0; (at = call.find('\n', at)) != std::string::npos; ++at)
            fuzz::require(at + 1 < call.size() && (call[at + 1] == ' ' || call[at + 1] == '\t'));
    }
    if (status == SMFIS_REJECT || status == SMFIS_TEMPFAIL)
        fuzz::require(hasReply);
    else
        fuzz::require(status == SMFIS_CONTINUE || status == SMFIS_DISCARD);
}

void step(const Filter& filter, smfi_str& context, Choices& choices) {
    const smfiDesc& call = filter.callbacks;
    switch (choices.number() % 14) {
    case 0: {
        std::array<unsigned long, 4> wanted{};
        const unsigned long actions = choices.number() % 4 == 0 ? choices.number() : 0x1FF;
        const unsigned long steps = choices.number() % 4 == 0 ? choices.number() << 12U : 0x1FFFFF;
        call.xxfi_negotiate(&context, actions, steps, 0, 0, &wanted[0], &wanted[1], &wanted[2], &wanted[3]);
        fuzz::require((wanted[0] & ~actions) == 0 && (wanted[1] & ~steps) == 0);
        return;
    }
    case 1: {
        sockaddr_in6 client{};
        const std::array<sa_family_t, 4> families{AF_INET, AF_INET6, AF_UNIX, AF_UNSPEC};
        client.sin6_family = families[choices.number() % families.size()];
        client.sin6_addr.s6_addr[10] = client.sin6_addr.s6_addr[11] = static_cast<std::uint8_t>(choices.number());
        std::string name = untilNul(choices.text());
        call.xxfi_connect(&context, name.data(),
                          choices.number() % 8 == 0 ? nullptr : reinterpret_cast<sockaddr*>(&client));
        return;
    }
    case 2: {
        const std::array<const char*, 4> names{"i", "{daemon_name}", "{auth_authen}", "{client_addr}"};
        context.macros[names[choices.number() % names.size()]] = untilNul(choices.text());
        return;
    }
    case 3:
        context.macros["{daemon_name}"] = choices.number() % 2 == 0 ? "OUT" : "PASS";
        return;
    case 4:
    case 5: {
        std::string path = untilNul(choices.text());
        std::array<char*, 2> arguments{choices.number() % 16 == 15 ? nullptr : path.data(), nullptr};
        (choices.number() % 3 == 0 ? call.xxfi_envfrom : call.xxfi_envrcpt)(&context, arguments.data());
        return;
    }
    case 6:
    case 7:
    case 8: {
        std::string name = untilNul(choices.text());
        std::string value = untilNul(choices.text());
        call.xxfi_header(&context, name.data(), value.data());
        return;
    }
    case 9:
    case 10: {
        std::string octets = choices.text();
        const unsigned int times = choices.number() % 16 == 15 ? 3000 : 1;
        for (unsigned int i = 0; i < times && octets.size() * times < 300000; ++i)
            call.xxfi_body(&context, reinterpret_cast<unsigned char*>(octets.data()), octets.size());
        return;
    }
    case 11:
        context.calls.clear();
        context.callsUntilFailure = choices.number() % 16 == 15 ? static_cast<int>(choices.number() % 4) : -1;
        checkCalls(context, call.xxfi_eom(&context));
        return;
    case 12:
        call.xxfi_abort(&context);
        return;
    default:
        call.xxfi_close(&context);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz::start();
    static Filter filter;
    Choices choices({reinterpret_cast<const char*>(data), size});
    // Two connections beside each other.
    std::array<smfi_str, 2> contexts;
    while (!choices.isOver())
        step(filter, contexts[choices.number() % 8 == 7 ? 1 : 0], choices);
    for (smfi_str& one : contexts) {
        filter.callbacks.xxfi_close(&one);
        fuzz::require(one.kept == nullptr);
    }
    fuzz::require(filter.front.inHand() == 0);
    return 0;
}
