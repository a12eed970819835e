// Messages under IDEA where libgcrypt is not installed: it is loaded when it is needed, and not found then.
#include "../HandMade.h"
#include "support/Interpose.h"

#include <cstring>

using namespace cmstest;

namespace {
int s_asked = 0;
} // namespace

extern "C" void* dlopen(const char* name, int flags) noexcept {
    if (name != nullptr && std::strstr(name, "libgcrypt") != nullptr) {
        ++s_asked;
        return nullptr;
    }
    return norvtest::next<&dlopen>("dlopen")(name, flags);
}

namespace {

constexpr const char* idea = "IDEA-CBC (1.3.6.1.4.1.188.7.1.1.2)";

Bytes ideaParameters() {
    return der::sequence({der::oid("IDEA-CBC"), der::octetString(Bytes(8, 1))});
}

TEST(WithoutLibgcrypt, ContentUnderIdeaIsUnsupportedAndNotDamaged) {
    const Bytes message = envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                    .cipher = ideaParameters(),
                                    .content = contentElement(bodyOf(64))});
    const Outcome outcome = outcomeOf(message, From::memory, withKeys({&alice()}));
    EXPECT_EQ(outcome.verdict, Reader::Unsupported);
    EXPECT_EQ(outcome.unsupported, idea);
    EXPECT_EQ(s_asked, 1) << "or the test tests nothing";
}

TEST(WithoutLibgcrypt, KeysUnderAPasswordAndIdeaAreUnsupportedAndNotOfAnotherPassword) {
    const Bytes message =
        envelope({.recipients = {passwordRecipient({.inner = ideaParameters(), .wrapped = Bytes(32, 5)})},
                  .content = contentElement(encryptedContent(bodyOf(10)))});
    const Outcome outcome = outcomeOf(message, From::memory, withPassword("secret"));
    EXPECT_EQ(outcome.verdict, Reader::Unsupported);
    EXPECT_EQ(outcome.unsupported, std::string("id-alg-PWRI-KEK with ") + idea);
}

TEST(WithoutLibgcrypt, OtherContentIsRead) {
    const Bytes message = envelope({.recipients = {recipientInfo(alice(), wrappedFor(alice(), contentKey()))},
                                    .content = contentElement(encryptedContent(bodyOf(10)))});
    EXPECT_EQ(outcomeOf(message, From::memory, withKeys({&alice()})).verdict, Reader::Complete);
}

} // namespace
