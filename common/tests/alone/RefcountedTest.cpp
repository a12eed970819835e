#include <norvcmsg/Exception.h>
#include <norvcrypto/NorvRefcounted>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using Norvane::Exception;
using Norvane::makeReference;
using Norvane::NonCopyable;
using Norvane::Ref;
using Norvane::RefCounted;
using Norvane::RefImpl;

/// A body that tells when it goes.
struct Body : RefImpl {
    explicit Body(std::atomic<int>* destroyed = nullptr) : m_destroyed(destroyed) {}
    Body(const Body&) = default;
    Body& operator=(const Body&) = default;
    ~Body() override {
        if (m_destroyed != nullptr) {
            ++*m_destroyed;
        }
    }
    int value = 0;

private:
    std::atomic<int>* m_destroyed;
};

class Handle : public Ref<Body> {
public:
    Handle() = default;
    explicit Handle(RefCounted<Body>* reference) : Ref<Body>(reference) {}
    using Ref<Body>::bodyOrNull;
    using Ref<Body>::reference;
    using Ref<Body>::reset;
};

Handle handleOn(std::atomic<int>& destroyed) {
    return Handle(makeReference<Body>(&destroyed));
}

TEST(Ref, DefaultConstructedIsNull) {
    const Handle handle;
    EXPECT_TRUE(handle.isNull());
    EXPECT_FALSE(static_cast<bool>(handle));
    EXPECT_EQ(handle.reference(), nullptr);
    EXPECT_EQ(handle.bodyOrNull(), nullptr);
}

/// Checks what dereferencing a null handle throws.
template <class Act> void expectNullHandle(Act act, const std::string& where) {
    try {
        act();
        FAIL() << "nothing thrown";
    } catch (const Exception& failure) {
        EXPECT_EQ(failure.where(), where);
        EXPECT_EQ(failure.code(), 1);
        EXPECT_EQ(failure.fileName(), "include2/NorvRefcounted");
        EXPECT_GT(failure.lineNumber(), 0U);
        EXPECT_TRUE(failure.parameters().empty());
        EXPECT_FALSE(failure.hasCause());
    }
}

TEST(Ref, DereferencingANullHandleThrows) {
    Handle handle;
    expectNullHandle([&] { static_cast<void>(handle->value); }, "operator->");
    expectNullHandle([&] { static_cast<void>((*handle).value); }, "operator*");
    expectNullHandle([&] { static_cast<void>(std::as_const(handle)->value); }, "operator->");
    expectNullHandle([&] { static_cast<void>((*std::as_const(handle)).value); }, "operator*");
}

TEST(Ref, AConstHandleStillGivesItsBodyAway) {
    std::atomic<int> destroyed{0};
    const Handle handle = handleOn(destroyed);
    handle->value = 7;
    (*handle).value += 1;
    EXPECT_EQ(handle->value, 8);
}

TEST(Ref, CopyingANullHandleGivesANullHandle) {
    const Handle null;
    const Handle copy(null); // NOLINT(performance-unnecessary-copy-initialization): the copy is the test
    EXPECT_TRUE(copy.isNull());
}

TEST(Ref, AssigningANullHandleReleasesTheOldBody) {
    std::atomic<int> destroyed{0};
    Handle handle = handleOn(destroyed);
    handle = Handle();
    EXPECT_TRUE(handle.isNull());
    EXPECT_EQ(destroyed, 1);
}

TEST(Ref, AssigningAHandleToItselfLeavesTheCount) {
    std::atomic<int> destroyed{0};
    Handle handle = handleOn(destroyed);
    const auto& same = handle;
    handle = same;
    EXPECT_EQ(handle->referenceCount(), 1);
    EXPECT_EQ(destroyed, 0);
}

TEST(Ref, CopiesShareOneBodyThatGoesOnceWithTheLast) {
    std::atomic<int> destroyed{0};
    auto a = std::make_unique<Handle>(makeReference<Body>(&destroyed));
    auto b = std::make_unique<Handle>(*a);
    EXPECT_EQ((*a)->referenceCount(), 2);
    EXPECT_NE(a->reference(), b->reference()) << "each handle holds its own reference";
    (*b)->value = 7;
    EXPECT_EQ((*a)->value, 7);
    a.reset();
    EXPECT_EQ((*b)->referenceCount(), 1);
    EXPECT_EQ((*b)->value, 7);
    EXPECT_EQ(destroyed, 0);
    b.reset();
    EXPECT_EQ(destroyed, 1);
}

