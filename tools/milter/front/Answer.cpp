#include "front/Answer.h"

#include <norvcmsg/Buffer.h>
#include <norvcmsg/Media.h>

#include <algorithm>

namespace norvmilter {

namespace {

/// What the protocol takes in one piece.
constexpr unsigned int longestPiece = 65535;
/// libmilter takes 980 with the codes, and counts doubled percent signs twice.
constexpr std::size_t longestText = 900;

// libmilter's functions take texts that they do not change.
char* text(const std::string& value) {
    return const_cast<char*>(value.c_str());
}

/// As it is sent: neither a carriage return nor a NUL can be.
std::string sent(const std::string& value, const Agreed& agreed) {
    std::string result;
    result.reserve(value.size());
    std::ranges::copy_if(value, std::back_inserter(result), [](char one) { return one != '\r' && one != '\0'; });
    if (!agreed.leadingBlank && result.starts_with(' '))
        result.erase(0, 1);
    return result;
}

bool apply(SMFICTX* context, const Agreed& agreed, const HeaderEdit& edit) {
    switch (edit.kind) {
    case HeaderEdit::Kind::remove:
        return smfi_chgheader(context, text(edit.name), static_cast<int>(edit.occurrence), nullptr) == MI_SUCCESS;
    case HeaderEdit::Kind::insert:
        return smfi_insheader(context, 0, text(edit.name), text(sent(edit.value, agreed))) == MI_SUCCESS;
    case HeaderEdit::Kind::append:
        return smfi_addheader(context, text(edit.name), text(sent(edit.value, agreed))) == MI_SUCCESS;
    }
    return false;
}

bool replaceBody(SMFICTX* context, Norvane::MediaIn body) {
    Norvane::Buffer piece(static_cast<int>(longestPiece), 0);
    piece.protect(); // it may have been encrypted
    // An empty body is a change, too: one piece without octets.
    do {
        const int length = body.read(piece.data(), longestPiece);
        if (length < 0 || (length == 0 && !body.atEnd()) ||
            smfi_replacebody(context, piece.data(), length) != MI_SUCCESS)
            return false;
    } while (!body.atEnd());
    return true;
}

bool removeRecipient(SMFICTX* context, const std::map<std::string, std::string>& written,
                     const std::string& recipient) {
    const auto found = written.find(recipient);
    return smfi_delrcpt(context, text(found == written.end() ? '<' + recipient + '>' : found->second)) == MI_SUCCESS;
}

} // namespace

bool applyChanges(SMFICTX* context, const Agreed& agreed, const std::map<std::string, std::string>& written,
                  const Outcome& outcome) {
    if (!outcome.removeRecipients.empty() && !agreed.removesRecipients)
        return false;
    return std::ranges::all_of(outcome.edits, [&](const HeaderEdit& edit) { return apply(context, agreed, edit); }) &&
           std::ranges::all_of(outcome.removeRecipients,
                               [&](const std::string& one) { return removeRecipient(context, written, one); }) &&
           (!outcome.body || replaceBody(context, outcome.body->in()));
}

sfsistat answerWith(SMFICTX* context, const Reply& reply) {
    const bool isPermanent = reply.code >= 500 && reply.code <= 599;
    const std::string code = std::to_string(isPermanent || (reply.code >= 400 && reply.code <= 499) ? reply.code : 451);
    std::string line;
    for (const char one : reply.text.substr(0, longestText)) {
        if (one < ' ' || one > '~')
            line += '?';
        else
            line += one == '%' ? std::string("%%") : std::string(1, one);
    }
    // The text is for people: without it the MTA has one of its own.
    static_cast<void>(
        smfi_setreply(context, text(code), reply.enhanced.empty() ? nullptr : text(reply.enhanced), text(line)));
    return isPermanent ? SMFIS_REJECT : SMFIS_TEMPFAIL;
}

} // namespace norvmilter
