// What is assured without OpenSSL must be what OpenSSL decodes, to the octet; what it refuses must never be assured.
#include "openssl/Assured.h"

#include <authority/Der.h>

#include <openssl/err.h>
#include <openssl/x509.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

using namespace Norvane::Crypto;
using norvauthority::Bytes;
using norvauthority::fromHex;
namespace der = norvauthority::der;

namespace {

enum class Answer {
    assured, ///< and OpenSSL decodes it
    refused, ///< OpenSSL refuses it
    left,    ///< OpenSSL decodes it, but it is left to OpenSSL
};

std::ostream& operator<<(std::ostream& out, Answer answer) {
    return out << (answer == Answer::assured ? "assured" : answer == Answer::refused ? "refused" : "left");
}

template <class Decode> bool isDecoded(Decode decode, const Bytes& octets) {
    const unsigned char* at = octets.data();
    const bool whole = decode(&at, static_cast<long>(octets.size())) && at == octets.data() + octets.size();
    ERR_clear_error();
    return whole;
}

Answer answerOf(bool assured, bool decoded) {
    EXPECT_TRUE(decoded || !assured) << "assured, and OpenSSL refuses it";
    return assured ? Answer::assured : decoded ? Answer::left : Answer::refused;
}

Answer ofCertificate(const Bytes& octets) {
    const auto element = framing::firstElement(octets);
    return answerOf(element && openssl::assuredCertificate(*element), isDecoded(
                                                                          [](const unsigned char** at, long length) {
                                                                              X509* const x509 =
                                                                                  d2i_X509(nullptr, at, length);
                                                                              X509_free(x509);
                                                                              return x509 != nullptr;
                                                                          },
                                                                          octets));
}

Answer ofList(const Bytes& octets) {
    const auto element = framing::firstElement(octets);
    return answerOf(element && openssl::isAssuredList(*element), isDecoded(
                                                                     [](const unsigned char** at, long length) {
                                                                         X509_CRL* const list =
                                                                             d2i_X509_CRL(nullptr, at, length);
                                                                         X509_CRL_free(list);
                                                                         return list != nullptr;
                                                                     },
                                                                     octets));
}

/// The content of an element under another tag octet.
Bytes tagged(unsigned char tag, const Bytes& content = {}) {
    return der::element(tag, content);
}

const Bytes sha256WithRsa = der::oid("1.2.840.113549.1.1.11");
const Bytes utcTime = tagged(der::utcTimeTag, norvauthority::bytes("260101000000Z"));
const Bytes generalizedTime = tagged(der::generalizedTimeTag, norvauthority::bytes("20600101000000Z"));
const Bytes algorithm = der::sequence({sha256WithRsa, der::null()});
const Bytes someBits = der::bitString({0x01, 0x02});

Bytes entry(const Bytes& type, const Bytes& value) {
    return der::sequence({type, value});
}
Bytes nameOf(const Bytes& value) {
    return der::sequence({der::set({entry(der::oid("2.5.4.3"), value)})});
}
const Bytes name = nameOf(tagged(12, norvauthority::bytes("Anna")));

/// The parts of a certificate (RFC 5280, 4.1).
struct Certificate {
    Bytes version = tagged(0xA0, der::integer("2"));
    Bytes serial = der::integer("1");
    Bytes inner = algorithm;
    Bytes issuer = name;
    Bytes validity = der::sequence({utcTime, generalizedTime});
    Bytes subject = name;
    Bytes key = der::sequence({algorithm, someBits});
    Bytes extensions{};
    Bytes outer = algorithm;
    Bytes signature = someBits;
    Bytes behind{};

    [[nodiscard]] Bytes whole() const {
        return der::sequence({der::sequence({version, serial, inner, issuer, validity, subject, key, extensions}),
                              outer, signature, behind});
    }
};

/// The parts of a list (RFC 5280, 5.1).
struct List {
    Bytes version = der::integer("1");
    Bytes inner = algorithm;
    Bytes issuer = name;
    Bytes thisUpdate = utcTime;
    Bytes nextUpdate = generalizedTime;
    Bytes revoked{};
    Bytes extensions{};
    Bytes outer = algorithm;
    Bytes signature = someBits;

