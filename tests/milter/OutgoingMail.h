#pragma once

/// \file
/// What the tests of outgoing mail share.

#include "World.h"

namespace miltertesting {

/// [[outgoing.rule]] with these wishes, for everybody.
inline std::string rule(const std::string& sign, const std::string& encrypt, const std::string& more = "") {
    return "[[outgoing.rule]]\nname = \"all\"\nsign = \"" + sign + "\"\nencrypt = \"" + encrypt + "\"\n" + more;
}
inline const std::string canSplit = "[outgoing]\nsubmit = \"smtp://127.0.0.1:10026\"\n";

inline Outcome handled(World& world, const std::string& rules, const Message& message,
                       const std::string& more = canSplit) {
    return world.engine(rules, more).handle(message, Deadline());
}

inline std::string octetsOf(const Submission& submission) {
    return contentOf(submission.whole.in());
}

class Outgoing : public testing::Test {
protected:
    void SetUp() override { m_world.addPeople(); }
    World m_world;
};

} // namespace miltertesting
