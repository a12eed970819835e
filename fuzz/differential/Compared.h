#pragma once

/// \file
/// What the comparisons of both kinds of messages share: answers, sources, changes of the tree.

#include "Differential.h"

#include <norvcmsg/BytesInMemory.h>
#include <norvcmsg/Exception.h>
#include <norvcmsg/Media.h>

#include <openssl/bio.h>
#include <openssl/cms.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace fuzz {

struct OpensslFree {
    void operator()(BIO* bio) const noexcept { BIO_free_all(bio); }
    void operator()(CMS_ContentInfo* structure) const noexcept { CMS_ContentInfo_free(structure); }
};
using BioPtr = std::unique_ptr<BIO, OpensslFree>;
using CmsPtr = std::unique_ptr<CMS_ContentInfo, OpensslFree>;

/// What one of them said.
struct Answer {
    bool accepted = false;
    Bytes content{};
    std::size_t consumed = 0;
    std::string text{};  ///< of a refusal
    bool costly = false; ///< refused for what it would cost
    int reason = 0;      ///< of a signature that is not good

    [[nodiscard]] bool sameAs(const Answer& other) const {
        return accepted == other.accepted && (!accepted || (content == other.content && consumed == other.consumed));
    }
};

Bytes contentOf(BIO* memory);
/// Decodes; `consumed` becomes the length. The error queue is empty afterwards.
CmsPtr decoded(const Bytes& octets, std::size_t& consumed);

/// Has a reader read octets that lie in memory, and in pieces without an octet behind the structure; both must come to the
/// same. \param read answers what the reader said of a source, without `consumed`
Answer inBothWays(const Bytes& octets, const std::function<Answer(Norvane::MediaIn&)>& read, std::string& finding);

/// A change of a message in one respect; false when there is nothing of the kind.
struct Change {
    Outcome outcome;
    std::function<bool(Node&)> apply;
};

/// Tries the changes, each alone, then all together, then each two: the outcome of the one after which `holds` is true.
std::optional<Outcome> explain(const Bytes& octets, const std::vector<Change>& changes, Outcome several,
                               const std::function<bool(const Node&)>& holds);

// The changes that make what OpenSSL takes what X.690 says.

/// Elements of a kind that have another tag than the universal one.
using Tagged = std::vector<const Node*>;

bool retagSegments(Node& root, const Tagged& strings, bool ofTagZero);
/// \param sets those under another tag that may be empty
bool constructSets(Node& root, const Tagged& sets);
/// Joins the segments of strings.
bool joinSegments(Node& root, const Tagged& strings = {});
/// Empties what stands deeper than the readers go.
bool flatten(Node& root);
/// Brings attributes under an implicit tag, a set, into DER: lengths, tags, strings in one piece, the order.
bool encodeInDer(Node& attributes);

/// The content octets of an object identifier in digits.
Bytes identifierContent(const char* digits);
/// Whether the element there is that object identifier.
bool isIdentifier(const Node* node, const Bytes& content);

/// The element at these places, each within the one before; null when there is none.
Node* at(Node& root, std::initializer_list<std::size_t> path);

std::string described(const Answer& answer);
/// What is in OpenSSL's error queue, which is empty afterwards.
std::string opensslReasons();

} // namespace fuzz