    [[nodiscard]] Bytes whole() const {
        return der::sequence(
            {der::sequence({version, inner, issuer, thisUpdate, nextUpdate, revoked, extensions}), outer, signature});
    }
};

Answer with(const std::function<void(Certificate&)>& change) {
    Certificate one;
    change(one);
    return ofCertificate(one.whole());
}
Answer withList(const std::function<void(List&)>& change) {
    List one;
    change(one);
    return ofList(one.whole());
}

/// A row for each value of one part.
using Rows = std::vector<std::pair<Bytes, Answer>>;

void expectAll(Bytes Certificate::*part, const Rows& rows) {
    for (const auto& row : rows) {
        EXPECT_EQ(with([&](Certificate& one) { one.*part = row.first; }), row.second)
            << norvauthority::toHex(row.first).substr(0, 99);
    }
}
void expectAll(Bytes List::*part, const Rows& rows) {
    for (const auto& row : rows) {
        EXPECT_EQ(withList([&](List& one) { one.*part = row.first; }), row.second)
            << norvauthority::toHex(row.first).substr(0, 99);
    }
}

const Bytes critical = der::boolValue(true);
const Bytes extension = der::sequence({der::oid("1.2.3.4"), critical, der::octetString({0x05, 0x00})});

} // namespace

TEST(Assured, ACertificateAndAListAsTheyAreIssued) {
    EXPECT_EQ(with([](Certificate&) {}), Answer::assured);
    EXPECT_EQ(withList([](List&) {}), Answer::assured);
    const Bytes whole = Certificate().whole();
    const auto element = framing::firstElement(whole);
    const auto found = openssl::assuredCertificate(*element);
    ASSERT_TRUE(found);
    EXPECT_EQ(Bytes(found->issuer.begin(), found->issuer.end()), name);
    EXPECT_EQ(Bytes(found->serial.begin(), found->serial.end()), der::integer("1"));
}

TEST(Assured, TheOutermostElement) {
    for (const auto& answer : {ofCertificate, ofList}) {
        EXPECT_EQ(answer(der::set({algorithm})), Answer::refused);
        EXPECT_EQ(answer(der::sequence({})), Answer::refused);
        EXPECT_EQ(answer(tagged(0x10, Certificate().whole())), Answer::refused);
        EXPECT_EQ(answer(der::sequence({der::set({})})), Answer::refused);
    }
    EXPECT_EQ(with([](Certificate& one) { one.behind = der::null(); }), Answer::refused);
    Bytes indefinite{0x30, 0x80};
    const Bytes whole = Certificate().whole();
    const auto element = framing::firstElement(whole);
    indefinite.insert(indefinite.end(), element->content.begin(), element->content.end());
    indefinite.insert(indefinite.end(), {0x00, 0x00});
    EXPECT_EQ(ofCertificate(indefinite), Answer::left);
}

TEST(Assured, Versions) {
    expectAll(&Certificate::version,
              {{{}, Answer::assured},
               {tagged(0xA0, der::integer("0")), Answer::assured},
               {tagged(0xA0, tagged(2)), Answer::refused},
               {tagged(0xA0), Answer::refused},
               {tagged(0xA0, der::null()), Answer::refused},
               {tagged(0xA0, der::concat({der::integer("2"), der::integer("2")})), Answer::refused},
               {tagged(0x80, {0x02}), Answer::refused},
               {tagged(0xA1, der::integer("2")), Answer::refused}});
    expectAll(&List::version, {{{}, Answer::assured},
                               {fromHex("0202ff01"), Answer::left},
                               {tagged(2), Answer::refused},
                               {fromHex("2203020101"), Answer::refused}});
}

/// About the padding of negative numbers releases of OpenSSL differ.
TEST(Assured, SerialNumbers) {
    expectAll(&Certificate::serial, {{der::integer("0"), Answer::assured},
                                     {fromHex("0201ff"), Answer::assured},
                                     {fromHex("020180"), Answer::assured},
                                     {fromHex("020201ff"), Answer::assured},
                                     {fromHex("02028001"), Answer::assured},
                                     {fromHex("0202ff01"), Answer::left},
                                     {fromHex("02020001"), Answer::refused},
                                     {tagged(4, {0x01}), Answer::refused},
                                     {{}, Answer::refused}});
}

