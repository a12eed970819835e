#include "MailMutator.h"

#include "Dictionary.h"

#include <openssl/evp.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace fuzz {

namespace {

using Lines = std::vector<std::string>;

Lines linesOf(const std::string& text) {
    Lines lines;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
        lines.push_back(text.substr(at, end - at));
        at = end;
    }
    return lines;
}

std::string joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line;
    }
    return text;
}

auto place(Lines& lines, std::size_t at) {
    return lines.begin() + static_cast<std::ptrdiff_t>(at);
}

std::string withoutEnd(const std::string& line) {
    return line.substr(0, line.find_last_not_of("\r\n") + 1);
}

/// A line of base64 that may be one of many; shorter ones are words as well.
bool isBase64(const std::string& line) {
    const std::string content = withoutEnd(line);
    return content.size() >= 4 && content.size() % 4 == 0 &&
           content.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=") ==
               std::string::npos;
}

Bytes decoded(const std::string& base64) {
    Bytes octets(base64.size() / 4 * 3);
    const int count = EVP_DecodeBlock(octets.data(), reinterpret_cast<const unsigned char*>(base64.data()),
                                      static_cast<int>(base64.size()));
    const auto padding = static_cast<std::size_t>(std::count(base64.end() - 2, base64.end(), '='));
    octets.resize(count < 0 ? 0 : static_cast<std::size_t>(count) - padding);
    return octets;
}

Lines encoded(const Bytes& octets) {
    std::string base64(octets.size() / 3 * 4 + 5, '\0');
    base64.resize(static_cast<std::size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char*>(base64.data()),
                                                           octets.data(), static_cast<int>(octets.size()))));
    Lines lines;
    for (std::size_t at = 0; at < base64.size(); at += 76) {
        lines.push_back(base64.substr(at, 76) + "\r\n");
    }
    return lines;
}

/// Where parts begin and end: the lines with two hyphens in front.
std::vector<std::size_t> delimitersIn(const Lines& lines) {
    std::vector<std::size_t> found;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].starts_with("--")) {
            found.push_back(i);
        }
    }
    return found;
}

} // namespace

void MailMutator::changeOctets(std::string& text, std::size_t most) {
    std::vector<std::uint8_t> octets(text.begin(), text.end());
    const std::size_t count = std::min(octets.size(), most);
    octets.resize(most);
    octets.resize(m_octets(octets.data(), count, most));
    text.assign(octets.begin(), octets.end());
}

/// Lines taken away, doubled, moved, put in from what readers know, folded, given other values.
void MailMutator::changeLines(Lines& lines) {
    const std::size_t at = below(lines.size());
    const std::size_t last = std::min(lines.size(), at + 1 + below(4));
    const Lines some(place(lines, at), place(lines, last));
    switch (below(6)) {
    case 0:
        lines.erase(place(lines, at), place(lines, last));
        break;
    case 1:
        lines.insert(place(lines, below(lines.size() + 1)), some.begin(), some.end());
        break;
    case 2:
        lines.erase(place(lines, at), place(lines, last));
        lines.insert(place(lines, below(lines.size() + 1)), some.begin(), some.end());
        break;
    case 3: {
        const auto& words = mailWords();
        lines.insert(place(lines, at), words[below(words.size())] + (below(2) == 0 ? "" : "\r\n"));
        break;
    }
    case 4: {
        const auto& words = mailWords();
        lines[at].insert(below(lines[at].size() + 1), words[below(words.size())]);
        break;
    }
    default:
        lines[at].insert(below(lines[at].size() + 1), below(2) == 0 ? "\r\n " : "\r\n\t");
        break;
    }
}

