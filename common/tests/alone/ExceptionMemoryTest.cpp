// Exceptions that are changed and chained where there is no memory.

#include "support/Allocations.h"

#include <norvcmsg/Exception.h>

#include <gtest/gtest.h>

#include <new>
#include <string>

namespace {

using Norvane::Exception;

const std::string s_long(100, 'x'); // no text that lies within its object

int s_left = -1; // how many allocations succeed before one does not; negative: all do

void failWhenNoneIsLeft(std::size_t /*length*/) {
    if (s_left >= 0 && s_left-- == 0) {
        throw std::bad_alloc();
    }
}

/// Changes a copy with each allocation of that failing in turn: it must stay as it was. How many there were.
template <class Change> int failEach(const Exception& failure, Change change) {
    const std::string before = failure.asString();
    int failed = 0;
    for (bool came = true; came; failed += came ? 1 : 0) {
        Exception changed = failure;
        norvtest::s_beforeAllocation = failWhenNoneIsLeft;
        s_left = failed;
        try {
            change(changed);
            came = false;
        } catch (const std::bad_alloc&) {
            EXPECT_EQ(changed.asString(), before);
        }
        s_left = -1;
        norvtest::s_beforeAllocation = nullptr;
    }
    EXPECT_EQ(failure.asString(), before);
    return failed;
}

TEST(ExceptionWithoutMemory, WhatCannotBeAddedLeavesItAsItWas) {
    Exception failure("Somewhere::call", 4, "Somewhere", 12);
    failure.stringParameter(s_long).intParameter(7).stringParameter(s_long);
    EXPECT_GT(failEach(failure, [](Exception& changed) { changed.intParameter(8); }), 3);
    EXPECT_GT(failEach(failure, [](Exception& changed) { changed.stringParameter(s_long); }), 3);
}

TEST(ExceptionWithoutMemory, CausesThatCannotBeAddedLeaveItAsItWas) {
    Exception failure("Somewhere::call", 4, "Somewhere", 12);
    failure.stringParameter(s_long);
    Exception cause("Elsewhere", 1, nullptr, 0);
    cause.stringParameter(s_long);
    failure.cause(cause);
    EXPECT_GT(failEach(failure, [&](Exception& changed) { changed.cause(cause); }), 3);
}

} // namespace