TEST(Assured, Algorithms) {
    const Bytes parameters = der::null();
    for (const auto part : {&Certificate::inner, &Certificate::outer}) {
        expectAll(part, {{der::sequence({sha256WithRsa}), Answer::assured},
                         {der::sequence({sha256WithRsa, der::octetString({0x01})}), Answer::assured},
                         {der::sequence({sha256WithRsa, sha256WithRsa}), Answer::assured},
                         {der::sequence({sha256WithRsa, der::integer("5")}), Answer::assured},
                         {der::sequence({sha256WithRsa, der::sequence({der::null()})}), Answer::assured},
                         {der::sequence({sha256WithRsa, fromHex("050100")}), Answer::refused},
                         {der::sequence({sha256WithRsa, fromHex("1000")}), Answer::refused},
                         {der::sequence({sha256WithRsa, fromHex("2500")}), Answer::refused},
                         {der::sequence({sha256WithRsa, fromHex("30800000")}), Answer::left},
                         {der::sequence({sha256WithRsa, fromHex("3100")}), Answer::left},
                         {der::sequence({sha256WithRsa, fromHex("2400")}), Answer::left},
                         {der::sequence({sha256WithRsa, parameters, parameters}), Answer::refused},
                         {der::sequence({sha256WithRsa, fromHex("31000500")}), Answer::refused},
                         {der::sequence({sha256WithRsa, fromHex("0505")}), Answer::refused},
                         {der::sequence({parameters}), Answer::refused},
                         {der::sequence({}), Answer::refused},
                         {der::set({sha256WithRsa}), Answer::refused},
                         {{}, Answer::refused}});
    }
}

TEST(Assured, IdentifiersAsLongAsAnyInUse) {
    const auto identifier = [](std::size_t length) { return der::sequence({der::rawOid(Bytes(length, 0x2A))}); };
    expectAll(&Certificate::inner, {{identifier(64), Answer::assured}, {identifier(65), Answer::left}});
}

TEST(Assured, NamesAsLongAsAnyInUse) {
    const auto nameOfSize = [](std::size_t size) {
        // Of as many attributes as it takes, the last one of any length.
        Bytes parts;
        const Bytes one = der::set({entry(der::oid("2.5.4.3"), tagged(12, Bytes(60, 'x')))});
        const std::size_t wanted = size - 4;
        while (parts.size() + one.size() + 12 <= wanted) {
            der::append(parts, one);
        }
        for (std::size_t length = 1; length < 120; ++length) {
            Bytes whole = parts;
            der::append(whole, der::set({entry(der::oid("2.5.4.3"), tagged(12, Bytes(length, 'y')))}));
            whole = tagged(der::sequenceTag, whole);
            if (whole.size() == size) {
                return whole;
            }
        }
        return Bytes();
    };
    ASSERT_EQ(nameOfSize(0x10000).size(), 0x10000U);
    ASSERT_EQ(nameOfSize(0x10001).size(), 0x10001U);
    expectAll(&Certificate::subject, {{nameOfSize(0x10000), Answer::assured}, {nameOfSize(0x10001), Answer::left}});
}

TEST(Assured, Names) {
    const Bytes type = der::oid("2.5.4.3");
    const Bytes value = tagged(12, {'A'});
    for (const auto part : {&Certificate::issuer, &Certificate::subject}) {
        expectAll(part, {{der::sequence({}), Answer::assured},
                         {der::sequence({der::set({entry(type, value), entry(type, value)})}), Answer::assured},
                         {der::sequence({der::set({})}), Answer::left},
                         {der::sequence({der::sequence({entry(type, value)})}), Answer::refused},
                         {der::sequence({der::set({der::set({type, value})})}), Answer::refused},
                         {der::sequence({der::set({der::null()})}), Answer::refused},
                         {der::sequence({der::set({der::sequence({})})}), Answer::refused},
                         {der::sequence({der::set({der::sequence({type})})}), Answer::refused},
                         {der::sequence({der::set({der::sequence({value, value})})}), Answer::refused},
                         {der::sequence({der::set({der::sequence({type, value, value})})}), Answer::refused},
                         {der::set({der::set({entry(type, value)})}), Answer::refused},
                         {{}, Answer::refused}});
    }
    expectAll(&List::issuer, {{der::null(), Answer::refused}, {{}, Answer::refused}});
}

