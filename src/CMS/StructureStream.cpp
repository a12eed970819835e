#include "CMS/StructureStream.h"

#include "failures/Raise.h"
#include "openssl/Pkcs7.h"
#include "openssl/StreamExceptions.h"

#include <utility>
#include <vector>

namespace Norvane::Crypto::CMS {

namespace {

constexpr int s_bufferSize = 4096;

} // namespace

StructureStream::StructureStream() : m_structure(true), m_buffer(s_bufferSize, 0) {}

StructureStream::~StructureStream() = default;

bool StructureStream::open(openssl::ContentChain::Sink sink) {
    m_chain = openssl::ContentChain::open(m_structure, sink);
    return m_chain != nullptr;
}

void StructureStream::attach(MediaOut& target) {
    m_out.attach(target);
}

void StructureStream::detach() {
    m_out.detach();
}

void StructureStream::write(const Buffer& data) {
    if (m_sealed) {
        return;
    }
    if (m_buffer.size() - m_buffer.length() < data.length()) {
        m_chain->write(std::as_const(m_buffer).data(), m_buffer.length());
        m_buffer.length(0);
    }
    m_buffer.append(data);
}

void StructureStream::end(const failures::Failure& finishing, const failures::Failure& writing) {
    if (!m_finished) {
        finish(finishing);
    }
    if (const openssl::ContentSink* content = m_chain->collected()) {
        send(*content, writing);
    } else {
        send(writing);
    }
    m_out.end();
}

void StructureStream::finish(const failures::Failure& finishing) {
    if (!m_sealed) {
        m_chain->write(std::as_const(m_buffer).data(), m_buffer.length());
        m_chain->flush();
        m_sealed = m_chain->collected() != nullptr;
    }
    // Refused for structures that carry their content, which then stay as they are; the entry that the refusal leaves in
    // the error queue is left there.
    static_cast<void>(PKCS7_ctrl(m_structure, PKCS7_OP_SET_DETACHED_SIGNATURE, 1, nullptr));
    if (!m_chain->finish(m_structure)) {
        failures::raiseWithErrors(finishing);
    }
    m_finished = m_sealed;
}

void StructureStream::send(const failures::Failure& writing) {
    BIO* out = m_out;
    const int written = openssl::rethrowingStreamErrors(m_out, [&] { return i2d_PKCS7_bio(out, m_structure); });
    if (written != 1) {
        failures::raiseWithErrors(writing);
    }
}

void StructureStream::send(const openssl::ContentSink& content, const failures::Failure& writing) {
    const std::vector<unsigned char> head = openssl::encodeHead(m_structure, content.length());
    if (head.empty()) {
        failures::raiseWithErrors(writing);
    }
    m_out.write(head.data(), static_cast<unsigned int>(head.size()));
    content.forEach([&](const unsigned char* bytes, unsigned int length) { m_out.write(bytes, length); });
}

} // namespace Norvane::Crypto::CMS
