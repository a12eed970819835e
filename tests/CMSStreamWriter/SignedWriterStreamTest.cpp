// The stream itself: lengths announced and kept or not, targets that fail, ends, copies.
#include "SignedWriting.h"

#include "support/AddressSpace.h"
#include "support/Streams.h"

#include <algorithm>
#include <filesystem>

using namespace signedtest;

namespace {

/// A writer of an attached structure, and what it has written so far.
struct Writing {
    explicit Writing(const Options& options) : writer(options) { writer.attach(target); }
    void write(std::size_t length) { writer.write(bufferOf(bodyOf(length))); }

    Norvane::MemoryMediaOut target;
    SignedWriter writer;
};

void expectEnded(SignedWriter& writer, const std::string& reason) {
    const Caught onWrite = caught([&] { writer.write(bufferOf(bodyOf(1))); });
    EXPECT_EQ(onWrite.where, "CMS::SignedWriter::write");
    EXPECT_EQ(onWrite.code, 4);
    EXPECT_EQ(onWrite.details, std::vector<std::string>{reason});
    const Caught onEnd = caught([&] { writer.end(); });
    EXPECT_EQ(onEnd.where, "CMS::SignedWriter::end");
    EXPECT_EQ(onEnd.code, 4);
    EXPECT_EQ(onEnd.file, "CMSSignedWriter");
    EXPECT_EQ(onEnd.details, std::vector<std::string>{reason});
}

std::vector<Options> everyForm(const Identity& identity, std::uint64_t length) {
    std::vector<Options> all(4, optionsFor(identity));
    all[1].encoding = Encoding::der;
    all[2].encoding = Encoding::der;
    all[2].content = Content::detached;
    all[3].content = Content::detached;
    for (Options& one : all) {
        one.length = length;
    }
    return all;
}

/// The octets that the target of a writer has when the body is there and the end is not.
unsigned int sentBeforeTheEnd(const Options& options, std::size_t body) {
    Writing writing(options);
    writing.write(body);
    const unsigned int sent = writing.target.content().length();
    writing.writer.end();
    return sent;
}

/// A target that counts, keeps the first octets, and throws when it has taken enough.
class CountingOutImpl : public Norvane::MediaOutImpl {
public:
    using MediaOutImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        const std::size_t room = std::min<std::size_t>(length, 200 - head.size());
        head.insert(head.end(), data, data + room);
        count += length;
    }
    Bytes head;
    std::uint64_t count = 0;
};
class CountingOut : public Norvane::MediaOut {
public:
    CountingOut() : MediaOut(Norvane::makeReference<CountingOutImpl, Norvane::MediaOutImpl>()) {}
    [[nodiscard]] const CountingOutImpl& body() const { return dynamic_cast<const CountingOutImpl&>(**this); }
};

} // namespace

TEST(SignedStream, ABodyLongerThanAnnouncedIsRefused) {
    for (const Identity* identity : {&identities().rsa, &identities().ec}) {
        for (const Options& options : everyForm(*identity, 10)) {
            Writing writing(options);
            writing.write(9);
            const Caught failure = caught([&] { writing.write(2); });
            EXPECT_EQ(failure.where, "CMS::SignedWriter::write");
            EXPECT_EQ(failure.details, std::vector<std::string>{"the body is longer than the 10 octets announced"});
            expectEnded(writing.writer, "writing failed before");
            EXPECT_FALSE(writing.target.ended());
        }
    }
}

TEST(SignedStream, ABodyShorterThanAnnouncedIsRefused) {
    for (const Identity* identity : {&identities().rsa, &identities().ec}) {
        for (const Options& options : everyForm(*identity, 10)) {
            for (const std::size_t length : {0U, 9U}) {
                Writing writing(options);
                writing.write(length);
                const Caught failure = caught([&] { writing.writer.end(); });
                EXPECT_EQ(failure.where, "CMS::SignedWriter::end");
                EXPECT_EQ(failure.details, std::vector<std::string>{"the body has " + std::to_string(length) +
                                                                    " octets, announced were 10"});
                expectEnded(writing.writer, "writing failed before");
                EXPECT_FALSE(writing.target.ended());
            }
        }
    }
}

