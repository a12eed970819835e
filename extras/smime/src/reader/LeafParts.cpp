#include "LeafParts.h"

#include <algorithm>

namespace Norvane::Crypto::SMime {

/// Counts what bytes that are taken come to without their transfer encoding.
class ListedPart::Measured : public mime::Octets {
public:
    Measured(mime::SharedOctets from, mime::Transfer transfer) : m_from(std::move(from)), m_decoder(transfer) {}

    std::string_view view(std::size_t atLeast) override { return m_from->view(atLeast); }
    void skip(std::size_t count) override {
        for (std::string_view bytes = m_from->view(count).substr(0, count); !bytes.empty();) {
            constexpr std::size_t most = 16384;
            m_decoder.decode(bytes.substr(0, most), m_decoded);
            note();
            bytes.remove_prefix(std::min(most, bytes.size()));
        }
        m_from->skip(count);
    }
    std::uint64_t end() {
        m_decoder.end(m_decoded);
        note();
        return m_octets;
    }

private:
    void note() {
        m_octets += m_decoded.size();
        m_decoded.clear();
    }

    mime::SharedOctets m_from;
    mime::Decoder m_decoder;
    mime::WipedText m_decoded;
    std::uint64_t m_octets = 0;
};

ListedPart::ListedPart(Session& session, const mime::Header& header, const mime::ContentType& type,
                       const mime::SharedOctets& body, const Place& place)
    : m_session(session),
      m_body(body) {
    if (!session.options.listParts)
        return;
    std::vector<LeafPart>& parts = session.answer.parts;
    if (parts.size() >= session.options.budget.parts) {
        if (!std::exchange(session.isListFull, true))
            session.addOddity(place, "more than " + std::to_string(session.options.budget.parts) +
                                         " parts that hold no others; the rest is not listed");
        return;
    }
    constexpr std::size_t longestWord = 100;
    const std::string word = mime::transferWordOf(header).substr(0, longestWord);
    m_index = parts.size();
    parts.push_back({place.path, type.text(), mime::fileNameOf(header, type), word.empty() ? "7bit" : word, 0});
    m_measured = std::make_shared<Measured>(body, mime::transferOf(header));
    m_body = m_measured;
}

void sortByPath(std::vector<LeafPart>& parts) {
    const auto numbersOf = [](const LeafPart& part) {
        std::vector<unsigned long> numbers;
        for (std::size_t at = 0; at < part.path.size();) {
            numbers.push_back(std::stoul(part.path.substr(at)));
            at = std::min(part.path.find('.', at), part.path.size() - 1) + 1;
        }
        return numbers;
    };
    std::ranges::stable_sort(parts, {}, numbersOf);
}

void ListedPart::finish() {
    if (!m_measured)
        return;
    mime::drain(*m_measured);
    m_session.answer.parts[m_index].octets = m_measured->end();
}

} // namespace Norvane::Crypto::SMime