/// OpenSSL brings them into the form in which it compares names, and refuses what it cannot.
TEST(Assured, TextsOfNames) {
    const std::vector<std::pair<const char*, Answer>> rows{
        {"0c00", Answer::assured},         // UTF8String
        {"0c0141", Answer::assured},       //
        {"0c03e282ac", Answer::assured},   // U+20AC
        {"0c03ed9fbf", Answer::assured},   // U+D7FF
        {"0c03eda080", Answer::refused},   // U+D800, a surrogate
        {"0c03edbfbf", Answer::refused},   // U+DFFF
        {"0c03ee8080", Answer::assured},   // U+E000
        {"0c04f48fbfbf", Answer::assured}, // U+10FFFF
        {"0c04f4908080", Answer::refused}, // U+110000
        {"0c02c080", Answer::refused},     // overlong
        {"0c024180", Answer::refused},     // a continuation alone
        {"0c0241e2", Answer::refused},     // cut
        {"1e00", Answer::assured},         // BMPString
        {"1e020041", Answer::assured},     //
        {"1e0400416c00", Answer::assured}, //
        {"1e0400416c", Answer::refused},   // cut
        {"1e0141", Answer::refused},       //
        {"1e03004100", Answer::refused},   //
        {"1e02d7ff", Answer::assured},     //
        {"1e02d800", Answer::refused},     //
        {"1e040041d800", Answer::refused}, //
        {"1e02dfff", Answer::refused},     //
        {"1e02e000", Answer::assured},     //
        {"120139", Answer::assured},       // NumericString
        {"130141", Answer::assured},       // PrintableString
        {"1401e9", Answer::assured},       // TeletexString
        {"1601e9", Answer::assured},       // IA5String
        {"1c0400000041", Answer::left},    // UniversalString
        {"03020041", Answer::left},        // BIT STRING
        {"2c030c0141", Answer::left},      // in segments
        {"8c0141", Answer::refused},       // of another class
        {"ac030c0141", Answer::refused},   //
        {"020141", Answer::refused},       // no text
    };
    for (const auto& [text, answer] : rows) {
        EXPECT_EQ(with([&, value = text](Certificate& one) { one.subject = nameOf(fromHex(value)); }), answer) << text;
    }
}

TEST(Assured, Validities) {
    expectAll(&Certificate::validity, {{der::sequence({generalizedTime, generalizedTime}), Answer::assured},
                                       {der::sequence({utcTime, utcTime}), Answer::assured},
                                       {der::sequence({utcTime}), Answer::refused},
                                       {der::sequence({}), Answer::refused},
                                       {der::sequence({utcTime, utcTime, utcTime}), Answer::refused},
                                       {der::sequence({utcTime, der::integer("1")}), Answer::refused},
                                       {der::sequence({der::integer("1"), utcTime}), Answer::refused},
                                       {der::sequence({utcTime, tagged(0x37, utcTime)}), Answer::left},
                                       {der::set({utcTime, utcTime}), Answer::refused},
                                       {{}, Answer::refused}});
}

TEST(Assured, KeysAndSignatures) {
    const Rows bits{{fromHex("030100"), Answer::assured},   {fromHex("03020780"), Answer::assured},
                    {fromHex("03020001"), Answer::assured}, {fromHex("030107"), Answer::left},
                    {fromHex("03020880"), Answer::refused}, {fromHex("030108"), Answer::refused},
                    {fromHex("0300"), Answer::refused},     {fromHex("23040302000a"), Answer::left},
                    {fromHex("04020001"), Answer::refused}, {{}, Answer::refused}};
    expectAll(&Certificate::signature, bits);
    expectAll(&List::signature, bits);
    for (const auto& [value, answer] : bits) {
        EXPECT_EQ(with([&, one = value](Certificate& each) {
                      each.key = der::sequence({algorithm, one});
                  }),
                  answer)
            << norvauthority::toHex(value);
    }
    expectAll(&Certificate::key, {{der::sequence({someBits}), Answer::refused},
                                  {der::sequence({algorithm, someBits, someBits}), Answer::refused},
                                  {der::sequence({algorithm, algorithm}), Answer::refused},
                                  {der::set({algorithm, someBits}), Answer::refused},
                                  {{}, Answer::refused}});
    expectAll(&List::outer, {{der::null(), Answer::refused}, {{}, Answer::refused}});
}

