#pragma once

// A program that includes this starts the library before its first test.

#include <norvcrypto/Crypto.h>

#include <gtest/gtest.h>

namespace norvtest {

class Started : public testing::Environment {
public:
    void SetUp() override { Norvane::Crypto::initialize(); }
};
inline testing::Environment* const started = testing::AddGlobalTestEnvironment(new Started);

} // namespace norvtest
