// Changes of single lines and of what is around the parts.
#include "diagnosis/Undoing.h"

#include <utility>

namespace Norvane::Crypto::SMime::diagnosis {

namespace {

constexpr std::size_t mostBlanksHeld = std::size_t{64} << 10U;

std::string_view withoutBlanks(std::string_view text) noexcept {
    return text.substr(0, text.find_last_not_of(" \t") + 1);
}

class BlankDropping : public Undoing {
public:
    using Undoing::Undoing;

    void header(const std::vector<HeaderLine>& lines, const PartHeader& /*part*/) override {
        for (const HeaderLine& line : lines) {
            put(HeaderLine{std::string(withoutBlanks(line.octets)), line.end});
        }
    }
    void line(const LinePiece& piece) override {
        if (piece.begins) {
            m_held.clear();
        }
        const std::string_view text = withoutBlanks(piece.octets);
        if (!text.empty() || m_held.size() > mostBlanksHeld) {
            out().put(std::exchange(m_held, {}));
            out().put(text);
        }
        m_held += piece.octets.substr(text.size());
        if (piece.ends) {
            out().end(piece.end);
        }
    }

private:
    std::string m_held; ///< blanks behind which more of the line may come
};

class StartChanging : public Undoing {
public:
    StartChanging(LineOutput& out, LineStart change) : Undoing(out), m_change(change) {}

    void line(const LinePiece& piece) override {
        LinePiece changed = piece;
        if (piece.begins) {
            change(changed);
        }
        Undoing::line(changed);
    }

private:
    void change(LinePiece& piece) {
        std::string_view& text = piece.octets;
        const std::size_t escapes = std::min(text.find_first_not_of('>'), text.size());
        const bool isFrom = text.substr(escapes).starts_with("From ");
        switch (m_change) {
        case LineStart::separatorBlank:
            text = piece.ends && text == "--" ? std::string_view("-- ") : text;
            break;
        case LineStart::oneDotLess:
            text.remove_prefix(text.starts_with("..") ? 1 : 0);
            break;
        case LineStart::oneDotMore:
            out().put(text.starts_with('.') ? "." : "");
            break;
        case LineStart::fromUnescaped:
            text.remove_prefix(isFrom && escapes == 1 ? 1 : 0);
            break;
        case LineStart::fromUnescapedDeeply:
            text.remove_prefix(isFrom && escapes != 0 ? 1 : 0);
            break;
        case LineStart::fromEscaped:
            out().put(isFrom && escapes == 0 ? ">" : "");
            break;
        }
    }

    LineStart m_change;
};

class PreambleReplacing : public Undoing {
public:
    PreambleReplacing(LineOutput& out, std::vector<std::string> lines) : Undoing(out), m_lines(std::move(lines)) {}

    void line(const LinePiece& piece) override {
        if (piece.isOutermost && piece.place == Place::preamble) {
            return;
        }
        // The first boundary is one of the outermost.
        if (piece.place == Place::boundary && !std::exchange(m_isPut, true)) {
            for (const std::string& line : m_lines) {
                out().put(line);
                out().newLine();
            }
        }
        Undoing::line(piece);
    }

private:
    std::vector<std::string> m_lines;
    bool m_isPut = false;
};

class EpilogueDropping : public Undoing {
public:
    using Undoing::Undoing;

    void line(const LinePiece& piece) override {
        if (!piece.isOutermost || piece.place != Place::epilogue) {
            Undoing::line(piece);
        }
    }
};

} // namespace

void Undoing::header(const std::vector<HeaderLine>& lines, const PartHeader& /*part*/) {
    for (const HeaderLine& line : lines) {
        put(line);
    }
}

void Undoing::line(const LinePiece& piece) {
    m_out->put(piece.octets);
    if (piece.ends) {
        m_out->end(piece.end);
    }
}

void Undoing::put(const HeaderLine& line) {
    m_out->put(line.octets);
    m_out->end(line.end);
}

UndoingPtr dropBlanks(LineOutput& out) {
    return std::make_unique<BlankDropping>(out);
}

UndoingPtr changeStarts(LineOutput& out, LineStart change) {
    return std::make_unique<StartChanging>(out, change);
}

UndoingPtr replacePreamble(LineOutput& out, std::vector<std::string> lines) {
    return std::make_unique<PreambleReplacing>(out, std::move(lines));
}

UndoingPtr dropEpilogue(LineOutput& out) {
    return std::make_unique<EpilogueDropping>(out);
}

} // namespace Norvane::Crypto::SMime::diagnosis
