#pragma once

/// \file
/// What the tests of the mail filter share: people with keys, a store, a configuration, and an MTA that does what it is told.

#include "engine/Engine.h"
#include "stores/LearntFolder.h"
#include "support/Keys.h"
#include "support/MailAuthority.h"
#include "support/Places.h"
#include "support/Started.h"
#include "support/Streams.h"
#include "support/TemporaryFolder.h"

#include <authority/Authority.h>
#include <norvcrypto-smime/SMimeReader.h>
#include <norvcrypto-smime/SMimeWriter.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace miltertesting {

using namespace norvmilter;
using namespace Norvane::Crypto;
using norvauthority::CertificateRequest;
using norvauthority::Identity;
using norvtest::certificateOf;
using norvtest::pairOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Action = Outcome::Action;

inline const Identity& root() {
    return norvtest::mailAuthority();
}

/// A certificate of that address by the root, for one of the stored RSA keys.
inline Identity person(const std::string& address, const std::string& key, CertificateRequest request = {}) {
    static unsigned int serial = 0x100;
    if (request.subject.der().size() <= 2)
        request.subject = {{"CN", address.substr(0, address.find('@'))}};
    request.key = norvauthority::Key::fromPem(norvtest::storedKeyPem(key));
    if (request.issuer == nullptr)
        request.issuer = &root();
    if (request.serial == "1")
        request.serial = std::to_string(++serial);
    if (request.alternativeNames.empty())
        request.alternativeNames = {norvauthority::GeneralName::email(address)};
    return norvauthority::issue(request);
}

inline const Identity& anna() {
    static const Identity made = person("anna@a.example", "alice");
    return made;
}
inline const Identity& bert() {
    static const Identity made = person("bert@b.example", "bob");
    return made;
}
inline const Identity& cleo() {
    static const Identity made = person("cleo@b.example", "carol");
    return made;
}

inline std::string contentOf(Norvane::MediaIn in) {
    std::string content;
    in.read(content);
    return content;
}

/// What an MTA makes of a message that it is told to change.
struct Delivered {
    std::vector<HeaderField> header;
    std::string body;

    [[nodiscard]] std::string text() const { return octetsOf(header) + "\r\n" + body; }
    [[nodiscard]] std::vector<std::string> values(const std::string& name) const {
        std::vector<std::string> found;
        for (const HeaderField& field : header) {
            if (isSameName(field.name, name))
                found.push_back(field.value);
        }
        return found;
    }
    /// Of the one field of that name, unfolded.
    [[nodiscard]] std::string value(const std::string& name) const {
        const auto found = values(name);
        EXPECT_EQ(found.size(), 1U) << name;
        std::string text = found.empty() ? "" : found.front();
        std::erase(text, '\n');
        return text;
    }
};

inline Delivered delivered(const Message& message, const Outcome& outcome) {
    Delivered result{message.header, contentOf(message.body())};
    EXPECT_TRUE(outcome.action == Action::pass || outcome.action == Action::change) << outcome.reply.text;
    for (const HeaderEdit& edit : outcome.edits) {
        // What a milter may put into a header without making another one of it.
        EXPECT_EQ(edit.value.find_first_of(std::string("\r\0", 2)), std::string::npos);
        for (std::size_t at = edit.value.find('\n'); at != std::string::npos; at = edit.value.find('\n', at + 1)) {
            const char next = at + 1 < edit.value.size() ? edit.value[at + 1] : 'x';
            EXPECT_TRUE(next == ' ' || next == '\t') << edit.value;
        }
        if (edit.kind == HeaderEdit::Kind::insert)
            result.header.insert(result.header.begin(), {edit.name, edit.value});
        if (edit.kind == HeaderEdit::Kind::append)
            result.header.push_back({edit.name, edit.value});
        if (edit.kind == HeaderEdit::Kind::remove) {
            std::size_t seen = 0;
            const auto found = std::ranges::find_if(result.header, [&](const HeaderField& field) {
                return isSameName(field.name, edit.name) && ++seen == edit.occurrence;
            });
            EXPECT_NE(found, result.header.end()) << edit.name << ' ' << edit.occurrence;
            if (found != result.header.end())
                result.header.erase(found);
        }
    }
    if (outcome.body)
        result.body = contentOf(outcome.body->in());
    if (outcome.action == Action::pass) {
        EXPECT_TRUE(outcome.edits.empty());
        EXPECT_FALSE(outcome.body);
    }
    return result;
}

/// What of a value stands in no quoted text.
inline std::string outsideOfQuotes(const std::string& value) {
    std::string outside;
    bool isQuoted = false;
    for (std::size_t index = 0; index < value.size(); ++index) {
        if (isQuoted && value[index] == '\\')
            ++index;
        else if (value[index] == '"')
            isQuoted = !isQuoted;
        else if (!isQuoted)
            outside += value[index];
    }
    EXPECT_FALSE(isQuoted) << value;
    return outside;
}

inline void setBody(Message& message, const std::string& body) {
    message.addBody(reinterpret_cast<const unsigned char*>(body.data()), body.size());
}

/// A message as it lies on the wire.
inline Message messageOf(const std::string& mail) {
    Message message;
    std::size_t begin = 0;
    for (std::size_t end = mail.find("\r\n"); end != begin; end = mail.find("\r\n", begin)) {
        const std::string line = mail.substr(begin, end - begin);
        if (line.starts_with(' ') || line.starts_with('\t'))
            message.header.back().value += "\n" + line;
        else
            message.header.push_back({line.substr(0, line.find(':')), line.substr(line.find(':') + 1)});
        begin = end + 2;
    }
    setBody(message, mail.substr(begin + 2));
    return message;
}

