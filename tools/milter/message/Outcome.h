#pragma once

/// \file
/// What is to become of a message.

#include <norvcmsg/SwapBufferMediaOut.h>

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace norvmilter {

/// An answer to the client of the MTA: "550 5.7.1 no certificate to encrypt to for bert@b.example".
struct Reply {
    int code = 0;         ///< 451, 550
    std::string enhanced; ///< "5.7.1" (RFC 3463)
    std::string text;     ///< printable ASCII without "%", one line of at most 400 bytes
};

/// A change of the header.
struct HeaderEdit {
    enum class Kind {
        remove, ///< the field of that name with this number
        insert, ///< in front of all fields
        append, ///< behind all fields
    };
    Kind kind = Kind::append;
    std::string name;
    std::size_t occurrence = 0; ///< remove: counted from 1 among the fields of that name as they came
    /// Behind the colon, with the blank there; folds are LF and a blank. Printable ASCII, tabs and 8-bit octets of the message
    /// itself; no NUL and no CR.
    std::string value;
};

/// A message that is handed to the MTA beside this one.
struct Submission {
    std::string sender; ///< of the envelope; empty: <>
    std::vector<std::string> recipients;
    Norvane::SwapBufferMediaOut whole;                                        ///< header and body, lines end in CRLF
    std::vector<std::string> senderParameters = {};                           ///< as in `Envelope`
    std::map<std::string, std::vector<std::string>> recipientParameters = {}; ///< as in `Envelope`
};

/// A detail for the log: direction, rule, action, verdict, signer, issuer, serial, reason. The name is a word of small letters;
/// the value is as it was found: the log escapes it.
struct Fact {
    std::string name;
    std::string value;
};

/// What is to be done.
struct Outcome {
    enum class Action {
        pass,     ///< nothing: the message goes on as it is
        change,   ///< it goes on with the changes below
        reject,   ///< `reply`, 5xx
        tempfail, ///< `reply`, 4xx
    };
    Action action = Action::pass;
    Reply reply;
    /// To be applied in this order, which is theirs here: removals from the last of a name to the first; inserts, each in front
    /// of all fields, the one that is to stand first at last; appends in their order.
    std::vector<HeaderEdit> edits;
    std::optional<Norvane::SwapBufferMediaOut> body; ///< takes the place of the body
    std::vector<std::string> removeRecipients;       ///< as they stand in `Envelope::recipients`
    /// All are handed over behind the changes and before this message is answered; when one fails the answer is 451. Where
    /// `removeRecipients` has all recipients, the message itself is dropped then ("discard" of the protocol).
    std::vector<Submission> submissions;
    std::vector<Fact> facts;

    void tell(std::string name, std::string value) { facts.push_back({std::move(name), std::move(value)}); }
    /// Of the first fact of that name; empty when there is none.
    [[nodiscard]] std::string told(const std::string& name) const {
        for (const Fact& fact : facts) {
            if (fact.name == name)
                return fact.value;
        }
        return {};
    }
};

/// An answer whose text can be sent: bytes that are not printable ASCII are made "?", and it is cut with "..." at 400.
[[nodiscard]] Reply replyOf(int code, const std::string& enhanced, const std::string& text);
[[nodiscard]] Outcome rejected(const std::string& enhanced, const std::string& text);
/// 451 4.7.1
[[nodiscard]] Outcome temporary(const std::string& text);

} // namespace norvmilter
