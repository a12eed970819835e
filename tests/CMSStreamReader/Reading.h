#pragma once

// What the tests of the enveloped reader share: messages read from sources of both kinds, and what came of it.

#include "support/MadeByOpenssl.h"

#include <norvcrypto/CMSEnvelopeReader.h>

#include <functional>
#include <string>

namespace cmstest {

using Reader = CMS::EnvelopeReader;
using Opening = std::function<bool(Reader&)>;

inline const std::string damagedText = "the message is damaged, or the key is not the right one";
inline const std::string noStructureText = "no EnvelopedData or AuthEnvelopedData, or a damaged one";

/// Where the message lies.
enum class From { memory, stream };

/// What reading a message came to.
struct Outcome {
    bool constructed = false;
    bool opened = false;
    Reader::Verdict verdict = Reader::Unopened;
    Bytes body;
    std::string text;         ///< of the exception; empty for none
    std::string unsupported;  ///< by name
    std::size_t position = 0; ///< of the source, at the end
};

inline Opening withKeys(const std::vector<const Identity*>& people) {
    std::list<NVX509::KeyCertificatePair> pairs;
    for (const Identity* person : people) {
        pairs.push_back(pairOf(*person));
    }
    return [pairs](Reader& reader) { return reader.open(CMS::KeyListLookup(pairs)); };
}
inline Opening withSecretKey(const Bytes& key) {
    return [key](Reader& reader) {
        for (const auto& recipient : reader.recipients()) {
            if (recipient.kind() == Reader::Recipient::keyEncryptionKey) {
                return reader.open(recipient, bufferOf(key));
            }
        }
        return false;
    };
}
inline Opening withPassword(const std::string& password) {
    return [password](Reader& reader) {
        for (const auto& recipient : reader.recipients()) {
            if (recipient.kind() == Reader::Recipient::password) {
                return reader.openWithPassword(recipient, bufferOf(bytesOf(password)));
            }
        }
        return false;
    };
}

inline std::string textOf(const Norvane::Exception& thrown) {
    EXPECT_EQ(thrown.where(), "CMS::EnvelopeReader");
    EXPECT_EQ(thrown.code(), 4);
    EXPECT_EQ(thrown.fileName(), "CMSEnvelopeReader");
    const auto* text =
        thrown.parameters().size() == 1 ? std::get_if<std::string>(&thrown.parameters().front()) : nullptr;
    EXPECT_NE(text, nullptr);
    return text == nullptr ? std::string() : *text;
}

/// Reads as a caller does. What was written before a failure is in the body.
inline Outcome outcomeFrom(const Norvane::MediaIn& in, const Opening& open,
                           const Reader::Budget& budget = Reader::Budget()) {
    Outcome outcome;
    try {
        Reader reader(in, budget);
        outcome.constructed = true;
        reader.spillTo(testing::TempDir() + "swapXXXXXX");
        Norvane::MemoryMediaOut out;
        try {
            outcome.opened = open(reader);
            if (outcome.opened) {
                reader.write(out);
                EXPECT_TRUE(reader.atEnd());
            }
        } catch (const Norvane::Exception& thrown) {
            outcome.text = textOf(thrown);
        }
        outcome.verdict = reader.verdict();
        outcome.unsupported = reader.unsupported();
        outcome.body = bytesOf(out.content());
    } catch (const Norvane::Exception& thrown) {
        outcome.text = textOf(thrown);
    }
    EXPECT_EQ(ERR_peek_error(), 0UL) << ERR_error_string(ERR_get_error(), nullptr);
    ERR_clear_error();
    return outcome;
}

inline Outcome outcomeOf(const Bytes& message, From from, const Opening& open,
                         const Reader::Budget& budget = Reader::Budget()) {
    if (from == From::memory) {
        const Norvane::MemoryMediaIn in(bufferOf(message));
        Outcome outcome = outcomeFrom(in, open, budget);
        outcome.position = in.tell();
        return outcome;
    }
    const PiecewiseIn in(message, 777);
    Outcome outcome = outcomeFrom(in, open, budget);
    outcome.position = in.body().position();
    return outcome;
}

/// The message is read to its end and no further, from sources of both kinds.
inline void expectBody(const Bytes& message, const Opening& open, const Bytes& body) {
    for (const From from : {From::memory, From::stream}) {
        SCOPED_TRACE(from == From::memory ? "memory" : "stream");
        Bytes more = message;
        const Bytes behind(100000, 0x30);
        more.insert(more.end(), behind.begin(), behind.end());
        for (const Bytes& source : {message, more}) {
            const Outcome outcome = outcomeOf(source, from, open);
            EXPECT_EQ(outcome.text, "");
            EXPECT_TRUE(outcome.opened) << outcome.unsupported;
            EXPECT_EQ(outcome.verdict, Reader::Complete);
            EXPECT_TRUE(outcome.body == body);
            EXPECT_EQ(outcome.position, message.size());
        }
    }
}

/// Nothing else than that the message or the key is wrong is told, and for authenticated messages no octet.
inline void expectDamaged(const Bytes& message, const Opening& open, bool authenticated) {
    for (const From from : {From::memory, From::stream}) {
        const Outcome outcome = outcomeOf(message, from, open);
        EXPECT_TRUE(outcome.opened);
        EXPECT_EQ(outcome.text, damagedText);
        EXPECT_EQ(outcome.verdict, Reader::Damaged);
        if (authenticated) {
            EXPECT_TRUE(outcome.body.empty());
        }
    }
}

} // namespace cmstest
