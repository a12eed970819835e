// Every string up to six octets over those that matter, in every split into pieces, against a decoder that is slow,
// recursive, and simple enough to be seen to be right.
#include "framing/Reader.h"

#include "../ReaderSource.h"

#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <optional>
#include <string>
#include <vector>

using namespace Norvane::Crypto::framing;

namespace {

using Bytes = std::vector<unsigned char>;

/// What becomes of a string: what was found in it, and how far that went; or what is wrong with it.
struct Answer {
    std::optional<Fault> fault;
    Bytes found;
    std::size_t length = 0;

    bool operator==(const Answer& other) const {
        return fault == other.fault && (fault || (found == other.found && length == other.length));
    }
};

// How things that are found are written down: elements by their identifier octets in between.
constexpr unsigned char opened = 0xF1;
constexpr unsigned char closed = 0xF2;
constexpr unsigned char primitive = 0xF3;

/// The slow decoder. `limit` is where the element around ends, as far as that is known.
class Slow {
public:
    explicit Slow(const Bytes& octets) : m_octets(octets) {}

    /// All elements, one by one.
    Answer all() {
        return answer([this] { element(0, unknown); });
    }
    /// The first element in one.
    Answer whole() {
        return answer([this] {
            const std::size_t end = endOf(0, unknown);
            m_found.assign(m_octets.begin(), m_octets.begin() + static_cast<std::ptrdiff_t>(end));
            m_length = end;
        });
    }
    /// The first element as a string.
    Answer string(Segments segments) {
        return answer([&] { m_length = segment(0, unknown, segments, true); });
    }

private:
    static constexpr std::size_t unknown = SIZE_MAX;

    struct Head {
        unsigned char identifier;
        bool isConstructed;
        bool indefinite;
        std::size_t content; ///< where that begins
        std::size_t length;
        bool isEnd;
        bool isTagZero;
        bool isOctetString;
    };

    template <class Work> Answer answer(Work work) {
        try {
            work();
            return {std::nullopt, m_found, m_length};
        } catch (Fault fault) {
            return {fault, {}, 0};
        }
    }

    [[nodiscard]] unsigned char octet(std::size_t at, std::size_t limit) const {
        if (at >= limit) {
            throw Fault::malformed; // beyond what is around
        }
        if (at >= m_octets.size()) {
            throw Fault::ended;
        }
        return m_octets[at];
    }

    [[nodiscard]] Head head(std::size_t at, std::size_t limit) const {
        if (limit != unknown && limit - at < 2) {
            throw Fault::malformed; // no element has less than two octets
        }
        Head out{};
        out.identifier = octet(at, limit);
        // Whatever follows, two octets must be there before one of them is looked at.
        static_cast<void>(octet(at + 1, limit));
        out.isConstructed = (out.identifier & 0x20U) != 0;
        std::size_t tag = out.identifier & 0x1FU;
        const bool longTag = tag == 0x1F;
        std::size_t next = at + 1;
        if (longTag) {
            unsigned char more = 0;
            tag = 0;
            do {
                more = octet(next++, limit);
                tag = tag * 128 + (more & 0x7FU);
            } while (more >= 0x80);
        }
        const unsigned char first = octet(next++, limit);
        if (first == 0x80) {
            if (!out.isConstructed) {
                throw Fault::malformed;
            }
            out.indefinite = true;
        } else if (first < 0x80) {
            out.length = first;
        } else {
            // Eight octets or more do not fit the strings here, unless they are zeros, of which there are too few too.
            for (unsigned int left = first & 0x7FU; left != 0; --left) {
                out.length = out.length * 256 + octet(next++, limit);
            }
        }
        out.content = next;
        const bool universal = (out.identifier & 0xC0U) == 0;
        if (longTag && tag < 31) { // the same element, spelled with more octets
            out.identifier = static_cast<unsigned char>((out.identifier & 0xE0U) | tag);
        }
        out.isTagZero = universal && tag == 0;
        out.isEnd = out.isTagZero && !out.isConstructed && out.length == 0 && next - at == 2;
        out.isOctetString = universal && tag == 4;
        return out;
    }

    /// The header of an element that may stand there: not the end of what is around, and not beyond it.
    [[nodiscard]] Head elementHead(std::size_t at, std::size_t limit) const {
        const Head here = head(at, limit);
        if (here.isTagZero || (limit != unknown && here.length > limit - here.content)) {
            throw Fault::malformed;
        }
        return here;
    }

    /// Whether the two octets that end contents stand there.
    [[nodiscard]] bool endsAt(std::size_t at, std::size_t limit) const { return head(at, limit).isEnd; }