TEST(Assured, Extensions) {
    const Bytes type = der::oid("1.2.3.4");
    const Bytes value = der::octetString({0x05, 0x00});
    const Rows rows{{der::sequence({extension}), Answer::assured},
                    {der::sequence({extension, extension}), Answer::assured},
                    {der::sequence({der::sequence({type, value})}), Answer::assured},
                    {der::sequence({der::sequence({type, fromHex("010105"), value})}), Answer::assured},
                    {der::sequence({}), Answer::left},
                    {der::set({extension}), Answer::refused},
                    {tagged(0x10, extension), Answer::left},
                    {der::sequence({der::set({type, value})}), Answer::refused},
                    {der::sequence({der::sequence({})}), Answer::refused},
                    {der::sequence({der::sequence({value})}), Answer::refused},
                    {der::sequence({der::sequence({value, value})}), Answer::refused},
                    {der::sequence({der::sequence({type})}), Answer::refused},
                    {der::sequence({der::sequence({type, critical})}), Answer::refused},
                    {der::sequence({der::sequence({type, fromHex("0100"), value})}), Answer::refused},
                    {der::sequence({der::sequence({type, fromHex("01020101"), value})}), Answer::refused},
                    {der::sequence({der::sequence({type, fromHex("2103010101"), value})}), Answer::refused},
                    {der::sequence({der::sequence({type, fromHex("2101ff"), value})}), Answer::refused},
                    {der::sequence({der::sequence({type, der::integer("1"), value})}), Answer::refused},
                    {der::sequence({der::sequence({type, critical, der::null()})}), Answer::refused},
                    {der::sequence({der::sequence({type, critical, value, value})}), Answer::refused},
                    {der::sequence({der::sequence({type, fromHex("2404040205 00")})}), Answer::left},
                    {der::sequence({extension, der::null()}), Answer::refused},
                    {der::null(), Answer::refused},
                    {{}, Answer::refused}};
    for (const auto& [extensions, answer] : rows) {
        EXPECT_EQ(with([&, one = extensions](Certificate& each) { each.extensions = tagged(0xA3, one); }), answer)
            << norvauthority::toHex(extensions);
        EXPECT_EQ(withList([&, one = extensions](List& each) { each.extensions = tagged(0xA0, one); }), answer)
            << norvauthority::toHex(extensions);
    }
    const Bytes sound = der::sequence({extension});
    const Bytes two = der::concat({sound, sound});
    expectAll(&Certificate::extensions, {{tagged(0xA4, sound), Answer::refused},
                                         {tagged(0xA3, two), Answer::refused},
                                         {tagged(0x83, sound), Answer::refused},
                                         {sound, Answer::refused},
                                         {der::concat({tagged(0xA3, sound), der::null()}), Answer::refused}});
    expectAll(&List::extensions, {{tagged(0xA1, sound), Answer::refused},
                                  {tagged(0xA0, two), Answer::refused},
                                  {der::concat({tagged(0xA0, sound), der::null()}), Answer::refused}});
}

TEST(Assured, TimesOfLists) {
    expectAll(&List::thisUpdate,
              {{generalizedTime, Answer::assured}, {{}, Answer::assured}, {der::integer("1"), Answer::refused}});
    expectAll(&List::nextUpdate, {{{}, Answer::assured},
                                  {utcTime, Answer::assured},
                                  {tagged(0x37, utcTime), Answer::left},
                                  {tagged(0x38, generalizedTime), Answer::left},
                                  {der::integer("1"), Answer::refused},
                                  {der::concat({utcTime, utcTime}), Answer::refused},
                                  {der::concat({utcTime, generalizedTime}), Answer::refused}});
    EXPECT_EQ(withList([](List& one) { one.thisUpdate = one.nextUpdate = {}; }), Answer::refused);
}

TEST(Assured, RevokedCertificates) {
    const Bytes serial = der::integer("a1");
    const Bytes extensions = der::sequence({extension});
    const Bytes sound = der::sequence({serial, utcTime});
    const auto of = [](const std::vector<Bytes>& parts) { return der::sequence({der::sequence(parts)}); };
    expectAll(&List::revoked, {{der::sequence({}), Answer::assured},
                               {of({serial, utcTime}), Answer::assured},
                               {of({serial, generalizedTime}), Answer::assured},
                               {of({serial, utcTime, extensions}), Answer::assured},
                               {der::sequence({sound, sound}), Answer::assured},
                               {of({fromHex("0202ff01"), utcTime}), Answer::left},
                               {of({serial, utcTime, der::sequence({})}), Answer::left},
                               {of({}), Answer::refused},
                               {of({serial}), Answer::refused},
                               {of({utcTime}), Answer::refused},
                               {of({utcTime, utcTime}), Answer::refused},
                               {of({serial, serial}), Answer::refused},
                               {of({serial, utcTime, der::null()}), Answer::refused},
                               {of({serial, utcTime, extensions, extensions}), Answer::refused},
                               {of({serial, utcTime, extensions, der::null()}), Answer::refused},
                               {der::sequence({sound, der::null()}), Answer::refused},
                               {der::sequence({der::set({serial, utcTime})}), Answer::refused},
                               {tagged(0x10, sound), Answer::left},
                               {tagged(0x10), Answer::left},
                               {der::set({sound}), Answer::refused}});
}
