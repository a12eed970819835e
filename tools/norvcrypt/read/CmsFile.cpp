#include "read/CmsFile.h"
#include "base/Failure.h"
#include "recognise/CmsInText.h"
#include "recognise/DerAndPem.h"

#include <norvcrypto/CMSVerification.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <utility>
#include <vector>

namespace norvcrypt {

namespace {

/// What is told about one of several structures would pass for a word on all of them.
void refuseMore(const Norvane::Buffer& rest, const std::string& path) {
    const unsigned char* const start = rest.data();
    const auto isPadding = [](unsigned char byte) { return byte == 0 || std::isspace(byte) != 0; };
    if (!std::all_of(start, start + rest.length(), isPadding))
        throw Failure("bytes follow the CMS structure in " + inputName(path));
}

} // namespace

void readStructure(Inputs& inputs, const std::string& path, const std::string& what,
                   const std::function<void(Norvane::MediaIn&)>& decode, Progress* progress) {
    try {
        Norvane::MediaIn source = inputs.open(path, progress);
        Norvane::Buffer start;
        Norvane::MediaIn in = Inputs::lookAhead(source, longestStart, start);
        if (beginsStructure(start)) {
            decode(in);
            refuseMore(Inputs::readAll(in, path), path);
        } else {
            Norvane::MemoryMediaIn der(structureInText(Inputs::readAll(in, path), inputName(path)));
            decode(der);
        }
    } catch (const Norvane::Exception& failure) {
        throw Failure("cannot read " + what + " in " + inputName(path), failure);
    }
}

namespace {

/// Passes a stream on and keeps its beginning.
class RememberingInImpl : public Norvane::MediaInImpl {
public:
    explicit RememberingInImpl(const Norvane::MediaIn& source) : m_source(source) {}

    using MediaInImpl::read;
    bool atEnd() const override { return m_source.atEnd(); }
    int peek() const override { return m_source.peek(); }
    int read(unsigned char* out, unsigned int length) override {
        const int count = m_source.read(out, length);
        if (count > 0 && m_start.size() < longest)
            m_start.insert(m_start.end(), out, out + count);
        return count;
    }

    /// What was read, with what is left to be read, up to the limit.
    const std::vector<unsigned char>& start() {
        std::array<unsigned char, 65536> piece{};
        while (m_start.size() < longest && read(piece.data(), piece.size()) > 0) {
        }
        return m_start;
    }

private:
    static constexpr std::size_t longest = std::size_t{64} * 1024 * 1024;

    Norvane::MediaIn m_source;
    std::vector<unsigned char> m_start;
};

} // namespace

Norvane::Crypto::CMS::RefContentInfo readSignature(Inputs& inputs, const std::string& path) {
    std::optional<Norvane::Crypto::CMS::RefContentInfo> structure;
    readStructure(inputs, path, "the signature", [&](Norvane::MediaIn& in) {
        Norvane::MediaIn source(Norvane::makeReference<RememberingInImpl, Norvane::MediaInImpl>(in));
        try {
            structure.emplace(source);
        } catch (const Norvane::Exception&) {
            const auto& start = dynamic_cast<RememberingInImpl&>(*source).start();
            const std::string part = Norvane::Crypto::CMS::unsupportedPart(start.data(), start.size());
            if (part.empty())
                throw;
            throw Failure(inputName(path) + " cannot be judged: it holds " + part + ", which is not supported");
        }
    });
    return *structure;
}

} // namespace norvcrypt