    void element(std::size_t at, std::size_t limit) {
        const Head here = elementHead(at, limit);
        m_found.insert(m_found.end(), {here.isConstructed ? opened : primitive, here.identifier});
        if (!here.isConstructed) {
            for (std::size_t index = 0; index < here.length; ++index) {
                m_found.push_back(octet(here.content + index, unknown));
            }
            m_length = here.content + here.length;
            return;
        }
        const std::size_t end = here.indefinite ? limit : here.content + here.length;
        m_length = here.content;
        while (here.indefinite ? !endsAt(m_length, end) : m_length != end) {
            element(m_length, end);
        }
        m_length += here.indefinite ? 2 : 0;
        m_found.push_back(closed);
    }

    /// Where the element ends; one of definite length is not looked into.
    [[nodiscard]] std::size_t endOf(std::size_t at, std::size_t limit) const {
        const Head here = elementHead(at, limit);
        if (!here.indefinite) {
            for (std::size_t index = 0; index < here.length; ++index) {
                static_cast<void>(octet(here.content + index, unknown));
            }
            return here.content + here.length;
        }
        std::size_t next = here.content;
        while (!endsAt(next, limit)) {
            next = endOf(next, limit);
        }
        return next + 2;
    }

    /// Appends what is in a string or one of its segments; where that ends.
    std::size_t segment(std::size_t at, std::size_t limit, Segments segments, bool outermost) {
        const Head here = elementHead(at, limit);
        if (!outermost && segments == Segments::strict && !here.isOctetString) {
            throw Fault::unexpected;
        }
        if (!here.isConstructed) {
            for (std::size_t index = 0; index < here.length; ++index) {
                m_found.push_back(octet(here.content + index, unknown));
            }
            return here.content + here.length;
        }
        const std::size_t end = here.indefinite ? limit : here.content + here.length;
        std::size_t next = here.content;
        while (here.indefinite ? !endsAt(next, end) : next != end) {
            next = segment(next, end, segments, false);
        }
        return next + (here.indefinite ? 2 : 0);
    }

    const Bytes& m_octets;
    Bytes m_found;
    std::size_t m_length = 0;
};

template <class Work> Answer answerOf(const Norvane::MediaIn& in, Work work) {
    Reader reader(in);
    try {
        Answer answer;
        work(reader, answer.found);
        reader.finish();
        answer.length = reader.position();
        return answer;
    } catch (const Broken& broken) {
        return {broken.fault(), {}, 0};
    }
}

/// The shortest identifier octet of an element, the same for all tag numbers that take more than one.
unsigned char identifierOf(const Header& header) {
    return static_cast<unsigned char>(static_cast<unsigned int>(header.tagClass) | (header.constructed ? 0x20U : 0U) |
                                      (header.tag < 31 ? header.tag : 31U));
}

Answer readAll(const Norvane::MediaIn& in) {
    return answerOf(in, [](Reader& reader, Bytes& found) {
        do {
            const Header* header = reader.next();
            if (header == nullptr) {
                reader.leave();
                found.push_back(closed);
            } else if (header->constructed) {
                found.insert(found.end(), {opened, identifierOf(*header)});
                reader.enter();
            } else {
                const std::size_t size = header->size;
                found.insert(found.end(), {primitive, identifierOf(*header)});
                const Octets octets = reader.take(100000).subspan(size);
                found.insert(found.end(), octets.begin(), octets.end());
            }
        } while (reader.depth() != 0);
    });
}

Answer readWhole(const Norvane::MediaIn& in) {
    return answerOf(in, [](Reader& reader, Bytes& found) {
        const Octets octets = reader.take(100000);
        found.assign(octets.begin(), octets.end());
    });
}

Answer readString(const Norvane::MediaIn& in, Segments segments) {
    return answerOf(in, [&](Reader& reader, Bytes& found) {
        reader.openString(segments);
        for (Octets piece = reader.piece(); !piece.empty(); piece = reader.piece()) {
            found.insert(found.end(), piece.begin(), piece.end());
        }
    });
}

std::string shown(const Bytes& octets) {
    std::string out;
    for (const unsigned char octet : octets) {
        std::array<char, 4> text{};
        static_cast<void>(snprintf(text.data(), text.size(), "%02x ", octet));
        out += text.data();
    }
    return out;
}

/// Compares one way of reading with the slow one, from memory and in all splits.
template <class Read>::testing::AssertionResult agrees(const Bytes& octets, const Answer& expected, Read read) {
    const Norvane::MemoryMediaIn memory(
        Norvane::Buffer(octets.data(), static_cast<unsigned int>(octets.size()), false));
    if (!(read(memory) == expected)) {
        return ::testing::AssertionFailure() << "in place: " << shown(octets);
    }
    if (!expected.fault && memory.tell() != expected.length) {
        return ::testing::AssertionFailure() << "in place, the source stands elsewhere: " << shown(octets);
    }
    const std::size_t allSplits = octets.empty() ? 1 : std::size_t{1} << (octets.size() - 1);
    std::array<std::size_t, 32> taken{};
    norvtest::PiecesIn in(octets);
    for (std::size_t splits = 0; splits < allSplits; ++splits) {
        // A split behind what was read without it changes nothing.
        const auto last = static_cast<std::size_t>(std::bit_width(splits));
        if (last != 0) {
            const std::size_t without = taken[splits & ~(std::size_t{1} << (last - 1))];
            if (without <= last) {
                taken[splits] = without;
                continue;
            }
        }
        in.splitAt(splits); // and from the beginning
        if (!(read(in) == expected)) {
            return ::testing::AssertionFailure() << "splits " << splits << ": " << shown(octets);
        }
        taken[splits] = in.taken();
        if (!expected.fault && in.taken() != expected.length) {
            return ::testing::AssertionFailure() << "splits " << splits << ", read too far: " << shown(octets);
        }
    }
    return ::testing::AssertionSuccess();
}

/// The four ways of reading, each beside the slow one.
struct Readings {
    explicit Readings(const Bytes& octets)
        : expected{Slow(octets).all(), Slow(octets).whole(), Slow(octets).string(Segments::strict),
                   Slow(octets).string(Segments::lenient)} {}