TEST(SignedStream, PassesTheBodyOnWhileItComesWhereLengthsAreKnown) {
    Options options = optionsFor(identities().rsa);
    EXPECT_GT(sentBeforeTheEnd(options, 100000), 95000U); // less than one segment is gathered
    options.encoding = Encoding::der;
    EXPECT_EQ(sentBeforeTheEnd(options, 100000), 0U);
    options.length = 100000;
    EXPECT_GT(sentBeforeTheEnd(options, 100000), 100000U);
    options.signers.emplace_back(pairOf(ed25519()));
    EXPECT_GT(sentBeforeTheEnd(options, 100000), 100000U);
    options.signers.emplace_back(pairOf(identities().ec)); // a signature whose length nobody knows
    EXPECT_EQ(sentBeforeTheEnd(options, 100000), 0U);
    options.content = Content::detached;
    EXPECT_EQ(sentBeforeTheEnd(options, 100000), 0U);
}

TEST(SignedStream, AnnouncedAndSpilledDerAreTheSame) {
    for (const std::size_t length : {0U, 127U, 128U, 70000U}) {
        Options options = optionsFor(identities().rsa);
        options.signers.front().signedAt = 1700000000;
        options.encoding = Encoding::der;
        const Bytes spilled = written(options, bodyOf(length));
        options.length = length;
        EXPECT_EQ(written(options, bodyOf(length)), spilled);
    }
}

TEST(SignedStream, SpillsIntoAFileThatHasNoName) {
    const norvtest::TemporaryFolder folder;
    Options options = optionsFor(identities().rsa);
    options.encoding = Encoding::der;
    options.memory = 1000;
    options.spillFile = folder.path("spillXXXXXX");
    Writing writing(options);
    writing.write(5000);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
    writing.writer.end();
    EXPECT_EQ(OpenSsl().verify(cmstest::bytesOf(writing.target.content())), textOf(bodyOf(5000)));

    options.spillFile = folder.path("nowhere/spillXXXXXX");
    Writing failing(options);
    const Caught failure = caught([&] { failing.write(5000); });
    EXPECT_EQ(failure.where, "SwapBufferMediaOut::write");
    expectEnded(failing.writer, "writing failed before");
}

TEST(SignedStream, NothingFollowsTheEnd) {
    for (Options options : everyForm(identities().rsa, 5)) {
        Writing writing(options);
        writing.write(5);
        writing.writer.end();
        const Bytes structure = cmstest::bytesOf(writing.target.content());
        expectEnded(writing.writer, "the structure was ended");
        EXPECT_EQ(cmstest::bytesOf(writing.target.content()), structure);
    }
}

TEST(SignedStream, TargetsThatFail) {
    for (const std::size_t room : {0U, 10U, 3000U, 6000U}) {
        norvtest::FailingMediaOut target(room);
        SignedWriter writer(optionsFor(identities().rsa));
        writer.attach(target);
        EXPECT_THROW(
            {
                writeInPieces(writer, bodyOf(5000), 500);
                writer.end();
            },
            norvtest::StreamFailure)
            << room;
        expectEnded(writer, "writing failed before");
        EXPECT_LE(target.body().content.size(), room);
    }
    cmstest::FailingOut closing(true);
    SignedWriter writer(optionsFor(identities().rsa));
    writer.attach(closing);
    EXPECT_THROW(writer.end(), std::runtime_error);
    expectEnded(writer, "writing failed before");
}

TEST(SignedStream, WithoutTargetNothingIsLost) {
    const Bytes body = bodyOf(100);
    SignedWriter writer(optionsFor(identities().rsa));
    for (int turn = 0; turn < 2; ++turn) {
        const Caught failure = caught([&] { writer.write(bufferOf(body)); });
        EXPECT_EQ(failure.where, "operator->");
        EXPECT_EQ(failure.code, 1);
    }
    EXPECT_EQ(caught([&] { writer.end(); }).where, "operator->");
    Norvane::MemoryMediaOut target;
    writer.attach(target);
    writer.write(bufferOf(body));
    writer.end();
    EXPECT_EQ(OpenSsl().verify(cmstest::bytesOf(target.content())), textOf(body));
}

