// The encrypting stream as its callers see it.
#include "CMSStreamWriter/EnvelopeStream.h"

#include <norvcrypto/CMSEnvelopeWriter.h>

#include <memory>

namespace Norvane::Crypto::CMS {

EnvelopeWriterImpl::EnvelopeWriterImpl(const std::vector<EnvelopeRecipient>& recipients, const EnvelopeOptions& options)
    : m_stream(std::make_unique<EnvelopeStream>(recipients, options)) {}

EnvelopeWriterImpl::~EnvelopeWriterImpl() = default;

void EnvelopeWriterImpl::write(const unsigned char* data, unsigned int length) {
    m_stream->write(target(), data, length);
}

void EnvelopeWriterImpl::end() {
    m_stream->end(target());
}

EnvelopeWriter::EnvelopeWriter() = default;

EnvelopeWriter::EnvelopeWriter(const std::vector<EnvelopeRecipient>& recipients, const EnvelopeOptions& options)
    : MediaOut(makeReference<EnvelopeWriterImpl, MediaOutImpl>(recipients, options)) {}

EnvelopeWriter::EnvelopeWriter(const EnvelopeWriter& other) = default;

EnvelopeWriter& EnvelopeWriter::operator=(const EnvelopeWriter& other) = default;

EnvelopeWriter::~EnvelopeWriter() = default;

} // namespace Norvane::Crypto::CMS