    static Answer read(std::size_t way, const Norvane::MediaIn& in) {
        return way == 0   ? readAll(in)
               : way == 1 ? readWhole(in)
                          : readString(in, way == 2 ? Segments::strict : Segments::lenient);
    }

    std::array<Answer, 4> expected;
};

/// Goes through a string and all that begin with it. Where no reading came to the end of the string before it had its
/// answer, no octet that follows can change one: a source in pieces hands out nothing that is not asked for. In place
/// that is tried.
class Exhaustively {
public:
    explicit Exhaustively(const Bytes& alphabet) : m_alphabet(alphabet) {}

    void readAllThatBeginWith(const Bytes& octets) {
        const Readings readings(octets);
        bool more = false;
        for (std::size_t way = 0; way < readings.expected.size(); ++way) {
            const Answer& expected = readings.expected[way];
            ASSERT_TRUE(agrees(octets, expected, [&](const Norvane::MediaIn& in) { return Readings::read(way, in); }))
                << "way " << way;
            ++(expected.fault ? refused : accepted);
            more = more || expected.fault == Fault::ended;
        }
        if (!more) {
            ASSERT_NO_FATAL_FAILURE(looksNoFurther(octets, readings));
        } else if (octets.size() < longest) {
            for (const unsigned char next : m_alphabet) {
                Bytes longer = octets;
                longer.push_back(next);
                ASSERT_NO_FATAL_FAILURE(readAllThatBeginWith(longer));
            }
        }
    }

    int accepted = 0;
    int refused = 0;

private:
    static constexpr std::size_t longest = 6;

    Bytes m_alphabet;

    static void looksNoFurther(const Bytes& octets, const Readings& readings) {
        for (const int filler : {0x00, 0xFF}) {
            Bytes longer = octets;
            longer.resize(longest + 1, static_cast<unsigned char>(filler));
            const Norvane::Buffer buffer(longer.data(), static_cast<unsigned int>(longer.size()), false);
            for (std::size_t way = 0; way < readings.expected.size(); ++way) {
                ASSERT_TRUE(Readings::read(way, Norvane::MemoryMediaIn(buffer)) == readings.expected[way])
                    << "way " << way << ", looks beyond: " << shown(octets);
            }
        }
    }
};

} // namespace

TEST(FramingReaderExhaustively, AgreesWithASlowDecoderOnEveryShortString) {
    // End-of-contents and a tag of zero; BOOLEAN, OCTET STRING and one in segments, SEQUENCE; lengths of 0, 1, 4 and more
    // than there is; indefinite length.
    Exhaustively all({0x00, 0x01, 0x04, 0x24, 0x30, 0x80});
    all.readAllThatBeginWith({});
    EXPECT_GT(all.accepted, 1000);
    EXPECT_GT(all.refused, 10000);
}

TEST(FramingReaderExhaustively, AgreesWithASlowDecoderOnEveryShortStringWithLongTagsAndLengths) {
    // Tag numbers in octets of their own, primitive and constructed, some of which fit a short form; lengths likewise.
    Exhaustively all({0x00, 0x01, 0x1F, 0x3F, 0x80, 0x81});
    all.readAllThatBeginWith({});
    EXPECT_GT(all.accepted, 100);
    EXPECT_GT(all.refused, 10000);
}
