#include "write/Preparation.h"

#include "mime/Limits.h"
#include "mime/Multipart.h"
#include "mime/Transfer.h"
#include "write/BoundedHeader.h"
#include "write/Fail.h"
#include "write/Fields.h"
#include "write/Filters.h"
#include "write/QuotedPrintable.h"
#include "write/Taken.h"

#include <algorithm>

namespace Norvane::Crypto::SMime::writing {

namespace {

bool isUsableBoundary(const std::string& boundary) {
    return !boundary.empty() && boundary.size() <= mime::maximumBoundary && boundary.back() != ' ' &&
           std::ranges::all_of(boundary, [](char c) { return c >= ' ' && c <= '~'; });
}

} // namespace

void Preparation::look(const mime::Header& header, const mime::SharedOctets& body) {
    Entity message{header, body, "1"};
    message.isShownFirst = true;
    walk(message);
}

void Preparation::write(const mime::Header& header, const mime::SharedOctets& body, const MediaOut& target) {
    m_writing = true;
    m_target = target;
    walk({header, body, "1"});
    if (m_next != m_parts.size()) {
        failChanged();
    }
}

void Preparation::put(std::string_view text) {
    if (m_writing) {
        writing::put(m_target, text);
    }
}

std::string Preparation::nameOf(const Entity& entity) {
    return entity.depth == 0 ? "the message" : "the part at " + entity.path;
}

Preparation::Kind Preparation::kindOf(const Entity& entity, const mime::ContentType& type) {
    const bool isIdentity = mime::transferOf(entity.header) == mime::Transfer::identity;
    if (type.type == "multipart") {
        if (type.subtype == "signed" || type.subtype == "encrypted" || !isIdentity ||
            !isUsableBoundary(type.boundary)) {
            return Kind::sealed;
        }
        return Kind::multipart;
    }
    const bool isMessage = type.is("message", "rfc822") || (entity.ofDigest && !entity.header.first("Content-Type"));
    return isMessage && isIdentity ? Kind::message : Kind::leaf;
}

std::size_t Preparation::begin(const Entity& entity) {
    if (m_writing) {
        if (m_next == m_parts.size()) {
            failChanged();
        }
        return m_next++;
    }
    if (m_parts.size() == m_budget.parts) {
        fail("the message has more than " + std::to_string(m_budget.parts) + " parts");
    }
    if (entity.depth > m_budget.depth) {
        fail("the parts of the message lie within one another more than " + std::to_string(m_budget.depth) + " deep");
    }
    m_parts.emplace_back();
    return m_parts.size() - 1;
}

void Preparation::walk(const Entity& entity) {
    const std::size_t number = begin(entity);
    const mime::ContentType type = mime::contentTypeOf(entity.header);
    const Kind kind = kindOf(entity, type);
    if (m_writing) {
        put(headerOf(entity, kind, number));
    } else {
        // What it throws is found before anything is written.
        m_parts[number].eightBitHeader = !traitsOf(headerOf(entity, kind, number)).isSendable();
    }
    switch (kind) {
    case Kind::multipart:
        walkParts(entity, type, number);
        break;
    case Kind::message:
        walkMessage(entity, number);
        break;
    case Kind::leaf:
    case Kind::sealed:
        if (m_writing) {
            writeLeaf(entity, number);
        } else {
            lookAtLeaf(entity, type, kind, number);
        }
        break;
    }
}

void Preparation::walkMessage(const Entity& entity, std::size_t number) {
    mime::Header header;
    readBounded(*entity.body, m_budget, "the message in " + nameOf(entity), header);
    const std::size_t first = m_parts.size(); // that is added
    walk({header, entity.body, entity.path + ".1", entity.depth + 1});
    if (!m_writing) {
        m_parts[number].eightBit = m_parts[first].eightBit || m_parts[first].eightBitHeader;
    }
}

void Preparation::walkParts(const Entity& entity, const mime::ContentType& type, std::size_t number) {
    mime::Multipart parts(entity.body, type.boundary);
    // Where nothing but a preamble is there, it is all that readers have.
    const bool hasPreamble = walkFrame(parts.part(), m_parts[number].preamble);
    std::size_t count = 0;
    bool eightBit = false;
    while (parts.next()) {
        if (count != 0 || hasPreamble) {
            put("\r\n");
        }
        put("--" + type.boundary + "\r\n");
        const std::string path = entity.path + '.' + std::to_string(++count);
        mime::Header header;
        readBounded(*parts.part(), m_budget, "the part at " + path, header);
        const std::size_t first = m_parts.size(); // that is added
        const bool isShownFirst = entity.isShownFirst && (count == 1 || type.subtype == "alternative");
        walk({header, parts.part(), path, entity.depth + 1, type.subtype == "digest", isShownFirst});
        eightBit = eightBit || (!m_writing && (m_parts[first].eightBit || m_parts[first].eightBitHeader));
    }
    if (count != 0 || parts.isClosed()) {
        if (count != 0 || hasPreamble) {
            put("\r\n");
        }
        put("--" + type.boundary + "--\r\n");
    }
    const bool hasEpilogue = walkFrame(entity.body, m_parts[number].epilogue);
    if (m_writing) {
        return;
    }
    m_parts[number].eightBit = eightBit;
    m_parts[number].preamble = hasPreamble;
    m_parts[number].epilogue = hasEpilogue;
    if (count == 0 && !hasPreamble) {
        if (m_sevenBitAlone) {
            fail(nameOf(entity) + " is a multipart without any part, and not text that can be sent");
        }
        m_parts[number].preamble = true;
        m_parts[number].eightBit = true;
    }
}

/// A preamble or an epilogue. \returns whether it can be sent as it is; while writing, whether it was written
bool Preparation::walkFrame(const mime::SharedOctets& octets, bool kept) {
    if (!m_writing) {
        return taken(*octets, nullptr).isRelayProof();
    }
    bool any = false;
    if (kept) {
        any = !octets->atEnd();
        MediaOut filter = canonicalLineEnds(keptOpen(m_target), LoneReturn::data);
        static_cast<void>(taken(*octets, &filter));
    }
    return any;
}

} // namespace Norvane::Crypto::SMime::writing
