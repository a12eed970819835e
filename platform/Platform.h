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
}
