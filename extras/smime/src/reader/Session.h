#pragma once

/// \file
/// What the reading of one message shares on its way through the layers.

#include "mime/Header.h"
#include "mime/Multipart.h"
#include "mime/Octets.h"
#include "mime/Values.h"

#include <norvcmsg/SwapBufferMediaOut.h>
#include <norvcrypto-smime/SMimeReader.h>

#include <cstdint>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Norvane::Crypto::SMime {

/// What becomes of the entity that is looked at.
enum class Role : int {
    candidate, ///< the first layer that is met is that of the content
    main,      ///< within the layers of the content
    passing,   ///< looked at, and that is all
};

/// What lies there is told with something around it: within the content, or a layer that is looked at in passing.
inline constexpr std::size_t passedBy = SIZE_MAX;

/// Where an entity lies.
struct Place {
    std::string path = "1";
    std::size_t depth = 0;
    Role role = Role::candidate;
    std::size_t layers = 0;  ///< those of the content that it lies within, whether good or not; `passedBy` in others
    bool isWrapped = false;  ///< the message that a layer holds as a message/rfc822
    bool isOfDigest = false; ///< a part of a multipart/digest: what has no type is a message (RFC 2046, 5.1.5)
    bool isKept =
        false; ///< what lies here is handed on by the encrypted layer around it (`ReadOptions::keepSignatures`)
    bool isOfContent = false; ///< what is handed on, or a part of it that is no layer and in no message within it
    std::size_t message = 0;  ///< whose header fields tell the sender, an index into `Session::senders`

    /// A part of it.
    [[nodiscard]] Place part(std::size_t number) const {
        Place inner = *this;
        inner.path += '.' + std::to_string(number);
        ++inner.depth;
        inner.isWrapped = false;
        inner.isOfDigest = false;
        return inner;
    }
    /// What the layer at this place holds.
    [[nodiscard]] Place payload(Role newRole) const {
        Place inner = part(1);
        inner.role = newRole;
        inner.layers = newRole == Role::main && layers != passedBy ? layers + 1 : passedBy;
        inner.isOfContent = false;
        return inner;
    }
};

/// Who sent a message, as its header says.
struct Senders {
    std::vector<std::string> from;
    std::vector<std::string> sender;
};

/// The state of one `read`.
class Session {
public:
    Session(const ReadOptions& theOptions, const MediaOut& theContent);

    const ReadOptions& options;
    Answer answer;
    MediaOut content;   ///< guarded
    mime::Header outer; ///< of the message itself
    std::vector<Senders> senders;
    std::vector<std::size_t> messageOfLayer; ///< beside `answer.layers`
    /// What is shown to readers although it lies beside the content, with the layers that it lies within.
    std::vector<std::pair<std::size_t, UncoveredPart>> uncovered;
    Senders protectedSenders; ///< those that the layers of the content cover, each address of From once
    bool isTaken = false;     ///< there is a layer of the content
    std::optional<std::pair<LayerStatus, std::string>> failure; ///< of what lies within the layers of the content
    /// Why a reader of the message may see another one than this, with the layers that this lies within. One of each number.
    std::map<std::size_t, std::string> ambiguities;
    std::size_t parts = 0;
    bool isListFull = false; ///< which was told
    std::size_t structures = 0;
    std::size_t judgedByTrust = 0;
    std::size_t passwordTries = 0;
    std::uint64_t comparisons = 0; ///< of names of signers with the caller's certificates
    bool isExplained = false;      ///< why a signature is refused was asked
    /// With `ReadOptions::keepSignatures`: the header of the content, whose fields are told with the entity around it.
    mime::Header contentHeader;

    /// Runs what belongs to the caller: what it throws is for him, whatever layers it passes.
    template <class Work> auto outside(Work work) -> decltype(work()) {
        try {
            return work();
        } catch (...) {
            m_thrown = std::current_exception();
            throw;
        }
    }
    /// To be called in front of each handler's own work, with what it caught.
    void rethrowOutside(const Exception& caught) const {
        if (m_thrown)
            std::rethrow_exception(m_thrown);
        // Of a file without a name that a reader of CMS keeps a content in: no message brings that about.
        if (dynamic_cast<const MediaException*>(&caught) != nullptr)
            throw;
    }

