#include "read/CmsFile.h"
#include "base/Failure.h"
#include "recognise/DerAndPem.h"

#include <authority/Authority.h>
#include <norvcrypto/CMSVerification.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <string_view>
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

/// A structure as it travels in a mail: what to do, for whoever saved it as it came.
std::string adviceOn(const Norvane::Buffer& content) {
    static constexpr std::string_view header = "content-type:";
    const std::string_view text(reinterpret_cast<const char*>(content.data()), content.length());
    const auto sameLetter = [](char one, char other) { return std::tolower(static_cast<unsigned char>(one)) == other; };
    if (std::search(text.begin(), text.end(), header.begin(), header.end(), sameLetter) != text.end())
        return ", which looks like a mail: take it out with openssl smime -pk7out";
    // SEQUENCE with a long or an indefinite length.
    return text.starts_with("MI") ? ", which looks like base64: decode it with openssl base64 -d" : "";
}

Norvane::Buffer structureInText(const Norvane::Buffer& content, const std::string& path) {
    const std::vector<FoundObject> objects = objectsIn(content);
    const auto isCms = [](const FoundObject& object) { return object.kind == ObjectKind::cms; };
    const auto count = std::count_if(objects.begin(), objects.end(), isCms);
    if (count > 1)
        throw Failure("more than one CMS structure in " + inputName(path));
    if (count == 0 && !looksLikeDer(content))
        throw Failure("no CMS structure in " + inputName(path) + adviceOn(content));
    // What looks binary and is none has the library tell what is wrong with it.
    return count == 0 ? content : std::find_if(objects.begin(), objects.end(), isCms)->der;
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
            Norvane::MemoryMediaIn der(structureInText(Inputs::readAll(in, path), path));
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
    explicit RememberingInImpl(Norvane::MediaIn source) : m_source(std::move(source)) {}

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
    static constexpr std::size_t longest = 64U * 1024U * 1024U;

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

void writeStructure(OutputFile& out, const Norvane::Buffer& der, bool pem) {
    if (pem) {
        const std::string text = norvauthority::pem("PKCS7", {der.data(), der.data() + der.length()});
        out.write(text.data(), text.size());
    } else {
        out.write(der.data(), der.length());
    }
}

} // namespace norvcrypt
