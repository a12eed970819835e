#include "front/Callbacks.h"

#include "front/Failure.h"
#include "front/Session.h"

#include <atomic>
#include <exception>
#include <memory>
#include <new>
#include <thread>

#include <openssl/crypto.h>

namespace norvmilter {

namespace {

std::atomic<Front*> theFront{nullptr};
std::atomic<int> threads{0};

/// A thread of libmilter's, which nobody joins: what OpenSSL holds for it goes before it is counted as ended.
class ThreadOfLibmilter {
public:
    ThreadOfLibmilter() noexcept { ++threads; }
    ~ThreadOfLibmilter() {
        OPENSSL_thread_stop();
        --threads;
    }
    ThreadOfLibmilter(const ThreadOfLibmilter&) = delete;
    ThreadOfLibmilter& operator=(const ThreadOfLibmilter&) = delete;
};

/// The session of a connection, which begins with the first callback and is libmilter's to keep.
Session& sessionOf(SMFICTX* context) {
    static thread_local const ThreadOfLibmilter thread;
    if (void* kept = smfi_getpriv(context))
        return *static_cast<Session*>(kept);
    Front& front = *theFront.load();
    auto session = std::make_unique<Session>(front, front.agreements().take(context));
    if (smfi_setpriv(context, session.get()) != MI_SUCCESS)
        throw std::bad_alloc();
    return *session.release();
}

/// In a `catch`.
void failed(SMFICTX* context) noexcept {
    void* kept = smfi_getpriv(context);
    if (kept == nullptr)
        return;
    auto* session = static_cast<Session*>(kept);
    // A part of the message is missing from here on, even where there is no memory for saying so.
    session->spoil();
    try {
        session->fail(currentFailure());
    } catch (const std::exception&) {
        return;
    }
}

/// No exception may get into libmilter. \param onFailure the answer when there was one
template <class Work> sfsistat guarded(SMFICTX* context, sfsistat onFailure, Work work) noexcept {
    try {
        return work(sessionOf(context));
    } catch (const std::exception&) {
        failed(context);
    }
    return onFailure;
}

sfsistat onNegotiate(SMFICTX* context, unsigned long actions, unsigned long steps, unsigned long /*unused*/,
                     unsigned long /*unused*/, unsigned long* wantedActions, unsigned long* wantedSteps,
                     unsigned long* reserved, unsigned long* alsoReserved) {
    return guarded(context, SMFIS_REJECT, [&](Session& session) {
        *reserved = 0;
        *alsoReserved = 0;
        if (session.negotiate(context, actions, steps, *wantedActions, *wantedSteps))
            return SMFIS_CONTINUE;
        theFront.load()->log().event(LogLevel::error, "mta-refused",
                                     {{"reason", "the MTA does not let header and body be changed"}});
        return SMFIS_REJECT;
    });
}

sfsistat onConnect(SMFICTX* context, char* /*hostname*/, sockaddr* client) {
    return guarded(context, SMFIS_TEMPFAIL, [&](Session& session) { return session.connect(context, client); });
}

sfsistat onSender(SMFICTX* context, char** arguments) {
    return guarded(context, SMFIS_TEMPFAIL, [&](Session& session) { return session.sender(context, arguments); });
}

sfsistat onRecipient(SMFICTX* context, char** arguments) {
    return guarded(context, SMFIS_TEMPFAIL, [&](Session& session) { return session.recipient(context, arguments); });
}

sfsistat onHeader(SMFICTX* context, char* name, char* value) {
    guarded(context, SMFIS_CONTINUE, [&](Session& session) {
        session.header(name, value);
        return SMFIS_CONTINUE;
    });
    const void* kept = smfi_getpriv(context);
    return kept == nullptr ? SMFIS_TEMPFAIL : static_cast<const Session*>(kept)->afterHeader();
}

sfsistat onBody(SMFICTX* context, unsigned char* octets, std::size_t length) {
    return guarded(context, SMFIS_CONTINUE, [&](Session& session) { return session.body(octets, length); });
}

sfsistat onEndOfMessage(SMFICTX* context) {
    return guarded(context, SMFIS_TEMPFAIL, [&](Session& session) { return session.endOfMessage(context); });
}

sfsistat onAbort(SMFICTX* context) {
    if (void* kept = smfi_getpriv(context))
        static_cast<Session*>(kept)->abort();
    return SMFIS_CONTINUE;
}

sfsistat onClose(SMFICTX* context) {
    const std::unique_ptr<Session> session(static_cast<Session*>(smfi_getpriv(context)));
    static_cast<void>(smfi_setpriv(context, nullptr));
    try {
        if (session)
            theFront.load()->agreements().keep(context, session->agreed());
    } catch (const std::exception&) {
        // No memory: the next session, if there is one, gets the least that can be agreed on.
        return SMFIS_CONTINUE;
    }
    return SMFIS_CONTINUE;
}

} // namespace

void awaitThreads(std::chrono::milliseconds most) {
    constexpr std::chrono::milliseconds pause(5);
    for (std::chrono::milliseconds waited{}; threads > 0 && waited < most; waited += pause)
        std::this_thread::sleep_for(pause);
}

smfiDesc callbacksFor(Front& front) {
    theFront = &front;
    static char name[] = "norvcrypt-milter";
    smfiDesc callbacks{};
    callbacks.xxfi_name = name;
    callbacks.xxfi_version = SMFI_VERSION;
    callbacks.xxfi_flags = SMFIF_ADDHDRS | SMFIF_CHGHDRS | SMFIF_CHGBODY;
    callbacks.xxfi_negotiate = onNegotiate;
    callbacks.xxfi_connect = onConnect;
    callbacks.xxfi_envfrom = onSender;
    callbacks.xxfi_envrcpt = onRecipient;
    callbacks.xxfi_header = onHeader;
    callbacks.xxfi_body = onBody;
    callbacks.xxfi_eom = onEndOfMessage;
    callbacks.xxfi_abort = onAbort;
    callbacks.xxfi_close = onClose;
    return callbacks;
}

} // namespace norvmilter
