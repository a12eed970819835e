#include "CMS/StructureStream.h"

#include "failures/Raise.h"
#include "openssl/Pkcs7.h"
#include "openssl/StreamExceptions.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>
#include <vector>

namespace Norvane::Crypto::CMS {

namespace {

constexpr int s_bufferSize = 4096;
/// Pieces above this are long.
constexpr unsigned int s_longPiece = 2 * s_bufferSize;
/// How much of a long piece is copied while it is still in the processor's nearest cache.
constexpr unsigned int s_step = 8192;

} // namespace

StructureStream::StructureStream() : m_structure(true), m_buffer(s_bufferSize, 0) {}

StructureStream::~StructureStream() = default;

bool StructureStream::open(openssl::ContentChain::Sink sink) {
    if (sink == openssl::ContentChain::Sink::collect) { // what comes is encrypted
        m_buffer.protect();
    }
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
    if (data.length() > s_longPiece) {
        writeLong(data);
        return;
    }
    if (m_buffer.size() - m_buffer.length() < data.length()) {
        emptyBuffer();
    }
    m_buffer.append(data);
}

void StructureStream::writeLong(const Buffer& data) {
    const unsigned int length = data.length();
    if (m_chain->collected() != nullptr) {
        emptyBuffer(); // nothing passes it on a second time
        m_chain->writeLong(data.data(), length);
        return;
    }
    makeRoom(length); // first, so that a piece that there is no memory for is neither digested nor kept
    passBuffered();
    if (data.isProtected()) {
        m_buffer.protect();
    }
    unsigned char* const kept = m_buffer.data() + m_buffer.length();
    for (unsigned int done = 0; done < length;) {
        const unsigned int count = std::min(length - done, s_step);
        m_chain->write(data.data() + done, count);
        std::memcpy(kept + done, data.data() + done, count); // behind the digest, which has fetched the bytes
        done += count;
    }
    m_buffer.length(m_buffer.length() + length);
    m_passed = m_buffer.length();
}

/// Empties the buffer when it has no room for that many bytes, and lets it grow as appending them would.
void StructureStream::makeRoom(unsigned int length) {
    if (m_buffer.size() - m_buffer.length() >= length) {
        return;
    }
    emptyBuffer();
    if (m_buffer.size() >= length) {
        return;
    }
    constexpr unsigned int most = std::numeric_limits<unsigned int>::max();
    m_buffer.length(std::max(length, m_buffer.size() > most / 2 ? most : m_buffer.size() * 2));
    m_buffer.length(0);
}

void StructureStream::passBuffered() {
    m_chain->write(std::as_const(m_buffer).data() + m_passed, m_buffer.length() - m_passed);
    m_passed = m_buffer.length();
}

void StructureStream::emptyBuffer() {
    passBuffered();
    m_buffer.length(0);
    m_passed = 0;
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
        passBuffered();
        m_passed = 0; // the buffer keeps its bytes, and what comes next passes them on again
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
