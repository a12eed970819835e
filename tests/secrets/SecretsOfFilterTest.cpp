// What is left in the mail filter of a message that it decrypted.

#include "SecretsInMemory.h"

#include "engine/Engine.h"
#include "milter/support/FrontBench.h"

#include <norvcmsg/File.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

using namespace secrettesting;
using namespace norvmilter;

/// The encrypted mail of the scene comes from an MTA, from the first callback to the last.
void filters(const std::string& folder) {
    std::string mail;
    Norvane::FileMediaIn(Norvane::File::Path(folder + "/mail")).read(mail);
    const auto config =
        std::make_shared<const Config>(Config::parse("[milter]\nsocket = \"inet:8891@127.0.0.1\"\nauthserv_id = "
                                                     "\"mx.example.org\"\n[store]\ndirectory = \"store\"\n",
                                                     folder + "/milter.toml"));
    const Engine engine(config, std::make_shared<Stores>(*config));
    norvtest::FrontBench bench(
        [&](const Message& message, const Deadline& deadline) { return engine.handle(message, deadline); });
    norvtest::Asking asking(bench);
    asking.context.keepsBody = false; // the MTA's
    asking.negotiate();
    asking.connect();
    asking.sender("<alice@example.org>");
    asking.recipient("<alice@example.org>");
    std::size_t at = 0;
    for (std::size_t end = mail.find("\r\n"); end != at; end = mail.find("\r\n", at)) {
        while (mail[end + 2] == ' ' || mail[end + 2] == '\t') {
            end = mail.find("\r\n", end + 2); // a field goes on
        }
        const std::size_t colon = mail.find(':', at);
        asking.header(mail.substr(at, colon - at), mail.substr(colon + 1, end - colon - 1));
        at = end + 2;
    }
    asking.body(mail.substr(at + 2));
    if (asking.end() != SMFIS_CONTINUE || !norvtest::lastCall(asking).starts_with("replacebody")) {
        for (const std::string& line : bench.log.lines) {
            std::fprintf(stderr, "%s\n", line.c_str());
        }
        std::abort();
    }
}

const AddedWork s_works[] = {{"filter", filters}};

class SecretsOfFilter : public SecretsInMemory {};

TEST_F(SecretsOfFilter, NothingIsLeftOfAMessageThatWasDecrypted) {
    EXPECT_EQ(leftByUs("filter"), Found());
}

} // namespace
