#include "openssl/Acceptance.h"

#include "framing/Walk.h"
#include "openssl/ErrorQueue.h"

#include <openssl/err.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>

namespace Norvane::Crypto::openssl {

namespace {

using framing::Header;
using framing::TagClass;
using framing::Walk;

// The content octets of object identifiers.
constexpr std::array<unsigned char, 7> idEcPublicKey{0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x02, 0x01}; // 1.2.840.10045.2.1
constexpr std::array<unsigned char, 8> sm2{0x2A, 0x81, 0x1C, 0xCF, 0x55, 0x01, 0x82, 0x2D};     // 1.2.156.10197.1.301
constexpr std::array<unsigned char, 3> crlDistributionPoints{0x55, 0x1D, 0x1F};                 // 2.5.29.31

template <std::size_t Size>
bool isIdentifier(const Walk& walk, const std::array<unsigned char, Size>& identifier) noexcept {
    return walk.header().contentLength == Size && std::memcmp(walk.content(), identifier.data(), Size) == 0;
}

/// The fewest octets that a relative distribution point takes.
constexpr std::size_t smallestPoint = 6;

/// The relative names in the value of a crlDistributionPoints extension (RFC 5280, 4.2.1.13).
std::size_t relativePoints(const unsigned char* value, std::size_t length) noexcept {
    constexpr std::size_t nameDepth = 3; // in the list, its point and the point's [0]
    constexpr std::uint32_t relativeToIssuer = 1;
    Walk walk(value, length);
    std::size_t count = 0;
    for (auto step = walk.next(); !isLast(step); step = walk.next()) {
        if (step != Walk::Step::closed && walk.depth() == nameDepth &&
            walk.header().is(TagClass::contextSpecific, relativeToIssuer)) {
            ++count;
        }
    }
    return count;
}

bool isAffordable(std::size_t points, std::size_t issuer) noexcept {
    return points == 0 || issuer <= mostRelativeNames / points;
}

/// What an element that is open has shown so far.
struct Shape {
    bool isSequence = false;
    std::uint32_t children = 0; ///< told of a SEQUENCE alone
    /// A SubjectPublicKeyInfo, if it is a SEQUENCE and a BIT STRING follows.
    bool startsWithAlgorithm = false;
    bool isCurveAlgorithm = false;
    bool isDistributionPoints = false;
    bool isSplitValue = false; ///< the value of a crlDistributionPoints extension, a string in parts
    /// The sizes of the last three elements in it; in front of a public key: issuer, validity, subject.
    std::array<std::size_t, 3> last{};
    std::size_t issuer = 0; ///< of the signed part of a certificate: the size of the issuer's name
};

/// Follows a walk and finds public keys and distribution points by their shape, wherever they stand: in what looks primitive,
/// too, where OpenSSL would see a list of certificates.
class Inspection {
public:
    Inspection(const unsigned char* der, std::size_t length, const framing::SegmentRun& known) noexcept
        : m_known(known),
          m_knownContent(der + known.start + known.headerSize),
          m_walk(der, length, Walk::Opening::contextSpecific) {}

    Refusal run() noexcept {
        for (;;) {
            const Walk::Step step = m_walk.next();
            if (isLast(step)) {
                return step == Walk::Step::tooDeep ? Refusal::tooDeep : Refusal::none;
            }
            const Refusal refusal = step == Walk::Step::closed ? closed() : found(step == Walk::Step::opened);
            if (refusal != Refusal::none) {
                return refusal;
            }
            if (step == Walk::Step::primitive && m_walk.content() == m_knownContent && m_known.count > 1) {
                passKnown();
            }
        }
    }

private:
    /// The rest of a run, whose first element was found. Nothing is looked for among strings in a string.
    void passKnown() noexcept {
        Shape* parent = m_walk.depth() == 0 ? nullptr : &m_shapes[m_walk.depth() - 1];
        const std::size_t rest = m_known.count - 1;
        if (parent == nullptr || parent->isSequence || !m_walk.pass(rest * m_known.stride())) {
            return;
        }
        remember(*parent);
        if (rest > 1) {
            remember(*parent);
        }
    }

    Refusal found(bool opened) noexcept {
        const Header& header = m_walk.header();
        const std::size_t depth = m_walk.depth();
        const bool universal = header.tagClass == TagClass::universal;
        if (opened) {
            m_shapes[depth] = Shape();
            m_shapes[depth].isSequence = universal && header.tag == framing::sequence;
        }
        if (depth == 0) {
            return Refusal::none;
        }
        Shape& parent = m_shapes[depth - 1];
        const std::uint32_t index = parent.children++;
        const Refusal refusal = universal && parent.isSequence ? foundInSequence(parent, index, opened) : Refusal::none;
        if (!opened) {
            remember(parent);
        }
        return refusal;
    }

