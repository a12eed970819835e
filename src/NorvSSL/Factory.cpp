#include "failures/Raise.h"
#include "openssl/Tls.h"

#include <norvcrypto/NorvSSL.h>

#include <memory>
#include <optional>

namespace Norvane::Crypto::NVSSL {

namespace {

std::optional<openssl::Protocol> protocolOf(ContextFactory::Method method) {
    switch (method) {
    case ContextFactory::SSL_V2:
        return openssl::Protocol::ssl2;
    case ContextFactory::SSL_V3:
        return openssl::Protocol::ssl3;
    case ContextFactory::TLS_V1:
        return openssl::Protocol::tls1;
    case ContextFactory::SSL_V23:
        return openssl::Protocol::negotiated;
    }
    return std::nullopt;
}

} // namespace

ContextFactory::ContextFactory() = default;
ContextFactory::~ContextFactory() = default;

void ContextFactory::init() {
    SSL_library_init();
    SSL_load_error_strings();
}

RefContext ContextFactory::create(Method method, bool client) {
    const auto protocol = protocolOf(method);
    if (!protocol) {
        failures::raise(client ? failures::contextClientMethod : failures::contextServerMethod);
    }
    auto context = openssl::newSslContext(*protocol, client ? openssl::Side::client : openssl::Side::server);
    if (context == nullptr) {
        failures::raiseWithErrors(failures::contextNew);
    }
    if (protocol == openssl::Protocol::negotiated) {
        openssl::refuseOldVersions(context.get());
    }
    auto body = std::make_unique<Context>(context.get());
    static_cast<void>(context.release());
    return RefContext(body.release());
}

} // namespace Norvane::Crypto::NVSSL
