#include <norvcmsg/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace {

using Norvane::Exception;
using Norvane::MediaException;
using Norvane::SocketException;
using testing::HasSubstr;
using testing::Not;

TEST(Exception, KeepsWhatItIsBuiltFrom) {
    const Exception failure("Crypto::MemoryBIO", 4, "BIO", 57);
    EXPECT_EQ(failure.where(), "Crypto::MemoryBIO");
    EXPECT_EQ(failure.code(), 4);
    EXPECT_EQ(failure.fileName(), "BIO");
    EXPECT_EQ(failure.lineNumber(), 57U);
    EXPECT_TRUE(failure.parameters().empty());
    EXPECT_FALSE(failure.hasCause());
    EXPECT_EQ(failure.cause(), nullptr);
}

TEST(Exception, ANullFileIsTheEmptyText) {
    const Exception failure("somewhere", 4, nullptr, 0);
    EXPECT_EQ(failure.fileName(), "");
    EXPECT_EQ(failure.lineNumber(), 0U);
    EXPECT_EQ(failure.asString(), "somewhere (code 4)");
}

TEST(Exception, ALineWithoutAFileIsTold) {
    EXPECT_EQ(Exception("somewhere", -1, nullptr, 9).asString(), "somewhere (code -1, line 9)");
}

TEST(Exception, KeepsParametersInTheirOrder) {
    Exception failure("where", 4, "File", 1);
    failure.stringParameter("first").intParameter(-2).stringParameter("third");
    ASSERT_EQ(failure.parameters().size(), 3U);
    EXPECT_EQ(std::get<std::string>(failure.parameters()[0]), "first");
    EXPECT_EQ(std::get<int>(failure.parameters()[1]), -2);
    EXPECT_EQ(std::get<std::string>(failure.parameters()[2]), "third");
    EXPECT_EQ(failure.asString(), "where (code 4, File:1): first, -2, third");
}

TEST(Exception, KeepsTheBytesOfAParameter) {
    Exception failure("where", 4, "File", 1);
    const std::string bytes("a\0\n\xFF", 4);
    failure.stringParameter(bytes);
    EXPECT_EQ(std::get<std::string>(failure.parameters()[0]), bytes);
}

TEST(Exception, TellsItsChainOfCauses) {
    Exception root("root", 1, "include2/NorvRefcounted", 12);
    Exception middle("middle", 4, "Media", 34);
    middle.stringParameter("detail").cause(root);
    Exception top("top", 4, "CMS", 56);
    top.cause(middle);
    ASSERT_TRUE(top.hasCause());
    EXPECT_EQ(top.cause()->where(), "middle");
    ASSERT_TRUE(top.cause()->hasCause());
    EXPECT_EQ(top.cause()->cause()->where(), "root");
    EXPECT_FALSE(top.cause()->cause()->hasCause());
    EXPECT_EQ(top.asString(), "top (code 4, CMS:56); caused by: middle (code 4, Media:34): detail; "
                              "caused by: root (code 1, include2/NorvRefcounted:12)");
}

TEST(Exception, ALaterCauseReplacesTheEarlierOne) {
    Exception failure("where", 4, "File", 1);
    failure.cause(Exception("first", 1, nullptr, 0)).cause(Exception("second", 2, nullptr, 0));
    EXPECT_EQ(failure.cause()->where(), "second");
    EXPECT_FALSE(failure.cause()->hasCause());
}

TEST(Exception, CanBeItsOwnCause) {
    Exception failure("where", 4, "File", 1);
    failure.cause(failure);
    ASSERT_TRUE(failure.hasCause());
    EXPECT_EQ(failure.cause()->where(), "where");
    EXPECT_FALSE(failure.cause()->hasCause());
}

TEST(Exception, ACauseIsIndependentOfWhatItWasMadeFrom) {
    Exception reason("reason", 1, nullptr, 0);
    Exception failure("where", 4, "File", 1);
    failure.cause(reason);
    reason.stringParameter("later");
    EXPECT_TRUE(failure.cause()->parameters().empty());
}