inline const std::string textBody = "Hello,\r\n\r\nthis is all.\r\n";

/// From anna to bert.
inline Message mailOf(const std::vector<std::string>& recipients = {"bert@b.example"},
                      const std::string& to = "bert@b.example", const std::string& body = textBody) {
    Message message;
    message.envelope.sender = "anna@a.example";
    message.envelope.authenticated = "anna";
    message.envelope.recipients = recipients;
    message.header = {{"Received", " from client\n\tby mx; today"},
                      {"From", " Anna <anna@a.example>"},
                      {"To", " " + to},
                      {"Subject", " outside"},
                      {"Message-ID", " <1@a.example>"}};
    setBody(message, body);
    return message;
}

/// A store, anchors and a configuration on the disk.
class World {
public:
    World() {
        std::filesystem::create_directories(path("store"));
        std::filesystem::create_directories(path("learnt"));
        write("roots.pem", root().certificate.pem());
    }

    [[nodiscard]] std::string path(const std::string& name) const { return m_folder.path(name); }
    void write(const std::string& name, const std::string& content, mode_t mode = 0600) const {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        std::ofstream(path(name), std::ios::binary) << content;
        chmod(path(name).c_str(), mode);
    }
    void add(const std::string& name, const Identity& who, const std::string& owners, bool withKey) const {
        write("store/" + name + "/cert.pem", who.certificate.pem());
        write("store/" + name + "/owners.txt", owners + "\n");
        if (withKey)
            write("store/" + name + "/key.pem", who.key.pkcs8Pem());
    }
    /// anna signs, bert and cleo have certificates.
    void addPeople() const {
        add("anna", anna(), "anna@a.example", true);
        add("bert", bert(), "bert@b.example", false);
        add("cleo", cleo(), "cleo@b.example", false);
    }

    /// \param more keys in front of the tables that all have
    [[nodiscard]] std::string configuration(const std::string& rules, const std::string& more = "") const {
        return "[milter]\nsocket = \"inet:8891@127.0.0.1\"\nauthserv_id = \"mx.example.org\"\n"
               "[store]\ndirectory = \"store\"\n[trust]\nanchors = [\"roots.pem\"]\n"
               "[[direction]]\nauthenticated = \"*\"\ndirection = \"outgoing\"\n" +
               more + rules;
    }
    [[nodiscard]] std::shared_ptr<const Config> config(const std::string& rules, const std::string& more = "") const {
        return std::make_shared<const Config>(Config::parse(configuration(rules, more), path("milter.toml")));
    }
    [[nodiscard]] Engine engine(const std::string& rules, const std::string& more = "") {
        const auto loaded = config(rules, more);
        m_stores = std::make_shared<Stores>(*loaded);
        return {loaded, m_stores};
    }
    [[nodiscard]] Stores& stores() { return *m_stores; }

private:
    norvtest::TemporaryFolder m_folder;
    std::shared_ptr<Stores> m_stores;
};

class Keys : public CMS::KeyListLookup {
public:
    explicit Keys(const std::vector<const Identity*>& people) : KeyListLookup(pairsOf(people)) {}

private:
    static std::list<NVX509::KeyCertificatePair> pairsOf(const std::vector<const Identity*>& people) {
        std::list<NVX509::KeyCertificatePair> pairs;
        for (const Identity* const one : people)
            pairs.push_back(pairOf(*one));
        return pairs;
    }
};

/// What a mail program finds in a mail.
struct Found {
    SMime::Answer answer;
    std::string content;

    [[nodiscard]] bool isSigned() const { return answer.headers.isSigned || hasLayer("signed"); }
    [[nodiscard]] bool isEncrypted() const { return hasLayer("enveloped"); }
    /// The names in the recipient infos of the first layer.
    [[nodiscard]] std::size_t recipients() const {
        return answer.layers.empty() ? 0 : answer.layers.front().recipients.size();
    }

private:
    [[nodiscard]] bool hasLayer(const std::string& kind) const {
        return std::ranges::any_of(answer.layers, [&](const SMime::Layer& layer) {
            return std::string(SMime::nameOf(layer.kind)).find(kind) != std::string::npos;
        });
    }
};

inline Found read(const std::string& mail, const std::vector<const Identity*>& people) {
    const Keys keys(people);
    SMime::ReadOptions options;
    options.keys = &keys;
    Norvane::MemoryMediaOut content;
    Found found;
    found.answer = SMime::read(Norvane::MemoryMediaIn(mail), content, options);
    found.content = norvtest::textOf(content.content());
    return found;
}

/// A mail with shells around it.
inline std::string wrapped(const std::string& mail, const std::vector<SMime::Wrapping>& shells,
                           const SMime::WriteOptions& how = {}) {
    Norvane::MemoryMediaOut out;
    SMime::wrap(Norvane::MemoryMediaIn(mail), shells, out, how);
    return norvtest::textOf(out.content());
}
inline SMime::SignOptions signedBy(const Identity& who, SMime::SigningForm form = SMime::SigningForm::multipartSigned) {
    SMime::SignOptions options;
    options.form = form;
    options.signers.emplace_back(pairOf(who));
    return options;
}
inline SMime::EncryptOptions encryptedTo(const std::vector<const Identity*>& people) {
    SMime::EncryptOptions options;
    for (const Identity* const one : people)
        options.certificates.push_back(certificateOf(*one));
    return options;
}

} // namespace miltertesting
