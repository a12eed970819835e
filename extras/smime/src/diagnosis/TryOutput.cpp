#include "diagnosis/TryOutput.h"

#include <norvcmsg/BytesInMemory.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

constexpr std::size_t keptBack = std::size_t{16} << 10U;
constexpr std::size_t passedAtOnce = std::size_t{16} << 10U;
constexpr std::size_t mostLines = 64;
constexpr std::size_t mostLineEnds = 3;

/// The structure, for one try.
class StructureSource : public MediaInImpl, public BytesInMemory {
public:
    explicit StructureSource(const Buffer& octets) : m_octets(&octets) {}

    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return left() == 0; }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : *rest(); }
    int read(unsigned char* out, unsigned int length) override {
        const unsigned long count = std::min<unsigned long>(length, left());
        std::memcpy(out, rest(), count);
        skip(count);
        return static_cast<int>(count);
    }
    [[nodiscard]] const unsigned char* rest() const noexcept override { return m_octets->data() + m_at; }
    [[nodiscard]] unsigned long left() const noexcept override { return m_octets->length() - m_at; }
    void skip(unsigned long count) noexcept override { m_at += count; }

private:
    const Buffer* m_octets;
    unsigned long m_at = 0;
};

LineEnd made(LineEnd end, EndMode mode) noexcept {
    switch (mode) {
    case EndMode::crLf:
        return end == LineEnd::none ? end : LineEnd::crLf;
    case EndMode::crLfButBareCr:
        return end == LineEnd::lf || end == LineEnd::crCrLf ? LineEnd::crLf : end;
    case EndMode::lf:
        return end == LineEnd::crLf || end == LineEnd::crCrLf ? LineEnd::lf : end;
    case EndMode::asIs:
        break;
    }
    return end;
}

/// Where the line end in front of `position` begins; there, when it is none.
std::size_t lineEndBefore(std::string_view text, std::size_t position) noexcept {
    if (position != 0 && text[position - 1] == '\n') {
        --position;
        while (position != 0 && text[position - 1] == '\r') {
            --position;
        }
    } else if (position != 0 && text[position - 1] == '\r') {
        --position;
    }
    return position;
}

/// Where what is asked about may end: with and without the line end of each of the last lines, the earliest first.
std::vector<std::size_t> endsIn(std::string_view text) {
    std::vector<std::size_t> ends;
    std::size_t at = text.size();
    for (std::size_t line = 0; line != mostLines && at != 0; ++line) {
        const std::size_t without = lineEndBefore(text, at);
        // In front of an empty line it is where the line before ended without that.
        if (at != text.size() && (ends.empty() || ends.back() != at)) {
            ends.push_back(at);
        }
        if (without != at) {
            ends.push_back(without);
        }
        const std::size_t before = without == 0 ? std::string_view::npos : text.find_last_of("\r\n", without - 1);
        at = before == std::string_view::npos ? 0 : before + 1;
    }
    std::ranges::reverse(ends);
    return ends;
}

/// What is left out behind `position`.
EndChange leavingOut(std::string_view text, std::size_t position) noexcept {
    EndChange change;
    const std::string_view rest = text.substr(position);
    change.octetsLess = rest.size();
    std::size_t ends = 0;
    for (std::size_t at = rest.size(); at != 0; ++ends) {
        const std::size_t without = lineEndBefore(rest, at);
        if (without == at) {
            break;
        }
        at = without;
    }
    if (rest.find_first_not_of("\r\n") == std::string_view::npos) {
        change.lineEndsLess = ends;
        return change;
    }
    const auto isText = [&](std::size_t at) { return rest[at] != '\r' && rest[at] != '\n'; };
    for (std::size_t at = 0; at != rest.size(); ++at) {
        if (isText(at) && (at == 0 || !isText(at - 1))) {
            ++change.linesLess;
        }
    }
    return change;
}

} // namespace

MediaIn sourceOver(const Buffer& octets) {
    return MediaIn(makeReference<StructureSource, MediaInImpl>(octets));
}

TryOutput::TryOutput(const Buffer& structure, EndMode mode, LineEnd newLine)
    : m_message(sourceOver(structure)),
      m_digest(m_message.digest()),
      m_mode(mode),
      m_newLine(newLine) {}

void TryOutput::put(std::string_view octets) {
    m_kept.append(octets);
    m_length += octets.size();
    if (m_kept.size() >= keptBack + passedAtOnce) {
        pass(m_kept.size() - keptBack);
    }
}

void TryOutput::end(LineEnd end) {
    put(octetsOf(made(end, m_mode)));
}

void TryOutput::pass(std::size_t count) {
    m_digest.write(reinterpret_cast<const unsigned char*>(m_kept.data()), static_cast<unsigned int>(count));
    m_kept.erase(0, count);
}

void TryOutput::finish(BodyJudge& judge) {
    std::size_t passed = 0;
    const std::vector<std::size_t> ends = endsIn(m_kept);
    std::vector<EndChange> changes;
    changes.reserve(ends.size());
    for (const std::size_t end : ends) {
        changes.push_back(leavingOut(m_kept, end));
    }
    for (std::size_t at = 0; at != ends.size(); ++at) {
        pass(ends[at] - passed);
        passed = ends[at];
        judge.judge(m_message, changes[at]);
    }
    pass(m_kept.size());
    judge.judge(m_message, {});
    const std::string_view newLine = octetsOf(m_newLine);
    for (std::size_t more = 1; more <= mostLineEnds; ++more) {
        m_digest.write(reinterpret_cast<const unsigned char*>(newLine.data()),
                       static_cast<unsigned int>(newLine.size()));
        EndChange change;
        change.lineEndsMore = more;
        judge.judge(m_message, change);
    }
}

} // namespace Norvane::Crypto::SMime::diagnosis