TEST(Ref, AssigningSharesAndReleases) {
    std::atomic<int> first{0};
    std::atomic<int> second{0};
    Handle a = handleOn(first);
    const Handle b = handleOn(second);
    a = b;
    EXPECT_EQ(first, 1);
    EXPECT_EQ(b->referenceCount(), 2);
    EXPECT_EQ(a.operator->(), b.operator->());
}

TEST(Ref, AHandleMayBeAssignedFromWhatOnlyItsOwnBodyHolds) {
    struct Node : RefImpl {
        Ref<Node> next;
    };
    Ref<Node> list(makeReference<Node>());
    list->next = Ref<Node>(makeReference<Node>());
    auto* second = list->next.operator->();
    list = list->next;
    EXPECT_EQ(list.operator->(), second);
    EXPECT_EQ(list->referenceCount(), 1);
}

TEST(Ref, AHandleOnANullBodyIsNotNull) {
    const Handle handle(std::make_unique<RefCounted<Body>>(nullptr, false).release());
    EXPECT_FALSE(handle.isNull());
    EXPECT_EQ(handle.operator->(), nullptr);
    const Handle copy(handle);
    EXPECT_FALSE(copy.isNull());
    EXPECT_EQ(copy.operator->(), nullptr);
    EXPECT_NE(copy.reference(), handle.reference());
    Handle assigned;
    assigned = handle;
    EXPECT_FALSE(assigned.isNull());
}

TEST(Ref, ResetReleasesAndTakesOver) {
    std::atomic<int> destroyed{0};
    Handle handle = handleOn(destroyed);
    handle.reset(makeReference<Body>(&destroyed));
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(handle->referenceCount(), 1);
    handle.reset(nullptr);
    EXPECT_TRUE(handle.isNull());
    EXPECT_EQ(destroyed, 2);
}

TEST(Ref, ADerivedBodyGoesWhole) {
    struct Derived : Body {
        explicit Derived(std::atomic<int>* destroyed, std::atomic<int>* own) : Body(destroyed), m_own(own) {}
        Derived(const Derived&) = delete;
        Derived& operator=(const Derived&) = delete;
        ~Derived() override { ++*m_own; }
        std::atomic<int>* m_own;
    };
    std::atomic<int> base{0};
    std::atomic<int> own{0};
    { const Handle handle(makeReference<Derived, Body>(&base, &own)); }
    EXPECT_EQ(base, 1);
    EXPECT_EQ(own, 1);
}

TEST(RefCounted, ANullBodyWithAReferenceThrows) {
    try {
        const RefCounted<Body> counted(nullptr, true);
        FAIL() << "nothing thrown";
    } catch (const Exception& failure) {
        EXPECT_EQ(failure.where(), "RefCounted constructor for RefImpl failed.");
        EXPECT_EQ(failure.code(), 4);
        EXPECT_EQ(failure.fileName(), "");
        EXPECT_EQ(failure.lineNumber(), 0U);
    }
}

TEST(RefCounted, ANullBodyWithoutAReferenceIsAllowed) {
    const RefCounted<Body> counted(nullptr, false);
    EXPECT_EQ(counted.body(), nullptr);
}