void MailMutator::changeParts(Lines& lines) {
    const auto delimiters = delimitersIn(lines);
    if (delimiters.size() < 2) {
        changeLines(lines);
        return;
    }
    const std::size_t which = below(delimiters.size() - 1);
    const std::size_t from = delimiters[which];
    const std::size_t to = delimiters[which + 1];
    const Lines part(place(lines, from), place(lines, to));
    switch (below(5)) {
    case 0: // in front of another one
        lines.erase(place(lines, from), place(lines, to));
        [[fallthrough]];
    case 1: {
        const auto others = delimitersIn(lines);
        lines.insert(place(lines, others[below(others.size())]), part.begin(), part.end());
        break;
    }
    case 2:
        lines.erase(place(lines, from), place(lines, to));
        break;
    case 3: // another boundary here alone
        changeOctets(lines[from], lines[from].size() + 4);
        break;
    default: // as an end, or as none any more
        if (withoutEnd(lines[from]).ends_with("--") && withoutEnd(lines[from]).size() > 2) {
            lines[from] = withoutEnd(lines[from]).substr(0, withoutEnd(lines[from]).size() - 2) + "\r\n";
        } else {
            lines[from] = withoutEnd(lines[from]) + "--\r\n";
        }
        break;
    }
}

void MailMutator::changeBase64(Lines& lines, std::size_t most) {
    std::vector<std::pair<std::size_t, std::size_t>> blocks;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (isBase64(lines[i])) {
            const std::size_t begin = i;
            while (i < lines.size() && isBase64(lines[i])) {
                ++i;
            }
            blocks.emplace_back(begin, i);
        }
    }
    if (blocks.empty()) {
        changeLines(lines);
        return;
    }
    const auto [begin, end] = blocks[below(blocks.size())];
    std::string text;
    for (std::size_t i = begin; i < end; ++i) {
        text += withoutEnd(lines[i]);
    }
    const Lines changed = encoded(m_tlv.change(decoded(text), most * 7 / 10));
    lines.erase(place(lines, begin), place(lines, end));
    lines.insert(place(lines, begin), changed.begin(), changed.end());
}

void MailMutator::changeLineEnds(Lines& lines) {
    static const std::vector<std::string> ends{"\r\n", "\n", "\r", "\r\r\n", ""};
    const std::string& end = ends[below(ends.size())];
    const std::size_t from = below(lines.size());
    const std::size_t to = below(2) == 0 ? from + 1 : lines.size();
    for (std::size_t i = from; i < to; ++i) {
        lines[i] = withoutEnd(lines[i]) + end;
    }
}

/// All of it as a part of a mail, or as a mail in a mail.
void MailMutator::wrap(Lines& lines) {
    if (below(2) == 0) {
        lines.insert(lines.begin(), "Content-Type: message/rfc822\r\n\r\n");
        return;
    }
    const std::string boundary = "w" + std::to_string(below(3));
    const char* const kind = below(2) == 0 ? "signed" : "mixed";
    lines.insert(lines.begin(), std::string("Content-Type: multipart/") + kind + "; boundary=" + boundary +
                                    "\r\n\r\n--" + boundary + "\r\n");
    lines.push_back("\r\n--" + boundary + "--\r\n");
}

std::string MailMutator::change(const std::string& mail, std::size_t most) {
    for (int attempt = 0; attempt < 4; ++attempt) {
        Lines lines = linesOf(mail);
        for (std::size_t left = std::size_t{1} << below(3); left != 0 && !lines.empty(); --left) {
            switch (below(10)) {
            case 0:
            case 1:
                changeLines(lines);
                break;
            case 2:
            case 3:
                changeParts(lines);
                break;
            case 4:
            case 5:
            case 6:
                changeBase64(lines, most);
                break;
            case 7:
                changeLineEnds(lines);
                break;
            case 8:
                wrap(lines);
                break;
            default:
                changeOctets(lines[below(lines.size())], std::min<std::size_t>(most, 200));
                break;
            }
        }
        std::string changed = joined(lines);
        if (!changed.empty() && changed.size() <= most && changed != mail) {
            return changed;
        }
    }
    std::string changed = mail;
    changeOctets(changed, most);
    return changed;
}

std::string MailMutator::cross(const std::string& into, const std::string& from, std::size_t most) {
    Lines lines = linesOf(into);
    const Lines others = linesOf(from);
    if (!others.empty()) {
        const std::size_t at = below(others.size());
        const auto begin = others.begin() + static_cast<std::ptrdiff_t>(at);
        const auto end = begin + static_cast<std::ptrdiff_t>(1 + below(others.size() - at));
        lines.insert(place(lines, below(lines.size() + 1)), begin, end);
    }
    std::string crossed = joined(lines);
    if (crossed.size() > most) {
        crossed.resize(most);
    }
    return crossed;
}

} // namespace fuzz
