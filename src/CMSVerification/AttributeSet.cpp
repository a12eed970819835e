// Whether a body is a set of attributes: a reader of headers that keeps none of the bytes.
#include <norvcrypto/CMSVerification.h>

#include <openssl/asn1.h>

#include <algorithm>
#include <limits>

namespace Norvane::Crypto::CMS {

namespace {

constexpr std::uint64_t indefinite = ~std::uint64_t{0};

/// The header of an element, an octet at a time. Understands what `framing::readHeader` does, and the same by it: whoever reads the
/// set as attributes reads it so.
class HeaderReader {
public:
    enum class Progress : int { more, complete, malformed };

    Progress take(unsigned char octet) noexcept {
        ++m_size;
        switch (m_next) {
        case Next::tag:
            m_identifier = octet;
            m_length = 0;
            m_size = 1;
            if ((octet & numberBits) == numberBits) {
                m_number = 0;
                m_next = Next::restOfTag;
            } else {
                m_number = octet & numberBits;
                m_next = Next::length;
            }
            return Progress::more;
        case Next::restOfTag:
            return nextOfTag(octet);
        case Next::length:
            return firstOfLength(octet);
        case Next::restOfLength:
            return nextOfLength(octet);
        }
        return Progress::malformed;
    }

    /// Whether it is the element that has this identifier in one octet.
    [[nodiscard]] bool is(unsigned char identifier) const noexcept {
        return ((m_identifier ^ identifier) & ~numberBits) == 0 && m_number == (identifier & numberBits);
    }
    [[nodiscard]] bool isConstructed() const noexcept { return (m_identifier & V_ASN1_CONSTRUCTED) != 0; }
    [[nodiscard]] std::uint64_t length() const noexcept { return m_length; }
    [[nodiscard]] bool isEndOfContents() const noexcept { return is(V_ASN1_EOC) && m_length == 0 && m_size == 2; }

private:
    enum class Next : int { tag, restOfTag, length, restOfLength };
    static constexpr unsigned int numberBits = 0x1F;

    Progress nextOfTag(unsigned char octet) noexcept {
        constexpr std::uint32_t largest = std::numeric_limits<std::int32_t>::max() >> 7U;
        if (m_number > largest) {
            return Progress::malformed;
        }
        m_number = m_number << 7U | (octet & 0x7FU);
        m_next = (octet & 0x80U) != 0 ? Next::restOfTag : Next::length;
        return Progress::more;
    }
    Progress firstOfLength(unsigned char octet) noexcept {
        if (octet < 0x80U) {
            m_length = octet;
            return complete();
        }
        if (octet == 0x80U) {
            m_length = indefinite;
            return complete();
        }
        m_left = octet & 0x7FU;
        m_next = Next::restOfLength;
        return Progress::more;
    }
    /// Any number of zeroes may stand in front.
    Progress nextOfLength(unsigned char octet) noexcept {
        constexpr std::uint64_t largest = std::numeric_limits<std::int64_t>::max() >> 8U;
        if (m_length > largest) {
            return Progress::malformed;
        }
        m_length = m_length << 8U | octet;
        return --m_left == 0 ? complete() : Progress::more;
    }
    Progress complete() noexcept {
        m_next = Next::tag;
        return Progress::complete;
    }

    Next m_next = Next::tag;
    unsigned int m_identifier = 0; ///< its first octet
    std::uint32_t m_number = 0;    ///< of the tag
    std::uint64_t m_length = 0;
    std::uint64_t m_size = 0; ///< octets of the header so far
    unsigned int m_left = 0;
};

constexpr unsigned char setTag = V_ASN1_SET | V_ASN1_CONSTRUCTED;
constexpr unsigned char sequenceTag = V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED;
constexpr unsigned char identifierTag = V_ASN1_OBJECT;

} // namespace

/// SET OF SEQUENCE { OBJECT IDENTIFIER, SET OF ANY }, of which only the values may hold anything. An element that is longer than what
/// encloses it passes the end of that, which nothing stands at then.
class AttributeSetDetector::Parser {
public:
    void update(const unsigned char* data, std::size_t length) noexcept {
        while (length != 0 && m_expects != Expects::nothing) {
            if (m_skip == 0) {
                ++m_position;
                takeOctet(*data++);
                --length;
                continue;
            }
            const std::uint64_t count = std::min<std::uint64_t>(m_skip, length);
            data += count;
            length -= static_cast<std::size_t>(count);
            m_position += count;
            m_skip -= count;
            if (m_skip == 0) {
                elementEnds();
            }
        }
    }