TEST(RefCounted, FalseTakesOverTheFirstReferenceTrueAddsOne) {
    std::atomic<int> destroyed{0};
    {
        const RefCounted<Body> first(std::make_unique<Body>(&destroyed).release(), false);
        EXPECT_EQ(first.body()->referenceCount(), 1);
        {
            const RefCounted<Body> second(first.body(), true);
            EXPECT_EQ(first.body()->referenceCount(), 2);
        }
        EXPECT_EQ(first.body()->referenceCount(), 1);
        EXPECT_EQ(destroyed, 0);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(RefCounted, EqualityIsIdentityOfTheBody) {
    const RefCounted<Body> first(std::make_unique<Body>().release(), false);
    const RefCounted<Body> same(first.body(), true);
    const RefCounted<Body> other(std::make_unique<Body>().release(), false);
    EXPECT_TRUE(first == same);
    EXPECT_FALSE(first == other);
    EXPECT_TRUE(RefCounted<Body>(nullptr, false) == RefCounted<Body>(nullptr, false));
}

TEST(RefCountedImplCopy, LeavesTheSamePointerAlone) {
    std::atomic<int> destroyed{0};
    auto* reference = makeReference<Body>(&destroyed);
    auto* destination = reference;
    Norvane::RefCountedImplCopy(destination, static_cast<const RefCounted<Body>*>(reference));
    EXPECT_EQ(destination, reference);
    EXPECT_EQ(reference->body()->referenceCount(), 1);
    const Handle owner(reference);
}

TEST(RefCountedImplCopy, ReplacesWhatWasThere) {
    std::atomic<int> old{0};
    std::atomic<int> fresh{0};
    auto* destination = makeReference<Body>(&old);
    const Handle source(makeReference<Body>(&fresh));
    Norvane::RefCountedImplCopy(destination, static_cast<const RefCounted<Body>*>(source.reference()));
    EXPECT_EQ(old, 1);
    ASSERT_NE(destination, nullptr);
    EXPECT_NE(destination, source.reference());
    EXPECT_TRUE(*destination == *source.reference());
    EXPECT_EQ(source->referenceCount(), 2);
    Norvane::RefCountedImplCopy(destination, static_cast<const RefCounted<Body>*>(nullptr));
    EXPECT_EQ(destination, nullptr);
    EXPECT_EQ(source->referenceCount(), 1);
}

TEST(RefImpl, ACopyStartsWithACountOfItsOwn) {
    const Body body;
    body.addReference();
    const Body copy(body);
    EXPECT_EQ(body.referenceCount(), 2);
    EXPECT_EQ(copy.referenceCount(), 1);
    Body assigned;
    assigned.addReference();
    assigned.addReference();
    assigned = body;
    EXPECT_EQ(assigned.referenceCount(), 3);
}

TEST(NonCopyable, CannotBeCopied) {
    struct Single : NonCopyable {};
    EXPECT_FALSE(std::is_copy_constructible_v<Single>);
    EXPECT_FALSE(std::is_copy_assignable_v<Single>);
    EXPECT_TRUE(std::is_default_constructible_v<Single>);
    EXPECT_TRUE(std::is_empty_v<Single>);
}

TEST(RefcountedConcurrency, OneBodyUnderCopiesFromSeveralThreadsGoesOnce) {
    std::atomic<int> destroyed{0};
    std::atomic<bool> start{false};
    std::vector<std::thread> threads;
    {
        const Handle shared = handleOn(destroyed);
        shared->value = 42;
        for (int t = 0; t < 8; ++t) {
            threads.emplace_back([handle = shared, &start] {
                while (!start) {
                    std::this_thread::yield();
                }
                std::vector<Handle> copies;
                for (int i = 0; i < 2000; ++i) {
                    copies.push_back(handle);
                    Handle assigned;
                    assigned = copies[static_cast<std::size_t>(i) / 2];
                    ASSERT_EQ(assigned->value, 42);
                    if (i % 100 == 99) {
                        copies.resize(copies.size() / 2);
                        i += 50;
                    }
                    if (copies.size() <= static_cast<std::size_t>(i) / 2) {
                        copies.resize(static_cast<std::size_t>(i) / 2 + 1, handle);
                    }
                }
            });
        }
        start = true;
    }
    for (auto& thread : threads) {
        thread.join();
    }
    threads.clear();
    EXPECT_EQ(destroyed, 1);
}

TEST(RefcountedConcurrency, TheLastOfManyThreadsDestroysWhatAllWrote) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> destroyed{0};
        std::vector<std::thread> threads;
        {
            const Handle shared = handleOn(destroyed);
            for (int t = 0; t < 4; ++t) {
                threads.emplace_back([handle = std::make_unique<Handle>(shared)]() mutable { handle.reset(); });
            }
        }
        for (auto& thread : threads) {
            thread.join();
        }
        ASSERT_EQ(destroyed, 1);
    }
}

} // namespace
