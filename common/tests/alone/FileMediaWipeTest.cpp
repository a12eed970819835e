// What streams on files leave behind: the memory that they give back is looked at.

#include "support/FreedMemory.h"
#include "support/TemporaryFolder.h"

#include <norvcmsg/File.h>

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace {

using Norvane::File;
using Norvane::FileMediaIn;
using Norvane::FileMediaOut;
using norvtest::freedWith;

const std::string s_secret = "correct horse battery staple";

class FileMediaWipe : public testing::Test {
protected:
    static int readInPieces(const std::string& path) {
        std::array<unsigned char, 7> piece{};
        return freedWith(s_secret, [&] {
            FileMediaIn in((File::Path(path)));
            while (in.read(piece.data(), piece.size()) > 0) {
            }
        });
    }

    norvtest::TemporaryFolder m_folder;
};

TEST_F(FileMediaWipe, TheTestSeesWhatIsNotWiped) {
    EXPECT_EQ(freedWith(s_secret, [] { const std::string copy(s_secret); }), 1);
}

TEST_F(FileMediaWipe, ASourceLeavesNothingOfWhatItRead) {
    m_folder.write("passphrase", s_secret);
    EXPECT_EQ(readInPieces(m_folder.path("passphrase")), 0);
}

TEST_F(FileMediaWipe, ASourceLeavesNothingOfWhatWasFurtherOnThanItsLastBytes) {
    m_folder.write("key", std::string(30000, ' ') + s_secret + std::string(70000, ' ') + "end");
    EXPECT_EQ(readInPieces(m_folder.path("key")), 0);
}

TEST_F(FileMediaWipe, ASourceThatWasNotReadToItsEndLeavesNothing) {
    m_folder.write("key", s_secret);
    const std::string path = m_folder.path("key");
    EXPECT_EQ(freedWith(s_secret,
                        [&] {
                            const FileMediaIn in((File::Path(path)));
                            EXPECT_EQ(in.peek(), 'c');
                        }),
              0);
}

TEST_F(FileMediaWipe, ASinkLeavesNothingOfWhatItWrote) {
    const std::string path = m_folder.path("written");
    const auto* bytes = reinterpret_cast<const unsigned char*>(s_secret.data());
    const auto length = static_cast<unsigned int>(s_secret.size());
    EXPECT_EQ(freedWith(s_secret,
                        [&] {
                            FileMediaOut out((File::Path(path)), 0600);
                            out.write(bytes, length);
                            out.end();
                        }),
              0);
    EXPECT_EQ(m_folder.read("written"), s_secret);
}

} // namespace