    /// \returns its index; references into the layers do not last
    std::size_t addLayer(LayerKind kind, const Place& place);
    Layer& layer(std::size_t index) { return answer.layers[index]; }
    /// The content lies within this layer from now on, if it is the first.
    Role take(std::size_t layer, const Place& place);
    /// Tells of a part that is shown to readers beside the content. Which layers cover it counts in the end: anybody can put
    /// one around what another one signed.
    void addUncovered(const Place& place, const std::string& type);
    void addOddity(const Place& place, const std::string& text);
    /// Why a reader of the message may see another one; nothing where that is looked at in passing.
    void addAmbiguity(const Place& place, const std::string& text);
    /// To be called when the first part of a multipart was reached.
    void lookAtPreamble(const Place& place, const mime::Multipart& multipart);
    /// To be called behind the last one: takes the epilogue.
    void lookBehind(const Place& place, mime::Multipart& multipart);
    /// Senders that a header within the layers of the content names.
    void addProtected(Senders&& found);
    /// Something within the layers of the content that cannot be read on.
    void fail(const Place& place, LayerStatus status, const std::string& text);
    [[nodiscard]] std::string spillTemplate() const;
    /// A place for bytes that are read again.
    [[nodiscard]] SwapBufferMediaOut spill() const;
    /// Counts octets that are kept. False beyond the budget.
    [[nodiscard]] bool mayKeep(std::uint64_t octets);

private:
    std::exception_ptr m_thrown;
    std::uint64_t m_kept = 0;
};

/// A source of the caller's, guarded.
[[nodiscard]] MediaIn guarded(Session& session, const MediaIn& in);

// The layers. Each takes what it needs of `body`; what is left is taken by the caller.

/// An entity from its header on.
void readEntity(Session& session, const mime::SharedOctets& in, const Place& place);
/// The body of an entity whose header was taken.
void readBody(Session& session, const mime::Header& header, const mime::ContentType& type,
              const mime::SharedOctets& body, const Place& place);
/// multipart/signed.
void readMultipartSigned(Session& session, const mime::Header& header, const mime::ContentType& type,
                         const mime::SharedOctets& body, const Place& place);
/// Has a multipart looked through for what is the start of a part to those who read its header in another way.
void seekOtherParts(mime::Multipart& parts, const mime::Header& header, const mime::ContentType& type);
/// A CMS structure as the body of an entity.
void readStructure(Session& session, const mime::ContentType& type, mime::Transfer transfer,
                   const mime::SharedOctets& body, const Place& place);

/// What a failure of a reader of CMS means.
void tellFailure(Layer& layer, const Exception& failure);
/// Hands an entity on as the content, looking at its parts meanwhile.
void deliver(Session& session, const mime::Header& header, const mime::ContentType& type,
             const mime::SharedOctets& body, const Place& place);
/// Whether an entity is a CMS structure, by its type or its file name.
[[nodiscard]] bool isStructure(const mime::ContentType& type, const std::string& fileName);
/// Whether it is a detached signature.
[[nodiscard]] bool isSignature(const mime::ContentType& type, const std::string& fileName);
/// The body of an entity that is a structure, without its encoding: that which it names, or that which it has.
[[nodiscard]] mime::SharedOctets structureOctets(const mime::SharedOctets& body, mime::Transfer transfer);

/// Hands on the header that stands in front of the content.
/// \param covered the header of the content, whose fields are protected as the scheme says
/// \param entity  that of the entity that is handed on
void writeHeader(Session& session, const mime::Header& covered, HeaderScheme scheme, const mime::Header& entity);
/// Who a header says is the sender.
[[nodiscard]] Senders sendersIn(const mime::Header& header);
/// Compares the fields of the content's header with those outside.
[[nodiscard]] HeaderProtection compareHeaders(const mime::Header& inner, HeaderScheme scheme,
                                              const mime::Header& outer);
/// A line of a header that others may take for what changes the message; empty when there is none.
[[nodiscard]] std::string ambiguousLineIn(const mime::Header& header);
/// Whether a field belongs to the structure of an entity: Content-*, MIME-Version.
[[nodiscard]] bool isStructural(std::string_view name);

/// Reaches the verdict.
void conclude(Session& session);

} // namespace Norvane::Crypto::SMime
