#include "write/Boundary.h"
#include "write/BoundedHeader.h"
#include "write/Fail.h"
#include "write/Filters.h"
#include "write/HeaderProtection.h"
#include "write/People.h"
#include "write/Preparation.h"
#include "write/Shells.h"
#include "write/Source.h"

#include <norvcrypto-smime/SMimeWriter.h>

#include <algorithm>
#include <ctime>
#include <memory>

namespace Norvane::Crypto::SMime {

namespace {

using namespace writing;

constexpr std::size_t mostShells = 8;

/// The message, once more from its start: its header was read, its body lies ahead.
struct Opened {
    Opened(Source& source, const WriteBudget& budget) : body(std::make_shared<mime::MediaOctets>(source.fromStart())) {
        mime::skipByteOrderMark(*body);
        readBounded(*body, budget, "the message", header);
    }

    mime::SharedOctets body;
    mime::Header header;
};

/// Shows what is taken to a `BoundaryWatch`.
class WatchedOctets : public mime::Octets {
public:
    WatchedOctets(mime::SharedOctets from, BoundaryWatch& watch) : m_from(std::move(from)), m_watch(watch) {}
    std::string_view view(std::size_t atLeast) override { return m_from->view(atLeast); }
    void skip(std::size_t count) override {
        m_watch.see(m_from->view(count).substr(0, count));
        m_from->skip(count);
    }

private:
    mime::SharedOctets m_from;
    BoundaryWatch& m_watch;
};

bool encrypts(const Wrapping& shell) noexcept {
    return std::holds_alternative<EncryptOptions>(shell);
}

/// Whether the body stands in the mail as it is written inside the innermost shell.
bool isSeen(const Wrapping& shell) noexcept {
    const auto* const signing = std::get_if<SignOptions>(&shell);
    return signing != nullptr && signing->form == SigningForm::multipartSigned;
}

/// A layer of S/MIME or PGP.
bool isProtectedBody(const mime::Header& header) {
    const mime::ContentType type = mime::contentTypeOf(header);
    return type.is("multipart", "signed") || type.is("multipart", "encrypted") ||
           type.is("application", "pkcs7-mime") || type.is("application", "x-pkcs7-mime");
}

DividedHeader divide(const mime::Header& header, const std::vector<Wrapping>& shells, const WriteOptions& how) {
    if (!how.protectHeader) {
        return divided(header);
    }
    if (isProtectedBody(header)) {
        fail("the header of a message that is signed or encrypted already cannot be protected: sign and encrypt it in "
             "one step");
    }
    if (!mime::contentTypeOf(header).hp.empty()) {
        fail("the header of the message is protected already");
    }
    return dividedWithProtection(header, std::ranges::any_of(shells, encrypts));
}

/// Looks at all of a message, and answers whether one of the boundaries stands in it.
bool look(Source& source, Preparation& preparation, const std::vector<std::string>& boundaries,
          const WriteBudget& budget) {
    BoundaryWatch watch(boundaries);
    const Opened message(source, budget);
    preparation.look(message.header, std::make_shared<WatchedOctets>(message.body, watch));
    return watch.found();
}

std::vector<std::string> newBoundaries(std::size_t count) {
    std::vector<std::string> boundaries(count);
    std::ranges::generate(boundaries, newBoundary);
    return boundaries;
}

std::unique_ptr<Shell> readyShell(const Wrapping& shell, const mime::Header& header, const std::string& boundary,
                                  const WriteOptions& how) {
    const std::time_t at = how.at.value_or(std::time(nullptr));
    if (const auto* const signing = std::get_if<SignOptions>(&shell)) {
        return signingShell(*signing, signersFor(*signing, header, at), boundary);
    }
    const auto& encrypting = std::get<EncryptOptions>(shell);
    return encryptingShell(encrypting.cipher, recipientsFor(encrypting, header, how.budget, at));
}

/// The start of the mail, and the sink for what is inside of all shells.
MediaOut begin(const mime::Header& header, const std::string& outside, std::vector<std::unique_ptr<Shell>>& shells,
               MediaOut& out, LineEnds lineEnds) {
    const bool feeds = lineEnds == LineEnds::lf || (lineEnds == LineEnds::asMessage && !header.endsLinesInCrLf());
    MediaOut target = feeds ? lineFeeds(out) : out;
    put(target, outside + "MIME-Version: 1.0\r\n");
    for (auto shell = shells.rbegin(); shell != shells.rend(); ++shell) {
        target = (*shell)->open(target);
    }
    return target;
}

} // namespace

SignOptions::SignOptions() : keys(false) {}
SignOptions::SignOptions(const SignOptions& other) = default;
SignOptions& SignOptions::operator=(const SignOptions& other) = default;
SignOptions::~SignOptions() = default;

EncryptOptions::EncryptOptions() : keys(false) {}
EncryptOptions::EncryptOptions(const EncryptOptions& other) = default;
EncryptOptions& EncryptOptions::operator=(const EncryptOptions& other) = default;
EncryptOptions::~EncryptOptions() = default;

void wrap(const MediaIn& message, const std::vector<Wrapping>& shells, MediaOut& out, const WriteOptions& how) {
    if (shells.empty()) {
        fail("there is nothing to do with the message");
    }
    if (shells.size() > mostShells) {
        fail("there are more than " + std::to_string(mostShells) + " shells");
    }
    Source source(message, how.spillTemplate);
    const mime::Header header = Opened(source, how.budget).header;
    const DividedHeader divided = divide(header, shells, how);
    std::vector<std::string> boundaries = newBoundaries(shells.size());
    std::vector<std::unique_ptr<Shell>> ready;
    for (std::size_t at = 0; at < shells.size(); ++at) {
        ready.push_back(readyShell(shells[at], header, boundaries[at], how));
    }
    const bool hides = how.protectHeader && how.legacyDisplay && std::ranges::any_of(shells, encrypts);
    Preparation preparation(how.budget, isSeen(shells.front()), divided.typeParameter, divided.inside,
                            hides ? hiddenFieldsOf(header) : std::string());
    if (look(source, preparation, boundaries, how.budget)) {
        fail("a boundary that was made at random stands in the message: try again");
    }
    const Opened opened(source, how.budget);
    MediaOut inside = begin(header, divided.outside, ready, out, how.lineEnds);
    preparation.write(opened.header, opened.body, inside);
    inside.end();
}

void sign(const MediaIn& message, const SignOptions& options, MediaOut& out, const WriteOptions& how) {
    wrap(message, {options}, out, how);
}

void encrypt(const MediaIn& message, const EncryptOptions& options, MediaOut& out, const WriteOptions& how) {
    wrap(message, {options}, out, how);
}

void signAndEncrypt(const MediaIn& message, const SignOptions& signing, const EncryptOptions& encrypting, MediaOut& out,
                    const WriteOptions& how) {
    wrap(message, {signing, encrypting}, out, how);
}

void writeCertificates(const MediaIn& message, const std::vector<NVX509::RefCertificate>& certificates,
                       const std::vector<NVX509::RefCertificateRevocationList>& revocationLists, MediaOut& out,
                       const WriteOptions& how) {
    Source source(message, how.spillTemplate);
    const Opened opened(source, how.budget);
    if (!opened.body->atEnd()) {
        fail("a message of certificates has no body");
    }
    std::vector<std::unique_ptr<Shell>> shells;
    shells.push_back(certificatesShell(certificates, revocationLists));
    begin(opened.header, divided(opened.header).outside, shells, out, how.lineEnds).end();
}

Correspondents correspondentsOf(const MediaIn& message, const WriteBudget& budget) {
    mime::MediaOctets octets(message);
    mime::skipByteOrderMark(octets);
    mime::Header header;
    readBounded(octets, budget, "the message", header);
    return correspondentsIn(header);
}

} // namespace Norvane::Crypto::SMime
