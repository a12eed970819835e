#pragma once

/// \file
/// A SignedData under construction.

#include "CMSStreamWriter/SignedFraming.h"
#include "CMSStreamWriter/SignedSigner.h"
#include "failures/Failures.h"

#include <norvcmsg/Media.h>
#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto/CMSSignedWriter.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Norvane::Crypto::CMS {

class SignedWork {
public:
    /// \throws Exception `signedWriter`
    explicit SignedWork(const SignedWriter::Options& options);

    void write(const unsigned char* data, unsigned int length);
    void end();
    void target(const MediaOut& target) { m_target = target; }

private:
    /// Where the octets of a body go.
    enum class Way : int {
        nowhere,  ///< they are only digested
        segments, ///< to the target, length unknown
        straight, ///< to the target, length announced
        spill,    ///< to memory or a file, until the signatures are known
    };
    enum class State : int { fresh, begun, broken, ended };

    /// One digest algorithm, for all signers that name it.
    struct Digesting {
        openssl::SignatureDigest digest;
        openssl::DigestContextPtr context;
        framing::Encoded result;
    };

    void addSigners(const SignedWriter::Options& options, const framing::Encoded& contentType, bool isData);
    Digesting& digesting(const openssl::SignatureDigest& digest);
    void prepareFraming(const SignedWriter::Options& options, bool isData);
    [[nodiscard]] Way wayOf(const SignedWriter::Options& options) const;
    void requireOpen(const failures::Failure& failure) const;
    [[nodiscard]] bool writesWhileReading() const { return m_way == Way::segments || m_way == Way::straight; }
    void begin();
    [[nodiscard]] std::size_t lengthOfInfos() const;
    [[nodiscard]] framing::Encoded infos();
    void put(const framing::Encoded& octets);
    void finish(const framing::Encoded& infos);

    std::vector<SignedSigner> m_signers;
    std::vector<Digesting> m_digests;
    SignedFraming m_framing;
    OctetSegments m_segments;
    std::optional<SwapBufferMediaOut> m_spill;
    std::optional<std::uint64_t> m_announced;
    std::uint64_t m_written = 0;
    std::int64_t m_now = 0;
    MediaOut m_target;
    bool m_certificatesOnly;
    Way m_way;
    State m_state = State::fresh;
};

} // namespace Norvane::Crypto::CMS
