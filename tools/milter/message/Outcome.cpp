#include "message/Outcome.h"

namespace norvmilter {

Reply replyOf(int code, const std::string& enhanced, const std::string& text) {
    constexpr std::size_t longest = 400;
    Reply reply{code, enhanced, text};
    // The percent sign is one of formats on the way to the client.
    for (char& one : reply.text) {
        if (one < ' ' || one > '~' || one == '%')
            one = '?';
    }
    if (reply.text.size() > longest) {
        reply.text.resize(longest - 3);
        reply.text += "...";
    }
    return reply;
}

Outcome rejected(const std::string& enhanced, const std::string& text) {
    Outcome outcome;
    outcome.action = Outcome::Action::reject;
    outcome.reply = replyOf(550, enhanced, text);
    outcome.tell("reason", text);
    return outcome;
}

Outcome temporary(const std::string& text) {
    Outcome outcome;
    outcome.action = Outcome::Action::tempfail;
    outcome.reply = replyOf(451, "4.7.1", text);
    outcome.tell("reason", text);
    return outcome;
}

} // namespace norvmilter
