#pragma once

/// \file
/// The functions that the appliance's OpenSSL build adds to the stock interface. They have C linkage and can be
/// replaced at link time: a program that defines its own gets its own.

struct rsa_st;

extern "C" {

/// Starts the crypto library and its random-number generator. Loads the default and the legacy provider into OpenSSL's
/// default library context, which changes the whole host process. Returns 1, or 0 when a provider could not be loaded.
__attribute__((visibility("default"))) int openssl_init_with_rng();

/// Checks that a generated pair belongs together: what its private half signs, its public half verifies. Returns 1 when
/// it does, 0 when it does not or when `rsa` is null.
__attribute__((visibility("default"))) int fips_rsa_consistency_test(rsa_st* rsa);

/// The options of SSL_CTX_set_options that turn protocol versions off in the appliance-wide TLS context. Our own turns
/// off SSL 2, SSL 3, TLS 1.0 and TLS 1.1.
__attribute__((visibility("default"))) unsigned long ssl_version_options();
}
