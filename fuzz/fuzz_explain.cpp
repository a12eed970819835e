// A body and a signature that does not fit it. The body is taken apart alike in pieces of any size and without a loss; what
// changed all of its line ends, its end, or nothing that was signed, is found out; and the search for anything else ends.
#include "Driver.h"

#include "diagnosis/BodyScanner.h"

#include <authority/Authority.h>
#include <norvcmsg/Media.h>
#include <norvcrypto-smime/SMimeDiagnosis.h>

#include <openssl/cms.h>

#include <memory>
#include <vector>

namespace SMime = Norvane::Crypto::SMime;
using namespace SMime::diagnosis;

namespace {

/// The octets as they came, and a text for each thing that was told.
class Recorder : public BodyConsumer {
public:
    void header(const std::vector<HeaderLine>& lines, const PartHeader& part) override {
        m_told += "header " + std::to_string(static_cast<int>(part.encoding)) + " " + part.characterSet + "\n";
        for (const HeaderLine& line : lines) {
            m_octets.append(line.octets).append(octetsOf(line.end));
        }
    }
    void line(const LinePiece& piece) override {
        fuzz::require(piece.octets.size() <= longestPiece);
        m_told += std::to_string(piece.octets.size()) + " " + std::to_string(static_cast<int>(piece.end)) +
                  std::to_string(static_cast<int>(piece.place)) + std::to_string(static_cast<int>(piece.begins)) +
                  std::to_string(static_cast<int>(piece.ends)) + "\n";
        m_octets.append(piece.octets).append(octetsOf(piece.end));
    }
    void finish() override {}

    [[nodiscard]] const std::string& octets() const { return m_octets; }
    [[nodiscard]] const std::string& told() const { return m_told; }

private:
    std::string m_octets;
    std::string m_told;
};

void takeApart(const std::string& body, std::size_t step) {
    Recorder whole;
    Recorder dripping;
    BodyScanner atOnce({&whole});
    atOnce.write(body);
    atOnce.finish();
    BodyScanner inPieces({&dripping});
    for (std::size_t at = 0; at < body.size(); at += step) {
        inPieces.write(std::string_view(body).substr(at, step));
    }
    inPieces.finish();
    fuzz::require(whole.octets() == body);
    fuzz::require(dripping.octets() == body);
    fuzz::require(whole.told() == dripping.told());
}

/// A text whose lines all end so, and without any other CR.
std::string with(const std::string& lines, const std::string& lineEnd) {
    std::string other;
    for (const char octet : lines) {
        if (octet != '\r') {
            other += octet == '\n' ? lineEnd : std::string(1, octet);
        }
    }
    return other;
}

/// What became of a text on its way.
std::string arrived(const std::string& sent, unsigned int change) {
    switch (change) {
    case 0:
        return with(sent, "\n");
    case 1:
        return with(sent, "\r\r\n");
    case 2:
        return sent + "\r\n";
    case 3:
        return sent.ends_with("\r\n") ? sent.substr(0, sent.size() - 2) : sent;
    case 4:
        return sent + "\r\n--\r\nsent by the list\r\n";
    default:
        return sent;
    }
}

/// A detached signature by OpenSSL.
Norvane::Buffer signatureOver(const std::string& body) {
    using namespace norvauthority;
    static const Identity identity = issue({.subject = {{"CN", "Alice"}}, .key = Key::ec()});
    const std::unique_ptr<BIO, decltype(&BIO_free_all)> in(BIO_new_mem_buf(body.data(), static_cast<int>(body.size())),
                                                           BIO_free_all);
    const std::unique_ptr<CMS_ContentInfo, decltype(&CMS_ContentInfo_free)> message(
        CMS_sign(identity.certificate.x509().get(), identity.key.get(), nullptr, in.get(), CMS_DETACHED | CMS_BINARY),
        CMS_ContentInfo_free);
    fuzz::require(message != nullptr);
    unsigned char* encoded = nullptr;
    const int length = i2d_CMS_ContentInfo(message.get(), &encoded);
    fuzz::require(length > 0);
    const Norvane::Buffer octets(encoded, static_cast<unsigned int>(length), false);
    OPENSSL_free(encoded);
    return octets;
}

SMime::Diagnosis explained(const Norvane::Buffer& signature, const std::string& body) {
    return SMime::explain(signature, [&] { return Norvane::MediaIn(Norvane::MemoryMediaIn(body)); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const unsigned int choice = *data;
    const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (choice >= 128) { // much faster
        return fuzz::run(data, size, [&](const Norvane::Buffer&) { takeApart(input, choice - 127); });
    }
    fuzz::start();
    const std::string sent = with(input, "\r\n"); // as mail programs sign
    static const std::string another = "Content-Type: text/plain\r\n\r\nDear Bob\r\n";
    const bool isAnother = choice % 8 > 5;
    const Norvane::Buffer signature = signatureOver(isAnother ? another : sent);
    const std::string body = isAnother ? input : arrived(sent, choice % 8);
    // A hundred changes are tried, and with each of them whether some of the last 64 lines are too many.
    fuzz::run(data, size,
              [&](const Norvane::Buffer&) {
                  takeApart(input, choice / 8 + 1);
                  const SMime::Diagnosis diagnosis = explained(signature, body);
                  if (body == sent && !isAnother) {
                      fuzz::require(diagnosis.explanations.empty()); // a good signature
                  } else if (!isAnother) {
                      fuzz::require(diagnosis.explanations.size() == 1);
                      fuzz::require(!diagnosis.explanations.front().findings.empty());
                  }
              },
              {.constant = 400'000'000, .perOctet = 200'000, .comparisonsPerOctet = 200'000});
    return 0;
}
