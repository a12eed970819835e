// The walk over elements of BER: never beyond the end, in as many steps as there are elements, and each header is what
// OpenSSL reads.
#include "Driver.h"

#include "framing/Walk.h"

#include <openssl/asn1.h>

#include <vector>

using namespace Norvane::Crypto::framing;

namespace {

/// The input with octets behind it, since OpenSSL wants one behind a length in the long form.
std::vector<unsigned char> longer(const Norvane::Buffer& input) {
    std::vector<unsigned char> octets(input.data(), input.data() + input.length());
    octets.resize(octets.size() + 300);
    return octets;
}

void compareWithOpenSsl(const Header& header, const unsigned char* octets, std::size_t available) {
    const unsigned char* at = octets;
    long length = 0;
    int tag = 0;
    int tagClass = 0;
    const int flags = ASN1_get_object(&at, &length, &tag, &tagClass, static_cast<long>(available));
    const bool announcesTooMuch = ERR_GET_REASON(ERR_peek_last_error()) == ASN1_R_TOO_LONG && at != octets;
    ERR_clear_error();
    fuzz::require((flags & 0x80) == 0 || announcesTooMuch);
    fuzz::require(static_cast<std::size_t>(at - octets) == header.size);
    fuzz::require(static_cast<std::uint32_t>(tag) == header.tag);
    fuzz::require(static_cast<TagClass>(tagClass) == header.tagClass);
    fuzz::require(((flags & V_ASN1_CONSTRUCTED) != 0) == header.constructed);
    fuzz::require(((flags & 1) != 0) == header.indefinite);
    fuzz::require(static_cast<std::uint64_t>(length) == header.contentLength);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto walkThrough = [](const Norvane::Buffer& input) {
        const std::vector<unsigned char> padded = longer(input);
        Walk walk(input.data(), input.length());
        const unsigned char* const end = input.data() + input.length();
        std::size_t steps = 0;
        std::size_t opened = 0;
        auto step = walk.next();
        for (; !isLast(step); step = walk.next()) {
            fuzz::require(++steps <= input.length());
            fuzz::require(walk.depth() < Walk::deepest + (step == Walk::Step::primitive ? 1 : 0));
            if (step == Walk::Step::closed) {
                fuzz::require(opened-- > 0 && walk.elementSize() <= input.length());
                continue;
            }
            if (step == Walk::Step::opened) {
                ++opened;
                continue;
            }
            const unsigned char* const content = walk.content();
            fuzz::require(content >= input.data() && content <= end);
            fuzz::require(walk.header().contentLength <= static_cast<std::size_t>(end - content));
            fuzz::require(walk.elementSize() == walk.header().size + walk.header().contentLength);
            const auto start = static_cast<std::size_t>(content - input.data()) - walk.header().size;
            compareWithOpenSsl(walk.header(), padded.data() + start, padded.size() - start);
        }
        fuzz::require(walk.next() == step);
        fuzz::require(step != Walk::Step::finished || opened == 0);
        Header first;
        if (readHeader(input.data(), input.length(), first) == HeaderState::complete) {
            compareWithOpenSsl(first, padded.data(), padded.size());
        }
    };
    return fuzz::run(data, size, walkThrough, {.constant = 100'000, .perOctet = 400});
}
