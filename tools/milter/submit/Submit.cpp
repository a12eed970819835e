#include "submit/Submit.h"

#include "message/Message.h"
#include "submit/Smtp.h"

#include <algorithm>
#include <array>

namespace norvmilter {

namespace {

bool isEightBit(char one) {
    return (static_cast<unsigned char>(one) & 0x80U) != 0;
}

bool isEightBit(const std::string& text) {
    return std::ranges::any_of(text, [](char one) { return isEightBit(one); });
}

bool isEightBit(Norvane::MediaIn source) {
    std::array<unsigned char, 16384> piece{};
    for (int length = 0; (length = source.read(piece.data(), piece.size())) > 0;) {
        if (std::any_of(piece.begin(), piece.begin() + length, [](unsigned char one) { return (one & 0x80U) != 0; }))
            return true;
    }
    return false;
}

bool hasEightBitHeader(Norvane::MediaIn source) {
    std::array<unsigned char, 16384> piece{};
    bool atLineStart = true;
    for (int length = 0; (length = source.read(piece.data(), piece.size())) > 0;) {
        for (int i = 0; i < length; ++i) {
            const unsigned char one = piece[static_cast<std::size_t>(i)];
            if ((one & 0x80U) != 0)
                return true;
            if (one == '\n' && atLineStart)
                return false;
            atLineStart = one == '\n' || (one == '\r' && atLineStart);
        }
    }
    return false;
}

bool has(const std::vector<std::string>& parameters, const std::string& keyword) {
    return std::ranges::any_of(parameters, [&](const std::string& one) { return hasKeyword(one, keyword); });
}

/// Whether it can stand between "<" and ">" of a command and end nothing there.
bool isWritable(const std::string& address) {
    bool isQuoted = false;
    bool isEscaped = false;
    for (const char character : address) {
        const auto one = static_cast<unsigned char>(character);
        // Outside of quotation marks servers differ on what a backslash does to the next one.
        if (one < ' ' || one == 0x7F || (!isQuoted && (one == ' ' || one == '<' || one == '>' || one == '\\')))
            return false;
        if (one == '"' && !isEscaped)
            isQuoted = !isQuoted;
        isEscaped = one == '\\' && !isEscaped;
    }
    return !isQuoted && address.size() <= 1000;
}

class Submitting {
public:
    explicit Submitting(const SubmitTo& to) : m_to(to), m_end(Smtp::Clock::now() + to.total), m_smtp(to, m_end) {}

    void all(const std::vector<Submission>& submissions) {
        if (submissions.size() > 1) {
            // Postfix hangs up when there are more than a hundred RSET without a message.
            constexpr std::size_t most = 50;
            for (std::size_t index = 0; index < submissions.size(); ++index) {
                if (index > 0 && index % most == 0) {
                    m_smtp.quit();
                    m_smtp = Smtp(m_to, m_end);
                }
                begin(submissions[index]);
                require("RSET", m_smtp.command("RSET"), 2);
            }
        }
        for (const Submission& one : submissions) {
            begin(one);
            require("DATA", m_smtp.command("DATA"), 3);
            require("the message", m_smtp.content(one.whole.in()), 2);
            ++m_done;
        }
        m_smtp.quit();
    }

private:
    void begin(const Submission& one) {
        std::string parameters;
        if (m_smtp.offers("SIZE"))
            parameters += " SIZE=" + std::to_string(one.whole.length());
        if (m_smtp.offers("8BITMIME"))
            parameters += " BODY=8BITMIME";
        else if (isEightBit(one.whole.in()))
            refuse("the server takes no octets above 127, and the message has some");
        const bool isInternational =
            isEightBit(one.sender) ||
            std::ranges::any_of(one.recipients, [](const std::string& recipient) { return isEightBit(recipient); });
        const bool takesInternational = m_smtp.offers("SMTPUTF8");
        if (isInternational && !takesInternational)
            refuse("the server takes no addresses with octets above 127");
        const bool isAsked = has(one.senderParameters, "SMTPUTF8");
        // Where it is not asked for, such a header is as old as mail is, and goes where it went before.
        if (isAsked && !takesInternational && hasEightBitHeader(one.whole.in()))
            refuse("the server takes no header with octets above 127 (SMTPUTF8), and the sender's has some");
        const bool saysInternational = takesInternational && (isInternational || isAsked);
        if (saysInternational)
            parameters += " SMTPUTF8";
        // Who asked for it gets the mail back rather than without it (RFC 8689, 4.2.1).
        if (has(one.senderParameters, "REQUIRETLS")) {
            if (!m_smtp.offers("REQUIRETLS"))
                refuse("the server does not take REQUIRETLS, which the sender asks for");
            parameters += " REQUIRETLS";
        }
        const std::string from = "MAIL FROM:<" + written(one.sender) + '>';
        const std::string asked = notices(one.senderParameters, {"RET", "ENVID"}, saysInternational);
        require(from, m_smtp.command(from + parameters + asked), 2);
        for (const std::string& recipient : one.recipients) {
            const std::string command = "RCPT TO:<" + written(recipient) + '>';
            const auto found = one.recipientParameters.find(recipient);
            const std::string about = found == one.recipientParameters.end()
                                          ? std::string()
                                          : notices(found->second, {"NOTIFY", "ORCPT"}, saysInternational);
            require(command, m_smtp.command(command + about), 2);
        }
    }

    /// What was asked for of delivery status notifications (RFC 3461), where the server knows them.
    std::string notices(const std::vector<std::string>& parameters, const std::vector<std::string>& keywords,
                        bool saysInternational) const {
        std::string text;
        for (const std::string& one : parameters) {
            const bool isOne =
                std::ranges::any_of(keywords, [&](const std::string& word) { return hasKeyword(one, word); });
            if (isOne && m_smtp.offers("DSN") && (saysInternational || !isEightBit(one)))
                text += ' ' + one;
        }
        return text;
    }

    const std::string& written(const std::string& address) const {
        if (!isWritable(address))
            refuse("an address that no command can hold: " + address);
        return address;
    }

    void require(const std::string& what, const SmtpAnswer& answer, int hundreds) const {
        if (answer.code / 100 == hundreds)
            return;
        const std::string said = what + ": " + std::to_string(answer.code) + ' ' + answer.text;
        if (answer.code / 100 == 5)
            refuse(said);
        throw SubmissionFailure(said, false);
    }

    [[noreturn]] void refuse(const std::string& what) const { throw SubmissionFailure(what, m_done == 0); }

    const SubmitTo& m_to;
    Smtp::Clock::time_point m_end;
    Smtp m_smtp;
    std::size_t m_done = 0;
};

} // namespace

void submit(const SubmitTo& to, const std::vector<Submission>& submissions) {
    if (to.url.empty())
        throw SubmissionFailure("there is no server to hand messages to (outgoing.submit)", false);
    if (!submissions.empty())
        Submitting(to).all(submissions);
}

} // namespace norvmilter
