#include "CMSStreamReader/EnvelopeBody.h"

#include "CMS/PairedKeys.h"
#include "failures/Raise.h"
#include "openssl/AlgorithmName.h"
#include "openssl/ErrorQueue.h"
#include "openssl/KeyComparison.h"

#include <norvcmsg/BytesInMemory.h>
#include <norvcrypto/Key.h>

#include <algorithm>
#include <limits>
#include <map>
#include <new>
#include <utility>

namespace Norvane::Crypto::CMS {

using framing::Broken;
using framing::Fault;
using framing::Octets;

namespace {

constexpr const char* s_noStructure = "no EnvelopedData or AuthEnvelopedData, or a damaged one";
constexpr const char* s_damaged = "the message is damaged, or the key is not the right one";

[[noreturn]] void refuse(const std::string& what, std::uint64_t bound, const char* member) {
    failures::raise<TooCostlyException>(failures::envelopeReader,
                                        what + " than " + std::to_string(bound) + " (Budget::" + member + ")");
}

/// Where the bytes of a source lie, if they stay in memory.
Octets inMemory(const MediaIn& in) {
    const auto* bytes = dynamic_cast<const BytesInMemory*>(in.operator->());
    return bytes == nullptr ? Octets() : Octets(bytes->rest(), bytes->left());
}

Octets octetsOf(const Buffer& buffer) noexcept {
    return {buffer.data(), buffer.length()};
}

} // namespace

EnvelopeReaderImpl::EnvelopeReaderImpl(const MediaIn& in, const Budget& budget) : m_budget(budget), m_frame(in) {
    const Octets source = inMemory(in);
    constexpr std::uint32_t longest = std::numeric_limits<std::int32_t>::max(); // OpenSSL counts no further
    m_budget.head = std::min(m_budget.head, longest);
    m_budget.tail = std::min(m_budget.tail, longest);
    try {
        readHead();
        if (countRecipients(m_frame.recipients(), m_budget.recipients) > m_budget.recipients) {
            refuse("more recipients", m_budget.recipients, "recipients");
        }
        m_content = m_frame.isAuthenticated() ? authenticated(source) : streamed();
    } catch (const OtherContentType& other) {
        failures::raise(failures::envelopeReader,
                        "the structure is of another type: " + openssl::encodedIdentifierName(other.identifier));
    } catch (const TooLong&) {
        refuse("more octets before the content", m_budget.head, "head");
    } catch (const Broken&) {
        failures::raise(failures::envelopeReader, s_noStructure);
    }
}

EnvelopeReaderImpl::~EnvelopeReaderImpl() = default;

/// Null when the cipher is not supported.
std::unique_ptr<EnvelopeContent> EnvelopeReaderImpl::authenticated(Octets source) {
    if (isUnsupported(openssl::unsupportedAuthenticatedCipher(m_algorithm.get()))) {
        return nullptr;
    }
    auto cipher = openssl::AuthenticatedCipher::of(*m_algorithm);
    if (!cipher) {
        if (openssl::AuthenticatedCipher::of(*m_algorithm)) {
            throw std::bad_alloc(); // see `streamed`
        }
        throw Broken(Fault::unexpected);
    }
    return std::make_unique<AuthenticatedContent>(m_frame, m_budget.tail, std::move(*cipher), source, m_budget.spill);
}

/// Likewise.
std::unique_ptr<EnvelopeContent> EnvelopeReaderImpl::streamed() {
    const openssl::ErrorMark mark;
    auto context = openssl::contextFor(m_algorithm.get()); // null for a cipher that is not for content, too
    if (context != nullptr) {
        return std::make_unique<StreamedContent>(m_frame, m_budget.tail, std::move(context));
    }
    if (isUnsupported(openssl::unsupportedContentCipher(m_algorithm.get()))) {
        return nullptr;
    }
    if (openssl::isAvailable(m_algorithm.get()) || !isUnsupported(cipher())) {
        if (openssl::contextFor(m_algorithm.get()) != nullptr) {
            throw std::bad_alloc(); // there was none before, of which OpenSSL says nothing
        }
        throw Broken(Fault::unexpected);
    }
    return nullptr;
}

void EnvelopeReaderImpl::readHead() {
    m_frame.readHead(m_budget.head);
    m_algorithm = openssl::decodeAlgorithm(m_frame.algorithm());
    if (m_algorithm == nullptr) {
        throw Broken(Fault::malformed);
    }
}

const std::vector<EnvelopeReader::Recipient>& EnvelopeReaderImpl::recipients() {
    if (m_recipientOctets == nullptr) {
        const Octets all = m_frame.recipients();
        const auto octets = std::make_shared<const std::vector<unsigned char>>(all.begin(), all.end());
        std::vector<Recipient> recipients;
        RecipientWalk walk(*octets);
        while (const auto parts = walk.next()) {
            recipients.push_back(
                Recipient(std::make_shared<const ReceivedRecipient>(ReceivedRecipient{octets, *parts})));
        }
        m_recipients = std::move(recipients); // all of them, or none when there is no memory
        m_recipientOctets = octets;
    }
    return m_recipients;
}

std::string EnvelopeReaderImpl::cipher() const {
    return openssl::algorithmName(m_algorithm->algorithm);
}

void EnvelopeReaderImpl::spillTo(const std::string& fileTemplate) {
    if (m_content != nullptr) {
        m_content->spillTo(fileTemplate);
    }
}

/// False for a message that is not supported, whoever it is for.
bool EnvelopeReaderImpl::mayOpen() const {
    if (m_content == nullptr) {
        return false;
    }
    if (m_opened) {
        failures::raise(failures::envelopeReader, "a key was chosen before");
    }
    if (!m_frame.hasContent()) {
        failures::raise(failures::envelopeReader, "the message carries no encrypted content");
    }
    return true;
}

/// One walk over the recipients for a key.
struct EnvelopeReaderImpl::Search {
    struct Later {
        RecipientParts parts;
        NVX509::KeyCertificatePair pair;
        std::size_t number;
    };
    struct ByName {
        bool operator()(const RecipientParts& left, const RecipientParts& right) const noexcept {
            return left.namedBy != right.namedBy ? left.namedBy < right.namedBy
                                                 : std::ranges::lexicographical_compare(left.name, right.name);
        }
    };
    struct Answer {
        NVX509::KeyCertificatePair pair;
        bool named; ///< by the name that was asked for
    };

