// The public face of the signing writer.
#include "CMSStreamWriter/SignedWork.h"
#include "failures/Raise.h"

namespace Norvane::Crypto::CMS {

SignedWriter::Signer::Signer(const NVX509::KeyCertificatePair& signingPair)
    : pair(signingPair),
      capabilities(defaultCapabilities()) {}

SignedWriter::Options::Options() = default;

std::vector<SignedWriter::Capability> SignedWriter::defaultCapabilities() {
    // RFC 3565, 2.1 and RFC 5084, 3: keys of these algorithms are told apart by the identifier, and nothing follows it.
    return {{"2.16.840.1.101.3.4.1.46", Buffer()},
            {"2.16.840.1.101.3.4.1.6", Buffer()},
            {"2.16.840.1.101.3.4.1.42", Buffer()},
            {"2.16.840.1.101.3.4.1.22", Buffer()},
            {"2.16.840.1.101.3.4.1.2", Buffer()}};
}

SignedWriterImpl::SignedWriterImpl(const SignedWriter::Options& options)
    : m_work(std::make_unique<SignedWork>(options)) {}

SignedWriterImpl::~SignedWriterImpl() = default;

void SignedWriterImpl::write(const unsigned char* data, unsigned int length) {
    m_work->write(data, length);
}

void SignedWriterImpl::end() {
    m_work->end();
}

void SignedWriterImpl::attach(const MediaOut& target) {
    if (!target.isNull() && target.operator->() == this) { // it would end itself for ever
        failures::raise(failures::signedWriterAttach, "a stream cannot be its own target");
    }
    m_work->target(target);
}

void SignedWriterImpl::detach() {
    m_work->target(MediaOut());
}

namespace {

SignedWriterImpl& writerBody(const SignedWriter& handle) {
    auto* body = dynamic_cast<SignedWriterImpl*>(handle.operator->());
    if (body == nullptr) {
        failures::raise(failures::signedWriterAttach);
    }
    return *body;
}

} // namespace

SignedWriter::SignedWriter(const Options& options) : MediaOut(makeReference<SignedWriterImpl, MediaOutImpl>(options)) {}
SignedWriter::SignedWriter(const SignedWriter& other) = default;
SignedWriter& SignedWriter::operator=(const SignedWriter& other) = default;
SignedWriter::~SignedWriter() = default;

void SignedWriter::attach(MediaOut& target) {
    writerBody(*this).attach(target);
}

void SignedWriter::detach() {
    writerBody(*this).detach();
}

} // namespace Norvane::Crypto::CMS