TEST(Exception, BytesOfAMessageCannotForgeALine) {
    Exception failure("where\r\n", 4, "Fi\nle", 1);
    failure.stringParameter("a\nb\x01\x1B[2J\x7F\xC2\x85\xE2\x80\xA8\xE2\x80\xAE\xFF end");
    EXPECT_EQ(failure.asString(),
              R"(where\x0D\x0A (code 4, Fi\x0Ale:1): a\x0Ab\x01\x1B[2J\x7F\xC2\x85\xE2\x80\xA8\xE2\x80\xAE\xFF end)");
}

TEST(Exception, WhatIsTheSameText) {
    Exception failure("where", 4, "File", 1);
    failure.stringParameter("detail");
    EXPECT_STREQ(failure.what(), "where (code 4, File:1): detail");
}

TEST(Exception, ADeepChainNeitherOverflowsTheStackNorTheLine) {
    Exception chain("level 0", 4, "File", 1);
    for (int i = 1; i <= 100'000; ++i) {
        Exception next("level " + std::to_string(i), 4, "File", 1);
        next.cause(chain);
        chain = next;
    }
    const auto text = chain.asString();
    EXPECT_THAT(text, testing::StartsWith("level 100000 (code 4, File:1); caused by: level 99999 "));
    EXPECT_THAT(text, testing::EndsWith("caused by: level 99968 (code 4, File:1); and 99968 more"));
    EXPECT_LT(text.size(), 2000U);
}

TEST(Exception, ACopyIsIndependent) {
    Exception original("where", 4, "File", 1);
    original.stringParameter("both");
    Exception copy(original);
    original.stringParameter("original");
    copy.intParameter(1);
    EXPECT_EQ(original.asString(), "where (code 4, File:1): both, original");
    EXPECT_EQ(copy.asString(), "where (code 4, File:1): both, 1");
    copy = original;
    EXPECT_EQ(copy.asString(), "where (code 4, File:1): both, original");
    const auto& same = copy;
    copy = same;
    EXPECT_EQ(copy.asString(), "where (code 4, File:1): both, original");
}

TEST(Exception, CopyingNeverThrows) {
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<Exception>);
    EXPECT_TRUE(std::is_nothrow_copy_assignable_v<Exception>);
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<MediaException>);
    EXPECT_TRUE(std::is_nothrow_copy_constructible_v<SocketException>);
}

template <class E> class ExceptionKinds : public testing::Test {};
using Kinds = testing::Types<MediaException, SocketException>;
TYPED_TEST_SUITE(ExceptionKinds, Kinds);

TYPED_TEST(ExceptionKinds, IsCaughtAsItselfAndAsItsBases) {
    const auto raise = [] {
        TypeParam failure("where", 1, "File", 2);
        failure.stringParameter("detail");
        throw failure;
    };
    EXPECT_THROW(raise(), TypeParam);
    EXPECT_THROW(raise(), Exception);
    try {
        raise();
        FAIL() << "nothing thrown";
    } catch (const std::exception& caught) {
        EXPECT_STREQ(caught.what(), "where (code 1, File:2): detail");
    }
}

TEST(Exception, KindsAreNotEachOther) {
    EXPECT_FALSE((std::is_base_of_v<MediaException, SocketException>));
    EXPECT_FALSE((std::is_base_of_v<SocketException, MediaException>));
}

TEST(ExceptionConcurrency, CopiesAreSharedBetweenThreads) {
    Exception root("root", 1, nullptr, 0);
    Exception failure("where", 4, "File", 1);
    failure.cause(root);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([copy = failure, t]() mutable {
            for (int i = 0; i < 500; ++i) {
                Exception mine(copy);
                mine.intParameter(t);
                EXPECT_STREQ(copy.what(), "where (code 4, File:1); caused by: root (code 1)");
                copy = Exception(copy);
                EXPECT_THAT(mine.asString(), HasSubstr(": " + std::to_string(t) + ";"));
            }
        });
    }
    failure = Exception("other", 1, nullptr, 0);
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_THAT(failure.asString(), Not(HasSubstr("caused by")));
}

} // namespace