    [[nodiscard]] bool isComplete() const noexcept { return m_expects == Expects::end; }

private:
    enum class Expects : int { set, attribute, type, values, insideValues, endOfAttribute, end, nothing };

    void fail() noexcept { m_expects = Expects::nothing; }

    void takeOctet(unsigned char octet) noexcept {
        const HeaderReader::Progress progress = m_header.take(octet);
        if (m_expects == Expects::end || progress == HeaderReader::Progress::malformed) {
            fail(); // something follows the set, in the first case
        } else if (progress == HeaderReader::Progress::complete) {
            headerRead(m_header.length());
        }
    }

    [[nodiscard]] std::uint64_t endAfter(std::uint64_t length) const noexcept {
        return length == indefinite ? indefinite : m_position + length;
    }

    void headerRead(std::uint64_t length) noexcept {
        switch (m_expects) {
        case Expects::set:
            m_setEnd = endAfter(length);
            m_expects = m_header.is(setTag) ? Expects::attribute : Expects::nothing;
            return;
        case Expects::attribute:
            if (m_header.isEndOfContents() && m_setEnd == indefinite && m_hasAttribute) {
                m_expects = Expects::end;
                return;
            }
            m_attributeEnd = endAfter(length);
            m_expects = m_header.is(sequenceTag) ? Expects::type : Expects::nothing;
            return;
        case Expects::type:
            if (!m_header.is(identifierTag) || length == indefinite) {
                fail();
            } else {
                skip(length);
            }
            return;
        case Expects::values:
            valuesBegin(length);
            return;
        case Expects::insideValues:
            insideValues(length);
            return;
        case Expects::endOfAttribute:
            m_header.isEndOfContents() ? attributeEnds() : fail();
            return;
        default:
            fail();
        }
    }

    void valuesBegin(std::uint64_t length) noexcept {
        if (!m_header.is(setTag)) {
            fail();
        } else if (length == indefinite) {
            m_depth = 1;
            m_expects = Expects::insideValues;
        } else {
            skip(length);
        }
    }

    /// Elements of indefinite length nest; those of definite length are skipped with all that they hold.
    void insideValues(std::uint64_t length) noexcept {
        if (m_header.isEndOfContents()) {
            if (--m_depth == 0) {
                valuesEnd();
            }
        } else if (length != indefinite) {
            skip(length);
        } else if (m_header.isConstructed()) {
            ++m_depth;
        } else {
            fail();
        }
    }

    void skip(std::uint64_t length) noexcept {
        m_skip = length;
        if (length == 0) {
            elementEnds();
        }
    }

    void elementEnds() noexcept {
        if (m_expects == Expects::type) {
            m_expects = Expects::values;
        } else if (m_expects == Expects::values) {
            valuesEnd();
        }
    }

    void valuesEnd() noexcept {
        if (m_attributeEnd == indefinite) {
            m_expects = Expects::endOfAttribute;
        } else if (m_position == m_attributeEnd) {
            attributeEnds();
        } else {
            fail();
        }
    }

    void attributeEnds() noexcept {
        m_hasAttribute = true;
        m_attributeEnd = indefinite;
        m_expects = m_position == m_setEnd ? Expects::end : Expects::attribute;
    }

    HeaderReader m_header;
    Expects m_expects = Expects::set;
    std::uint64_t m_position = 0;
    std::uint64_t m_skip = 0; // octets of content that are not looked at
    std::uint64_t m_setEnd = indefinite;
    std::uint64_t m_attributeEnd = indefinite;
    std::uint64_t m_depth = 0; // elements of indefinite length that are open, the set of values included
    bool m_hasAttribute = false;
};

AttributeSetDetector::AttributeSetDetector() : m_parser(std::make_unique<Parser>()) {}
AttributeSetDetector::~AttributeSetDetector() = default;
AttributeSetDetector::AttributeSetDetector(AttributeSetDetector&& other) noexcept = default;
AttributeSetDetector& AttributeSetDetector::operator=(AttributeSetDetector&& other) noexcept = default;

void AttributeSetDetector::update(const unsigned char* data, std::size_t length) noexcept {
    m_parser->update(data, length);
}

bool AttributeSetDetector::isAttributeSet() const noexcept {
    return m_parser->isComplete();
}

} // namespace Norvane::Crypto::CMS