    Refusal foundInSequence(Shape& parent, std::uint32_t index, bool opened) noexcept {
        switch (m_walk.header().tag) {
        case framing::objectIdentifier:
            if (index == 0 && !opened) {
                foundIdentifier(parent);
            }
            return Refusal::none;
        case framing::sequence:
            return index == 1 && parent.isCurveAlgorithm ? Refusal::explicitCurve : Refusal::none;
        case framing::bitString:
            return index == 1 && parent.startsWithAlgorithm ? foundPublicKey() : Refusal::none;
        case framing::octetString:
            return parent.isDistributionPoints ? foundDistributionPoints(opened) : Refusal::none;
        default:
            return Refusal::none;
        }
    }

    void foundIdentifier(Shape& parent) noexcept {
        parent.isCurveAlgorithm = isIdentifier(m_walk, idEcPublicKey) || isIdentifier(m_walk, sm2);
        parent.isDistributionPoints = isIdentifier(m_walk, crlDistributionPoints);
        if (m_walk.depth() >= 2) {
            m_shapes[m_walk.depth() - 2].startsWithAlgorithm = true;
        }
    }

    Refusal foundPublicKey() noexcept {
        if (m_walk.depth() >= 2) {
            Shape& certificate = m_shapes[m_walk.depth() - 2];
            certificate.issuer = certificate.last.front();
        }
        return ++m_publicKeys > mostPublicKeys ? Refusal::tooManyPublicKeys : Refusal::none;
    }

    Refusal foundDistributionPoints(bool split) noexcept {
        if (split) {
            m_shapes[m_walk.depth()].isSplitValue = true;
            return Refusal::none;
        }
        return judge(relativePoints(m_walk.content(), static_cast<std::size_t>(m_walk.header().contentLength)));
    }

    Refusal closed() noexcept {
        const std::size_t depth = m_walk.depth();
        if (depth != 0) {
            remember(m_shapes[depth - 1]);
        }
        // Parts cannot be looked into without putting them together: as many points as could be in them.
        return m_shapes[depth].isSplitValue ? judge(m_walk.elementSize() / smallestPoint) : Refusal::none;
    }

    /// Distribution points belong to the innermost certificate around them.
    [[nodiscard]] Refusal judge(std::size_t points) const noexcept {
        for (std::size_t level = m_walk.depth(); level-- != 0;) {
            if (m_shapes[level].issuer != 0) {
                return isAffordable(points, m_shapes[level].issuer) ? Refusal::none : Refusal::relativePoints;
            }
        }
        return Refusal::none;
    }

    void remember(Shape& parent) noexcept { parent.last = {parent.last[1], parent.last[2], m_walk.elementSize()}; }

    framing::SegmentRun m_known;
    const unsigned char* m_knownContent; ///< of its first element
    Walk m_walk;
    std::array<Shape, Walk::deepest> m_shapes; // those of elements that are open are read
    std::size_t m_publicKeys = 0;
};

constexpr std::size_t refusals = 6;

const std::array<const char*, refusals>& texts() noexcept {
    static constexpr std::array<const char*, refusals> table{
        nullptr,
        "refused: explicit elliptic curve parameters",
        "refused: more than 2500 public keys in one structure",
        "refused: too many distribution points relative to the issuer",
        "refused: nested too deeply",
        "refused: 2 GiB or more",
    };
    return table;
}

/// The number under which OpenSSL keeps the texts. Its table of them refers to ours until the process ends.
int refusalLibrary() {
    static const int library = [] {
        const int number = ERR_get_next_error_library();
        static std::array<ERR_STRING_DATA, refusals + 1> table{};
        table[0] = {ERR_PACK(number, 0, 0), "norvcrypto"};
        for (std::size_t i = 1; i != refusals; ++i) {
            table[i] = {ERR_PACK(0, 0, i), texts()[i]};
        }
        ERR_load_strings(number, table.data());
        return number;
    }();
    return library;
}

} // namespace

Refusal refusalOf(const unsigned char* der, std::size_t length, const framing::SegmentRun& known) noexcept {
    if (length > INT_MAX) {
        return Refusal::tooLong;
    }
    return der == nullptr ? Refusal::none : Inspection(der, length, known).run();
}

bool hasTooManyRelativePoints(const X509* certificate) noexcept {
    if (certificate == nullptr) {
        return false;
    }
    const ErrorMark mark;
    const unsigned char* issuer = nullptr;
    std::size_t issuerSize = 0;
    if (X509_NAME_get0_der(X509_get_issuer_name(certificate), &issuer, &issuerSize) != 1) {
        issuerSize = 0; // a name that was never encoded: an empty one
    }
    std::size_t points = 0;
    for (int i = 0; i < X509_get_ext_count(certificate); ++i) {
        X509_EXTENSION* extension = X509_get_ext(certificate, i);
        if (OBJ_obj2nid(X509_EXTENSION_get_object(extension)) == NID_crl_distribution_points) {
            const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(extension);
            points = std::max(points, relativePoints(ASN1_STRING_get0_data(value),
                                                     static_cast<std::size_t>(ASN1_STRING_length(value))));
        }
    }
    return !isAffordable(points, issuerSize);
}

const char* textOf(Refusal refusal) noexcept {
    return texts()[static_cast<std::size_t>(refusal)];
}

void queueRefusal(const char* function, Refusal refusal) {
    queueError(function, refusalLibrary(), static_cast<int>(refusal));
}

} // namespace Norvane::Crypto::openssl
