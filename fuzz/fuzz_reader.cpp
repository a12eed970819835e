// The pull parser: in memory and from pieces of a stream it comes to the same, never asks for an octet behind the structure,
// and what it walks through to its end OpenSSL decodes as an element of any type.
#include "Driver.h"
#include "differential/Tree.h"

#include "framing/Reader.h"

#include <norvcmsg/Media.h>

#include <openssl/asn1.h>

#include <algorithm>
#include <optional>

namespace framing = Norvane::Crypto::framing;

namespace {

using fuzz::Bytes;

/// What a walk came to.
struct Walked {
    bool complete = false;
    std::optional<framing::Fault> fault{};
    std::size_t elements = 0;
    Bytes octets{}; ///< of all primitive elements
    std::uint64_t length = 0;

    bool operator==(const Walked&) const = default;
};

/// Goes into everything that can be gone into.
Walked walk(const Norvane::MediaIn& in) {
    Walked walked;
    try {
        framing::Reader reader(in);
        do {
            const framing::Header* header = reader.next();
            if (header == nullptr) {
                reader.leave();
            } else if (header->constructed) {
                ++walked.elements;
                reader.enter();
            } else {
                ++walked.elements;
                reader.openString(framing::Segments::strict);
                for (auto piece = reader.piece(); !piece.empty(); piece = reader.piece()) {
                    walked.octets.insert(walked.octets.end(), piece.begin(), piece.end());
                }
            }
        } while (reader.depth() != 0);
        walked.length = reader.position();
        reader.finish();
        walked.complete = true;
    } catch (const framing::Broken& broken) {
        walked.fault = broken.fault();
    }
    return walked;
}

/// Delivers one octet to seven at a time, and aborts when one behind the structure is asked for.
class PiecesBody : public Norvane::MediaInImpl {
public:
    explicit PiecesBody(const Bytes& octets) : m_octets(octets), m_structure(fuzz::elementLength(octets)) {}
    using MediaInImpl::read;
    [[nodiscard]] bool atEnd() const override { return m_at == m_octets.size(); }
    [[nodiscard]] int peek() const override { return atEnd() ? -1 : m_octets[m_at]; }
    int read(unsigned char* out, unsigned int length) override {
        fuzz::require(!m_structure || length <= *m_structure - m_at);
        m_step = m_step % 7 + 1;
        const std::size_t count = std::min({static_cast<std::size_t>(length), m_step, m_octets.size() - m_at});
        std::copy_n(m_octets.begin() + static_cast<std::ptrdiff_t>(m_at), count, out);
        m_at += count;
        return static_cast<int>(count);
    }

private:
    const Bytes& m_octets;
    std::optional<std::size_t> m_structure;
    std::size_t m_at = 0;
    std::size_t m_step = 0;
};

/// Whether an element and all in it are well-formed to OpenSSL's header reader: each element ends within what is around it.
bool isSound(const fuzz::Node& node) {
    return (node.content.empty() || !node.isConstructed()) && !node.isUniversal(0) &&
           std::all_of(node.parts.begin(), node.parts.end(), isSound);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Bytes octets(data, data + size);
    const auto read = [&octets](const Norvane::Buffer& input) {
        const Norvane::MemoryMediaIn memory(input);
        const Walked inMemory = walk(memory);
        const Walked inPieces =
            walk(Norvane::MediaIn(Norvane::makeReference<PiecesBody, Norvane::MediaInImpl>(octets)));
        fuzz::require(inMemory == inPieces);
        const fuzz::Uncounted aside;
        const auto tree = fuzz::parse(octets);
        const bool isSoundTree = tree && isSound(*tree) && fuzz::depthOf(*tree) <= 32;
        // Both ways: what is sound is walked, and what is walked is sound and as long.
        fuzz::require(!isSoundTree || inMemory.complete);
        fuzz::require(!inMemory.complete || (tree && isSound(*tree) && fuzz::elementLength(octets) == inMemory.length));
        ERR_clear_error();
    };
    return fuzz::run(data, size, read);
}
