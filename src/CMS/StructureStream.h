#pragma once

/// \file
/// What the streams that produce a structure share: bytes go through a write-behind buffer into OpenSSL's content
/// chain, and the finished structure goes to the attached target.

#include "failures/Failures.h"
#include "openssl/ContentChain.h"

#include <norvcmsg/Buffer.h>
#include <norvcrypto/BIOMediaImpl.h>
#include <norvcrypto/CMS.h>

#include <memory>

namespace Norvane::Crypto::CMS {

/// One structure under construction. It is set up (type, signers, recipients) through `structure()`, then opened, then
/// written to and ended.
class StructureStream {
public:
    StructureStream();
    ~StructureStream();
    StructureStream(const StructureStream&) = delete;
    StructureStream& operator=(const StructureStream&) = delete;

    [[nodiscard]] pkcs7_st* structure() const { return m_structure; }

    /// Makes the content chain; false with the reasons in the error queue.
    [[nodiscard]] bool open(openssl::ContentChain::Sink sink);
    [[nodiscard]] bool isOpen() const noexcept { return m_chain != nullptr; }

    void attach(MediaOut& target);
    void detach();

    /// Buffers `data`, after passing on what is buffered when there is no room for it. A long piece goes into the chain
    /// at once: a structure that carries its content needs no copy of it, the other kind keeps one for what a second
    /// `end()` passes on. Dropped once a structure that carries its content was ended.
    void write(const Buffer& data);

    /// Finishes the structure and sends it to the target, which is ended. A second call sends the same structure again
    /// when it carries its content; else nothing guards against one: it passes the buffered bytes on again and sends a
    /// second structure.
    /// \throws Exception `finishing`, with the OpenSSL errors: the structure cannot be finished
    /// \throws Exception `writing`, with the OpenSSL errors: it cannot be encoded
    /// \throws what the target throws
    void end(const failures::Failure& finishing, const failures::Failure& writing);

private:
    void writeLong(const Buffer& data);
    void passBuffered();
    void emptyBuffer();
    void makeRoom(unsigned int length);
    void finish(const failures::Failure& finishing);
    void send(const failures::Failure& writing);
    /// Sends the structure around its content, so that no more than one copy of that is ever made.
    void send(const openssl::ContentSink& content, const failures::Failure& writing);

    RefContentInfo m_structure;
    BIOMediaOut m_out;
    std::unique_ptr<openssl::ContentChain> m_chain;
    Buffer m_buffer;
    unsigned int m_passed = 0; // how much of the buffer went into the chain already
    bool m_sealed = false;     // all of the content was passed on, which is collected: nothing can follow it
    bool m_finished = false;   // and it is in the structure, which is finished once
};

} // namespace Norvane::Crypto::CMS
