#include "write/HeaderProtection.h"

#include "write/Fail.h"
#include "write/Fields.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace Norvane::Crypto::SMime::writing {

namespace {

using mime::isSameName;

bool begins(std::string_view name, std::string_view prefix) {
    return isSameName(name.substr(0, prefix.size()), prefix);
}

/// Written anew outside, or moved inside in any case.
bool describesBody(std::string_view name) {
    return begins(name, "Content-") || isSameName(name, "MIME-Version");
}

/// What its writer did not say to the readers: Bcc, and what the mail met on its way.
bool isRepeated(std::string_view name) {
    static constexpr std::array<std::string_view, 7> others{
        "Bcc", "Received", "Return-Path", "Delivered-To", "DKIM-Signature", "X-Original-To", "Authentication-Results"};
    static constexpr std::array<std::string_view, 3> families{"Resent-", "ARC-", "HP-"};
    return std::ranges::none_of(others, [name](std::string_view one) { return isSameName(name, one); }) &&
           std::ranges::none_of(families, [name](std::string_view one) { return begins(name, one); });
}

/// What stands outside in place of a field that is hidden (RFC 9788, 3.2.1: hcp_baseline).
std::string hidden(std::string_view name, const std::string& field) {
    if (isSameName(name, "Subject")) {
        return newField(name, "[...]");
    }
    return isSameName(name, "Comments") || isSameName(name, "Keywords") ? std::string() : field;
}

[[noreturn]] void failOtherLine() {
    fail("the header of the message has a line that is no field, at which many readers begin the body");
}

/// Refuses a field in which an empty line stands for those who end lines at a CR. Of a mail of which all lines end so, the first
/// field is all there is, and the body would stand in it, outside.
void requireNoEmptyLine(std::string_view octets) {
    for (std::size_t at = octets.find("\r\r"); at != std::string_view::npos; at = octets.find("\r\r", at + 1)) {
        const std::string_view behind = octets.substr(at + 2);
        if (!behind.empty() && behind.front() != '\n') {
            failOtherLine();
        }
    }
}

/// As it is sent outside. What is no field for a return or NUL byte in front of its colon becomes one there, where it must not
/// describe the body a second time. What is no field then either is refused: many readers, relays among them, take it for the
/// first line of the body.
std::string outside(const mime::Header& header, const mime::Header::Field& field) {
    std::string text = outerField(header.octetsOf(field));
    if (begins(text, "Content-") || begins(text, "MIME-Version")) {
        return "";
    }
    const mime::Header written = readAgain(text);
    const bool isOfMailbox = field.begin == 0 && text.starts_with("From ");
    if (!written.fields().empty() && written.nameOf(written.fields().front()).empty() && !isOfMailbox) {
        failOtherLine();
    }
    return text;
}

/// The field as it stands inside and, unless it is hidden, outside: in 7 bits, so that both are the same.
std::string protectedField(const mime::Header& header, const mime::Header::Field& field) {
    const std::string_view name = header.nameOf(field);
    std::string text = innerField(name, header.valueOf(field), "the message");
    static constexpr std::array<std::string_view, 5> ofAddresses{"From", "Sender", "Reply-To", "To", "Cc"};
    const bool hasAddresses =
        std::ranges::any_of(ofAddresses, [name](std::string_view one) { return isSameName(name, one); });
    // The part in front of the "@" has no other form (RFC 6532); in an encoded word nobody would find it.
    if (hasAddresses && addressesOf(text, std::string(name), asUtf8(header.unfolded(field))) == Addresses::lost) {
        fail("the field " + std::string(name) + " of the message has an address that cannot be written in 7 bits");
    }
    return text;
}

} // namespace

DividedHeader divided(const mime::Header& header) {
    DividedHeader result;
    for (const mime::Header::Field& field : header.fields()) {
        if (!describesBody(header.nameOf(field))) {
            requireNoEmptyLine(header.octetsOf(field));
            result.outside += outside(header, field);
        }
    }
    return result;
}

DividedHeader dividedWithProtection(const mime::Header& header, bool encrypts) {
    DividedHeader result;
    std::string outer;
    const auto add = [&](const mime::Header& from, const mime::Header::Field& field) {
        const std::string_view name = from.nameOf(field);
        if (!isRepeated(name)) {
            result.outside += outside(from, field);
            return;
        }
        const std::string text = protectedField(from, field);
        result.inside += text;
        const std::string shown = encrypts ? hidden(name, text) : text;
        result.outside += shown;
        if (encrypts && !shown.empty()) {
            outer +=
                innerField("HP-Outer", ' ' + shown, "the message"); // its first line is longer than that of the field
        }
    };
    for (const mime::Header::Field& field : header.fields()) {
        const std::string_view name = header.nameOf(field);
        if (describesBody(name)) {
            continue;
        }
        requireNoEmptyLine(header.octetsOf(field));
        if (!name.empty()) {
            add(header, field);
            continue;
        }
        // What becomes a field outside is hidden and repeated like any other.
        const std::string text = outside(header, field);
        const mime::Header written = readAgain(text);
        if (written.fields().empty() || written.nameOf(written.fields().front()).empty()) {
            result.outside += text;
        } else {
            add(written, written.fields().front());
        }
    }
    result.inside += outer;
    result.typeParameter = encrypts ? "hp=\"cipher\"" : "hp=\"clear\"";
    return result;
}

} // namespace Norvane::Crypto::SMime::writing