TEST(SignedStream, ADetachedSignatureNeedsItsTargetAtTheEndAlone) {
    const Bytes body = bodyOf(100);
    Options options = optionsFor(identities().rsa);
    options.content = Content::detached;
    SignedWriter writer(options);
    writer.write(bufferOf(body));
    EXPECT_EQ(caught([&] { writer.end(); }).where, "operator->");
    Norvane::MemoryMediaOut target;
    writer.attach(target);
    writer.detach();
    EXPECT_EQ(caught([&] { writer.end(); }).where, "operator->");
    writer.attach(target);
    writer.end();
    EXPECT_EQ(OpenSsl().verify(cmstest::bytesOf(target.content()), &body), textOf(body));
}

TEST(SignedStream, IsNoTargetOfItself) {
    SignedWriter writer(optionsFor(identities().rsa));
    const Caught failure = caught([&] { writer.attach(writer); });
    EXPECT_EQ(failure.where, "CMS::SignedWriter::attach");
    EXPECT_EQ(failure.code, 1);
    EXPECT_EQ(failure.details, std::vector<std::string>{"a stream cannot be its own target"});
    Norvane::MemoryMediaOut other;
    static_cast<Norvane::MediaOut&>(writer) = other;
    EXPECT_EQ(caught([&] { writer.attach(other); }).where, "CMS::SignedWriter::attach");
    EXPECT_EQ(caught([&] { writer.detach(); }).code, 1);
}

TEST(SignedStream, CopiesShareTheBody) {
    Writing writing(optionsFor(identities().rsa));
    SignedWriter copy(writing.writer);
    writing.write(10);
    copy.end();
    expectEnded(writing.writer, "the structure was ended");
    EXPECT_EQ(OpenSsl().verify(cmstest::bytesOf(writing.target.content())), textOf(bodyOf(10)));
}

TEST(SignedStream, PiecesWithoutOctetsChangeNothing) {
    SignedWriter writer(optionsFor(identities().rsa));
    Norvane::MemoryMediaOut target;
    writer.attach(target);
    writer.write(nullptr, 0);
    writer.write(Buffer());
    EXPECT_EQ(target.content().length(), 0U);
    writer.end();
    EXPECT_EQ(OpenSsl().verify(cmstest::bytesOf(target.content())), "");
}

// A segment has a header of up to four octets, which one for each octet of the body would make a message of four times its length.
TEST(SignedStream, SmallPiecesAreGatheredIntoSegments) {
    const Bytes body = bodyOf(100000);
    for (const std::size_t piece : {1U, 100U, 4095U, 4096U, 4097U, 10000U}) {
        const Bytes message = written(optionsFor(identities().rsa), body, piece);
        EXPECT_EQ(OpenSsl().verify(message), textOf(body)) << piece;
        EXPECT_LT(message.size(), body.size() + 5000) << piece;
    }
}

// 5 GiB of zeroes: what stands in front of them announces all of them.
TEST(SignedStream, LengthsBeyond4GiB) {
    constexpr std::uint64_t length = std::uint64_t{5} << 30U;
    const norvtest::AddressSpace zeroes(std::size_t{1} << 30U);
    Options options = optionsFor(identities().rsa);
    options.signers.front().digest = Hasher::SHA1; // the quickest
    options.encoding = Encoding::der;
    options.length = length;
    CountingOut target;
    SignedWriter writer(options);
    writer.attach(target);
    for (int turn = 0; turn < 5; ++turn) {
        writer.write(zeroes.data(), 1U << 30U);
    }
    writer.end();
    const Bytes& head = target.body().head;
    ASSERT_EQ(head.size(), 200U);
    EXPECT_EQ(Bytes(head.begin(), head.begin() + 2), (Bytes{0x30, 0x85}));
    std::uint64_t announced = 0;
    for (std::size_t at = 2; at < 7; ++at) {
        announced = (announced << 8U) + head[at];
    }
    EXPECT_EQ(announced + 7, target.body().count);
    const Bytes octets{0x04, 0x85, 0x01, 0x40, 0x00, 0x00, 0x00};
    EXPECT_NE(std::search(head.begin(), head.end(), octets.begin(), octets.end()), head.end());
}
