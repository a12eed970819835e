// What the filter says about encrypted messages that cannot be opened is one and the same, whatever is wrong with them: in the
// session, in the header, and in the facts that its log and metrics are made of beside what the MTA said.

#include "World.h"

#include "support/FailingEnvelopes.h"

namespace {

using namespace miltertesting;
using norvtest::FailingEnvelope;

class Oracles : public testing::Test {
protected:
    void SetUp() override { m_world.add("bert", bert(), "bert@b.example", true); }

    /// All that comes out of the filter.
    static std::string textOf(Engine& engine, const FailingEnvelope& envelope) {
        const Message message = messageOf(norvtest::mailAround(envelope));
        const Outcome outcome = engine.handle(message, Deadline());
        std::string text = "action " + std::to_string(static_cast<int>(outcome.action)) + ", reply \"" +
                           outcome.reply.text + "\"" + (outcome.body ? ", another body" : "");
        for (const HeaderEdit& edit : outcome.edits)
            text += "; " + edit.name + ":" + edit.value;
        for (const Fact& fact : outcome.facts)
            text += "; " + fact.name + "=" + fact.value;
        return text;
    }
    static std::string expected(const std::string& more) {
        const std::string reason = "part 1: the message is damaged, or the key is not the right one";
        return "action " + std::to_string(static_cast<int>(Action::change)) +
               ", reply \"\"; Authentication-Results: mx.example.org; smime=neutral\n reason=\"" + reason + "\"" +
               more +
               "; direction=incoming; by=no direction fits; action=verified; verdict=damaged; smime=neutral; reason=" +
               reason;
    }
    /// All that is told, which is the same for each.
    static void expectAlike(Engine& engine, const std::vector<FailingEnvelope>& envelopes, const std::string& answer) {
        for (const FailingEnvelope& envelope : envelopes) {
            EXPECT_EQ(norvtest::expectedOrLast([&] { return textOf(engine, envelope); }, answer), answer)
                << envelope.name;
        }
    }
    static std::vector<FailingEnvelope> envelopes() {
        return norvtest::FailingEnvelopes({bert().key, root().name.der(), bert().serial}).all();
    }

    World m_world;
};

TEST_F(Oracles, EveryFailureIsToldAlike) {
    Engine engine =
        m_world.engine("", "[incoming]\nclient_headers = true\nrefuse = [\"fail\", \"policy\", \"permerror\"]\n");
    expectAlike(engine, envelopes(), expected("; X-Norvcrypt-Encrypted: not opened; X-Norvcrypt-Signature: neutral"));
}

TEST_F(Oracles, SoAreTheyAsTheFilterIsDelivered) {
    std::vector<FailingEnvelope> some;
    for (const FailingEnvelope& one : envelopes()) {
        // Of the paddings of each last octet, one in sixteen: the test before this one has them all.
        const std::size_t number = one.name.find("ends in ");
        if (number == std::string::npos || std::stoul(one.name.substr(number + 8)) % 16 == 0)
            some.push_back(one);
    }
    Engine engine = m_world.engine("");
    expectAlike(engine, some, expected(""));
}

TEST_F(Oracles, SoundOnesAreOpened) {
    const norvtest::FailingEnvelopes envelopes({bert().key, root().name.der(), bert().serial});
    Engine engine = m_world.engine("");
    for (const bool authenticated : {false, true}) {
        const FailingEnvelope sound{"sound", envelopes.sound(authenticated), authenticated};
        EXPECT_THAT(textOf(engine, sound), HasSubstr("another body"));
    }
}

} // namespace
