#pragma once

/// \file
/// A message as the MTA tells of it: envelope, header fields and body.
///
/// \code
/// Message message("/var/spool/filter");
/// message.envelope.sender = "anna@a.example";
/// message.header.push_back({"Subject", " hello"});
/// message.addBody(bytes, length);
/// Norvane::MediaIn mail = message.whole();
/// \endcode
///
/// One message is used by one thread at a time.

#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace norvmilter {

/// What is known of the way of a message.
struct Envelope {
    std::string queueId;                 ///< macro "i"; may come late: it is set before the engine is asked
    std::string listener;                ///< macro {daemon_name}
    std::string authenticated;           ///< macro {auth_authen}; empty: nobody authenticated
    std::string clientAddress;           ///< "192.0.2.1", "2001:db8::1"; empty: local, or not known
    std::string sender;                  ///< of MAIL FROM, without "<>"; empty: a bounce
    std::vector<std::string> recipients; ///< of the RCPT TO that were accepted, without "<>"
    /// What the MTA makes of them, by what stands in `recipients`: macro {rcpt_addr}, where it was there. It decides which rule
    /// holds, too, and nothing else.
    std::map<std::string, std::string> resolved;
    /// What the client asked of the delivery, for messages that are split off: RET, ENVID, SMTPUTF8 and REQUIRETLS of MAIL FROM as
    /// they came (RFC 3461, 6531, 8689), each keyword once, printable and without a blank.
    std::vector<std::string> senderParameters;
    /// NOTIFY and ORCPT of RCPT TO, by what stands in `recipients`; of one that stands there twice those of the first time.
    std::map<std::string, std::vector<std::string>> recipientParameters;
};

/// A header field as it stands in the message.
struct HeaderField {
    std::string name;
    /// All that stands behind the colon, with the blank there; folds as LF or CRLF and blanks. Of an MTA that leaves that
    /// blank out the front puts one there.
    std::string value;
};

/// Bytes that are kept in memory up to this and in a file without a name beyond.
constexpr unsigned int keptInMemory = 65536;

/// A place for bytes. \param folder where the file is made; empty: the system's folder for temporary files
[[nodiscard]] Norvane::SwapBufferMediaOut spillIn(const std::string& folder);
/// The template of such files' names, for `ReadOptions::spillTemplate` and the like.
[[nodiscard]] std::string spillTemplateIn(const std::string& folder);

/// Whether a parameter of MAIL or RCPT has this keyword, in whatever letters: "ret=HDRS" has RET.
[[nodiscard]] bool hasKeyword(std::string_view parameter, std::string_view keyword);

/// Fields as they are written: "Name:value", CRLF at the end. A line end in a value that no blank follows gets one, so that no
/// value makes a field of its own.
[[nodiscard]] std::string octetsOf(const HeaderField& field);
[[nodiscard]] std::string octetsOf(const std::vector<HeaderField>& header);

/// A text with small letters in place of capital ones, of ASCII alone.
[[nodiscard]] std::string lowered(std::string_view text);
/// The name of a field as names are compared: small letters, and without the blanks that may stand in front of the colon (RFC 5322,
/// 4.5), which no MTA and no mail program counts as a part of it.
[[nodiscard]] std::string comparableName(std::string_view name);
/// A name without those blanks.
[[nodiscard]] std::string_view trimmedName(std::string_view name) noexcept;
/// Whether two names of fields are the same: capital or small letters do not count, nor do blanks in front of the colon.
[[nodiscard]] bool isSameName(std::string_view left, std::string_view right) noexcept;

/// Reads the octets of one source after those of another. It knows its position and goes back when both can.
[[nodiscard]] Norvane::MediaIn joined(const std::string& first, const Norvane::MediaIn& second);

/// A message.
class Message {
public:
    /// \param spool the folder for the body, see `spillIn`
    explicit Message(const std::string& spool = std::string());

    Envelope envelope;
    std::vector<HeaderField> header;
    /// The body has more than the limit and is not here: the front stopped to keep it.
    bool tooLarge = false;

    /// Appends to the body, lines with CRLF as the MTA gives them. \throws Norvane::MediaException the disk is full
    void addBody(const unsigned char* octets, std::size_t length);
    [[nodiscard]] std::uint64_t bodyLength() const;
    /// Header and body.
    [[nodiscard]] std::uint64_t length() const;
    /// Whether the body is in a file.
    [[nodiscard]] bool isSpilled() const { return m_body.isSwapped(); }

    /// The message from its first byte on, as often as one likes, each with a position of its own.
    [[nodiscard]] Norvane::MediaIn whole() const;
    [[nodiscard]] Norvane::MediaIn body() const { return m_body.in(); }

private:
    Norvane::SwapBufferMediaOut m_body;
};

} // namespace norvmilter
