// What a decoder holds back of octets that were encrypted is wiped with it.
#include "mime/Gmime.h"
#include "mime/Transfer.h"

#include "support/Wiping.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

namespace {

using namespace Norvane::Crypto::SMime::mime;

// The state of GMime's own decoder that got the same tells what that looks like.
TEST(DecoderWiping, LeavesNothingOfWhatItHoldsBack) {
    for (const auto& [transfer, name, encoded] :
         {std::tuple(Transfer::base64, GMIME_CONTENT_ENCODING_BASE64, "QUJDRE"),
          {Transfer::quotedPrintable, GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE, "ABC=4"}}) {
        startGmime();
        GMimeEncoding state{};
        g_mime_encoding_init_decode(&state, name);
        const std::string unused(reinterpret_cast<const char*>(&state), sizeof state);
        std::string decoded(g_mime_encoding_outlen(&state, std::strlen(encoded)), '\0');
        decoded.resize(g_mime_encoding_step(&state, encoded, std::strlen(encoded), decoded.data()));
        ASSERT_EQ(decoded, "ABC");
        const std::string held(reinterpret_cast<const char*>(&state), sizeof state);
        ASSERT_NE(held, unused);
        WipedText out;
        const auto decode = [&, how = transfer, text = encoded] {
            Decoder decoder(how);
            decoder.decode(text, out);
        };
        EXPECT_EQ(norvtest::wipesOf(held, decode), 1U);
        EXPECT_EQ(out, "ABC");
    }
}

} // namespace
