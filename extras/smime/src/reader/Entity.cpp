// An entity: a layer that is opened, a multipart whose parts are looked at, or the content.

#include "LeafParts.h"

#include "mime/Multipart.h"
#include "mime/Transfer.h"

#include <algorithm>

namespace Norvane::Crypto::SMime {

using mime::ContentType;
using mime::Header;
using mime::SharedOctets;

namespace {

bool endsWith(const std::string& name, std::string_view ending) {
    return name.size() >= ending.size() &&
           mime::isSameName(std::string_view(name).substr(name.size() - ending.size()), ending);
}

/// A header within the limits; false when it is not, which was told then.
bool takeHeader(Session& session, mime::Octets& in, const Place& place, Header& header) {
    const mime::HeaderLimits limits{session.options.budget.headerOctets, session.options.budget.headerFields};
    switch (mime::readHeader(in, limits, header)) {
    case mime::HeaderEnd::complete:
        return true;
    case mime::HeaderEnd::tooLong:
        session.fail(place, LayerStatus::tooCostly,
                     "a header of more than " + std::to_string(limits.octets) + " bytes");
        return false;
    case mime::HeaderEnd::tooMany:
        session.fail(place, LayerStatus::tooCostly,
                     "a header of more than " + std::to_string(limits.fields) + " fields");
        return false;
    }
    return false;
}

/// Looks at the parts of a multipart that is no layer. What is not looked at stays in `body`.
void walkParts(Session& session, const Header& header, const ContentType& type, const SharedOctets& body,
               const Place& place) {
    if (type.boundary.empty() || type.boundary.size() > mime::maximumBoundary) {
        session.addOddity(place, type.boundary.empty() ? "a multipart without a boundary"
                                                       : "a multipart with too long a boundary");
        session.addUncovered(place, type.text()); // some readers show its text
        return;
    }
    mime::Multipart parts(body, type.boundary);
    seekOtherParts(parts, header, type);
    std::size_t number = 1;
    for (; parts.next(); ++number) {
        if (number == 1)
            session.lookAtPreamble(place, parts);
        if (++session.parts > session.options.budget.parts) {
            session.addOddity(place, "more than " + std::to_string(session.options.budget.parts) +
                                         " parts; the others were not looked at");
            session.addUncovered(place.part(number), "and those behind it");
            return;
        }
        Place inner = place.part(number);
        inner.isOfDigest = type.subtype == "digest";
        readEntity(session, parts.part(), inner);
    }
    if (number == 1)
        session.addUncovered(place, type.text()); // some readers show it as a text
    session.lookBehind(place, parts);
    if (!parts.isClosed())
        session.addOddity(place, "the last boundary of the multipart is missing");
    if (parts.lookAlikes() > 0)
        session.addOddity(place, "lines begin with the boundary but go on: other readers may see other parts");
}

bool isSameMailboxes(std::vector<std::string> left, std::vector<std::string> right) {
    const auto comparable = [](std::vector<std::string>& addresses) {
        for (std::string& address : addresses)
            address = Trust::comparableAddress(address);
        std::ranges::sort(addresses);
    };
    comparable(left);
    comparable(right);
    return !left.empty() && left == right;
}

/// A message within the message.
/// \param isWrapped it is the one that a layer holds, wrapped to protect its header fields: the content
void readMessage(Session& session, const Header& header, const SharedOctets& encoded, const Place& place,
                 bool isWrapped) {
    const SharedOctets body = mime::decoded(encoded, mime::transferOf(header));
    Place inner = place.part(1);
    inner.role = isWrapped ? Role::main : Role::passing;
    inner.isWrapped = isWrapped;
    inner.isOfContent = false;
    const std::size_t index = session.addLayer(LayerKind::forwarded, place);
    session.layer(index).status = LayerStatus::good;
    session.layer(index).detail.clear();
    if (inner.depth > session.options.budget.depth)
        return session.fail(inner, LayerStatus::tooCostly, "it lies deeper than the budget allows");
    Header innerHeader;
    if (!takeHeader(session, *body, inner, innerHeader))
        return;
    if (!isWrapped) {
        session.senders.push_back(sendersIn(innerHeader));
        inner.message = session.senders.size() - 1;
    }
    readBody(session, innerHeader, mime::contentTypeOf(innerHeader), body, inner);
}

/// A text that repeats fields for programs that do not know header protection (RFC 9788, 4.5.3.1).
void tellLegacyDisplay(Session& session, const ContentType& type, const Place& place) {
    const bool isText = type.is("text", "plain") || type.is("text", "html");
    if (place.isOfContent && isText && type.hpLegacyDisplay == "1")
        session.answer.headers.legacyDisplay.push_back(place.path);
}

/// RFC 2045, 6.4: a multipart has no encoding but those of its parts. It is read as it stands; who decodes it sees another one.
void tellEncoding(Session& session, const Header& header, const Place& place) {
    const mime::Transfer transfer = mime::transferOf(header);
    if (transfer == mime::Transfer::identity)
        return;
    const char* const name = transfer == mime::Transfer::base64            ? "base64"
                             : transfer == mime::Transfer::quotedPrintable ? "quoted-printable"
                                                                           : "of another name";
    session.addOddity(place, std::string("a multipart with the transfer encoding ") + name +
                                 ", which none may have (RFC 2045, 6.4): it was read as it stands");
    if (transfer == mime::Transfer::base64) // of which nothing is a part as it stands
        session.addAmbiguity(place,
                             "a multipart with the transfer encoding base64, so that others may see another one");
}

bool isMessage(const ContentType& type) {
    return type.is("message", "rfc822") || type.is("message", "global");
}

/// Whether the message that a layer holds is the one that its sender wrapped to protect the header fields (RFC 8551, 3.1):
/// when it says so, or is from the same sender. Any other is one that is forwarded.
bool isWrappedMessage(Session& session, const Header& header, const ContentType& type, const SharedOctets& body,
                      const Place& place) {
    if (type.forwarded == "no")
        return true;
    if (mime::transferOf(header) != mime::Transfer::identity)
        return false;
    // Looked at without being taken; a header that does not end within this much is that of no wrapped message.
    constexpr std::size_t lookedAt = 65536;
    mime::MemoryOctets copy(body->view(lookedAt).substr(0, lookedAt));
    Header inner;
    return mime::readHeader(copy, {lookedAt - 1}, inner) == mime::HeaderEnd::complete &&
           isSameMailboxes(sendersIn(inner).from, session.senders[place.message].from);
}

} // namespace

bool isStructure(const ContentType& type, const std::string& fileName) {
    if (type.type != "application")
        return false;
    if (type.subtype == "pkcs7-mime" || type.subtype == "x-pkcs7-mime" || type.subtype == "cms" ||
        isSignature(type, ""))
        return true;
    // Senders and relays that do not know the type leave the name.
    return type.subtype == "octet-stream" && (endsWith(fileName, ".p7m") || endsWith(fileName, ".p7c") ||
                                              endsWith(fileName, ".p7s") || endsWith(fileName, ".p7z"));
}

bool isSignature(const ContentType& type, const std::string& fileName) {
    return (type.type == "application" && (type.subtype == "pkcs7-signature" || type.subtype == "x-pkcs7-signature")) ||
           endsWith(fileName, ".p7s");
}

void seekOtherParts(mime::Multipart& parts, const Header& header, const ContentType& type) {
    const bool isQuoted = mime::transferOf(header) == mime::Transfer::quotedPrintable;
    if (isQuoted) {
        for (const char* const hyphenOrLineEnd : {"=2D", "=2d", "=0A", "=0a", "=0D", "=0d"})
            parts.seek(hyphenOrLineEnd);
    }
    if (isQuoted || !type.isBoundaryPlain) {
        parts.seek("\n-");
        parts.seek("\r-");
    }
}

void readEntity(Session& session, const SharedOctets& in, const Place& place) {
    if (place.depth > session.options.budget.depth)
        return session.fail(place, LayerStatus::tooCostly, "it lies deeper than the budget allows");
    if (place.depth == 0 && mime::skipByteOrderMark(*in))
        session.addOddity(place, "a byte order mark in front of the message");
    Header header;
    if (!takeHeader(session, *in, place, header))
        return;
    if (place.depth == 0) {
        session.outer = header;
        session.senders.push_back(sendersIn(header));
    }
    ContentType type = mime::contentTypeOf(header);
    if (place.isOfDigest && header.count("Content-Type") == 0) {
        type.type = "message";
        type.subtype = "rfc822";
    }
    readBody(session, header, type, in, place);
}

void readBody(Session& session, const Header& header, const ContentType& type, const SharedOctets& body,
              const Place& place) {
    if (!type.oddity.empty()) {
        session.addOddity(place, type.oddity);
        session.addAmbiguity(place, type.oddity + ", so that others may see another message");
    }
    if (const std::string line = ambiguousLineIn(header); !line.empty()) {
        session.addOddity(place, line);
        session.addAmbiguity(place, line + ", so that they see another message");
    }
    if (type.type == "multipart")
        tellEncoding(session, header, place);
    // Declared or not, of the content or of what lies around it: who opens a layer is shown its From.
    if (place.role == Role::main)
        session.addProtected(sendersIn(header));
    const bool isSigned = type.is("multipart", "signed");
    if (isSigned && (type.protocol.empty() || type.protocol.starts_with("application/pkcs7-") ||
                     type.protocol.starts_with("application/x-pkcs7-")))
        return readMultipartSigned(session, header, type, body, place);
    if (isSigned)
        session.addOddity(place, "signed as " + type.protocol + ", which is not S/MIME");
    if (isStructure(type, mime::fileNameOf(header, type))) {
        ListedPart part(session, header, type, body, place);
        readStructure(session, type, mime::transferOf(header), part.body(), place);
        return part.finish();
    }
    if (place.role == Role::main) {
        if (isMessage(type) && isWrappedMessage(session, header, type, body, place))
            return readMessage(session, header, body, place, true);
        return deliver(session, header, type, body, place);
    }
    if (type.type == "multipart")
        return walkParts(session, header, type, body, place);
    session.addUncovered(place, type.text());
    if (isMessage(type))
        return readMessage(session, header, body, place, false);
    tellLegacyDisplay(session, type, place);
    ListedPart(session, header, type, body, place).finish();
}

void deliver(Session& session, const Header& header, const ContentType& type, const SharedOctets& body,
             const Place& place) {
    HeaderScheme scheme = HeaderScheme::none;
    if (place.isWrapped)
        scheme = HeaderScheme::wrapped;
    else if (type.hp == "clear" || type.hp == "cipher")
        scheme = type.hp == "clear" ? HeaderScheme::clear : HeaderScheme::cipher;
    else if (type.protectedHeaders == "v1")
        scheme = HeaderScheme::parameter;
    session.answer.contentPath = place.path;
    session.answer.contentType = type.text();
    session.answer.headers = compareHeaders(header, scheme, session.outer);

    Place passing = place;
    passing.role = Role::passing;
    passing.isOfContent = true;
    passing.layers = passedBy; // all of them cover it
    tellLegacyDisplay(session, type, passing);
    SharedOctets copied = body;
    if (place.isKept) {
        session.contentHeader = header;
    } else {
        session.answer.deliveredPath = place.path;
        writeHeader(session, header, scheme, header);
        copied = std::make_shared<mime::CopiedOctets>(body, session.content);
    }
    if (type.type == "multipart")
        walkParts(session, header, type, copied, passing);
    else if (isMessage(type))
        readMessage(session, header, copied, passing, false);
    else
        ListedPart(session, header, type, copied, place).finish();
    mime::drain(*copied);
}

} // namespace Norvane::Crypto::SMime