    const KeyLookup& keys;
    std::map<RecipientParts, Answer, ByName> answers;
    std::vector<Later> ofOtherNames;
    std::optional<std::size_t> failed; ///< the first one whose key did not open
    std::string unsupported;
    // Those that were looked at last: the keys of one agreement share one.
    const unsigned char* unsupportedAlgorithm = nullptr;
    const unsigned char* unfittingAlgorithm = nullptr; ///< with a key of another kind

    const Answer* ask(const RecipientParts& parts);
};

/// Null when there is certainly no key.
const EnvelopeReaderImpl::Search::Answer* EnvelopeReaderImpl::Search::ask(const RecipientParts& parts) {
    if (!mayFind(keys, parts)) {
        return nullptr;
    }
    const auto known = answers.find(parts);
    if (known != answers.end()) {
        return &known->second;
    }
    Answer answer{NVX509::KeyCertificatePair(false), false};
    if (const auto identifier = identifierOf(parts)) {
        NVX509::KeyCertificatePair pair = keys.find(*identifier);
        const X509* certificate = pair ? static_cast<X509*>(pair->certificate) : nullptr;
        if (pair && isPrivateKey(pair->key) &&
            (certificate == nullptr || openssl::keyMatchesCertificate(certificate, pair->key))) {
            answer = {pair, certificate != nullptr && identifier->names(pair->certificate)};
        }
    }
    return &answers.emplace(parts, answer).first->second;
}

bool EnvelopeReaderImpl::open(const KeyLookup& keys) {
    if (!mayOpen()) {
        return false;
    }
    Search search{keys, {}, {}, std::nullopt, {}, nullptr, nullptr};
    RecipientWalk walk(m_frame.recipients());
    std::size_t number = 0;
    for (auto parts = walk.next(); parts; parts = walk.next(), ++number) {
        if (consider(search, *parts, number)) {
            return true;
        }
    }
    for (const Search::Later& later : search.ofOtherNames) {
        if (tryKey(search, later.parts, later.pair->key, later.number)) {
            return true;
        }
    }
    if (search.failed) {
        return choose({}, false, *search.failed);
    }
    static_cast<void>(isUnsupported(search.unsupported));
    return false;
}

/// Whether the key for one recipient, if there is one, was chosen.
bool EnvelopeReaderImpl::consider(Search& search, const RecipientParts& parts, std::size_t number) {
    if (parts.kind != Recipient::keyTransport && parts.kind != Recipient::keyAgreement) {
        return false;
    }
    const Search::Answer* answer = search.ask(parts);
    if (answer == nullptr || !answer->pair) {
        return false;
    }
    if (!answer->named) {
        search.ofOtherNames.push_back({parts, answer->pair, number});
        return false;
    }
    return tryKey(search, parts, answer->pair->key, number);
}

bool EnvelopeReaderImpl::tryKey(Search& search, const RecipientParts& parts, EVP_PKEY* key, std::size_t number) {
    const bool fitting = fits(parts.kind, key);
    if (parts.algorithm.data() == search.unsupportedAlgorithm ||
        (!fitting && parts.algorithm.data() == std::exchange(search.unfittingAlgorithm, parts.algorithm.data()))) {
        return false;
    }
    const RecipientAlgorithms algorithms(parts);
    if (std::string name = algorithms.unsupported(); !name.empty()) {
        search.unsupported = search.unsupported.empty() ? std::move(name) : search.unsupported;
        search.unsupportedAlgorithm = parts.algorithm.data();
        return false;
    }
    if (!fitting) {
        return false;
    }
    if (m_operations == m_budget.privateKeyOperations) {
        refuse("more operations with private keys", m_budget.privateKeyOperations, "privateKeyOperations");
    }
    ++m_operations;
    const openssl::WipedBytes contentKey = algorithms.open(key);
    if (algorithms.isUncertain() || !contentKey.empty()) {
        return choose(contentKey, algorithms.isUncertain(), number);
    }
    search.failed = search.failed.value_or(number);
    return false;
}

/// The parts of a recipient of this message.
const RecipientParts& EnvelopeReaderImpl::partsOf(const Recipient& recipient) const {
    if (recipient.m_parts == nullptr || recipient.m_parts->octets != m_recipientOctets) {
        failures::raise(failures::envelopeReader, "the recipient is one of another message");
    }
    return recipient.m_parts->parts;
}

/// Takes down what is not supported, unless it is nothing.
bool EnvelopeReaderImpl::isUnsupported(const std::string& name) {
    if (!name.empty()) {
        m_unsupported = name;
        m_verdict = Verdict::Unsupported;
    }
    return !name.empty();
}

bool EnvelopeReaderImpl::open(const Recipient& recipient, const NVX509::KeyCertificatePair& pair) {
    const RecipientParts& parts = partsOf(recipient);
    if (!mayOpen()) {
        return false;
    }
    const RecipientAlgorithms algorithms(parts);
    if (isUnsupported(algorithms.unsupported()) || !pair || !isPrivateKey(pair->key) || !fits(parts.kind, pair->key)) {
        return false;
    }
    return choose(algorithms.open(pair->key), algorithms.isUncertain(), numberOf(recipient));
}

bool EnvelopeReaderImpl::open(const Recipient& recipient, const Buffer& key) {
    const RecipientParts& parts = partsOf(recipient);
    if (!mayOpen()) {
        return false;
    }
    const RecipientAlgorithms algorithms(parts);
    if (isUnsupported(algorithms.unsupported()) || parts.kind != Recipient::keyEncryptionKey) {
        return false;
    }
    return choose(algorithms.openWithKey(octetsOf(key)), false, numberOf(recipient));
}

bool EnvelopeReaderImpl::openWithPassword(const Recipient& recipient, const Buffer& password) {
    const RecipientParts& parts = partsOf(recipient);
    if (!mayOpen()) {
        return false;
    }
    const RecipientAlgorithms algorithms(parts);
    if (isUnsupported(algorithms.unsupported()) || parts.kind != Recipient::password) {
        return false;
    }
    if (algorithms.isSound()) {
        const auto iterations = openssl::iterationsOf(algorithms.password());
        if (!iterations || *iterations > m_budget.passwordIterations) {
            refuse("the password would be hashed more times", m_budget.passwordIterations, "passwordIterations");
        }
    }
    return choose(algorithms.openWithPassword(octetsOf(password)), false, numberOf(recipient));
}

std::size_t EnvelopeReaderImpl::numberOf(const Recipient& recipient) {
    const auto& all = recipients();
    const auto is = [&](const Recipient& one) { return one.m_parts == recipient.m_parts; };
    return static_cast<std::size_t>(std::find_if(all.begin(), all.end(), is) - all.begin());
}

/// True, always.
bool EnvelopeReaderImpl::choose(const openssl::WipedBytes& contentKey, bool uncertain, std::size_t number) {
    m_content->start(contentKey, uncertain);
    m_opened = number;
    m_unsupported.clear();
    m_verdict = Verdict::Running;
    return true;
}

const EnvelopeReader::Recipient* EnvelopeReaderImpl::opened() {
    return m_opened ? &recipients()[*m_opened] : nullptr;
}

/// Decrypts the next octets. What is thrown on the way ends the reading for good.
void EnvelopeReaderImpl::step() {
    const auto before = std::exchange(m_verdict, Verdict::Damaged);
    try {
        m_clear = m_content->next();
    } catch (const Broken&) {
        failures::raise(failures::envelopeReader, s_damaged);
    } catch (const TooLong&) {
        refuse("more octets behind the content", m_budget.tail, "tail");
    } catch (const SpillTooLong&) {
        refuse("more octets of authenticated content", m_budget.spill, "spill");
    }
    m_verdict = before;
}

/// Makes clear octets lie ready; false at the end.
bool EnvelopeReaderImpl::fill() {
    while (m_clear.empty()) {
        switch (m_verdict) {
        case Verdict::Unopened:
            failures::raise(failures::envelopeReader, "no key was chosen");
        case Verdict::Unsupported:
            failures::raise(failures::envelopeReader, "not supported: " + m_unsupported);
        case Verdict::Damaged:
            failures::raise(failures::envelopeReader, s_damaged);
        case Verdict::Complete:
            return false;
        case Verdict::Running:
            break;
        }
        if (m_content->isComplete()) {
            m_verdict = Verdict::Complete;
            return false;
        }
        step();
    }
    return true;
}

bool EnvelopeReaderImpl::atEnd() const {
    return !const_cast<EnvelopeReaderImpl*>(this)->fill();
}

int EnvelopeReaderImpl::peek() const {
    return const_cast<EnvelopeReaderImpl*>(this)->fill() ? m_clear.front() : -1;
}

int EnvelopeReaderImpl::read(unsigned char* out, unsigned int length) {
    const unsigned int wanted = std::min<unsigned int>(length, std::numeric_limits<int>::max());
    unsigned int done = 0;
    while (done != wanted && fill()) {
        const std::size_t count = std::min<std::size_t>(m_clear.size(), wanted - done);
        std::copy_n(m_clear.data(), count, out + done);
        m_clear = m_clear.subspan(count);
        done += static_cast<unsigned int>(count);
    }
    return static_cast<int>(done);
}

MediaOut& EnvelopeReaderImpl::write(MediaOut& out) {
    while (fill()) {
        out.write(m_clear.data(), static_cast<unsigned int>(m_clear.size()));
        m_clear = {};
    }
    return out;
}

} // namespace Norvane::Crypto::CMS
