// Types are one across libraries, one that is loaded at run time included: casts and handlers see through the border.

#include <norvcmsg/Exception.h>
#include <norvcmsg/Logger.h>
#include <norvcmsg/Media.h>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <typeinfo>

namespace {

using Norvane::MediaOut;
using Norvane::MediaOutDecorator;
using Norvane::MediaOutDecoratorImpl;
using Norvane::MediaOutImpl;
using Norvane::MemoryMediaOut;
using Norvane::RefCounted;

class Typeinfo : public testing::Test {
protected:
    void SetUp() override {
        m_library.reset(::dlopen(NORV_TEST_PLUGIN, RTLD_NOW | RTLD_LOCAL));
        ASSERT_NE(m_library, nullptr) << ::dlerror();
    }

    template <class Function> Function function(const char* name) {
        auto* const address = ::dlsym(m_library.get(), name);
        EXPECT_NE(address, nullptr) << name;
        return reinterpret_cast<Function>(address);
    }

private:
    struct Close {
        void operator()(void* library) const { ::dlclose(library); }
    };
    std::unique_ptr<void, Close> m_library;
};

TEST_F(Typeinfo, ExceptionsAreCaughtByTheirTypeAcrossTheBorder) {
    try {
        function<void (*)()>("pluginThrowMedia")();
        FAIL() << "nothing thrown";
    } catch (const Norvane::SocketException&) {
        FAIL() << "caught as another type";
    } catch (const Norvane::MediaException& failure) {
        EXPECT_EQ(failure.asString(), "plugin (code 4, Plugin:1): from the plug-in");
    }
    EXPECT_THROW(function<void (*)()>("pluginThrowSocket")(), Norvane::SocketException);
    EXPECT_THROW(function<void (*)()>("pluginThrowSocket")(), Norvane::Exception);
}

TEST_F(Typeinfo, BodiesOfAnotherLibraryAreWhatTheyAre) {
    const std::unique_ptr<MediaOut> out(function<MediaOut* (*)()>("pluginDecorator")());
    auto* decorator = dynamic_cast<MediaOutDecorator*>(out.get());
    ASSERT_NE(decorator, nullptr);
    EXPECT_NE(dynamic_cast<MediaOutDecoratorImpl*>(&**out), nullptr);
    const MemoryMediaOut target;
    decorator->attach(target);
    decorator->write(reinterpret_cast<const unsigned char*>("abc"), 3);
    decorator->end();
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(target.content().data()), target.content().length()), "ABC");
    EXPECT_TRUE(target.ended());
}

TEST_F(Typeinfo, BodiesOfThisProgramAreKnownToTheOtherLibrary) {
    const auto kindOf = function<int (*)(const MediaOut*)>("pluginKindOf");
    const MediaOutDecorator decorator(Norvane::makeReference<MediaOutDecoratorImpl, MediaOutImpl>());
    const MemoryMediaOut memory;
    EXPECT_EQ(kindOf(&decorator), 1);
    EXPECT_EQ(kindOf(&memory), 2);
}

TEST_F(Typeinfo, HandleTemplatesHaveOneTypeInAllLibraries) {
    const auto* theirs = function<const std::type_info* (*)()>("pluginTypeOfReference")();
    EXPECT_EQ(theirs, &typeid(RefCounted<MediaOutImpl>)) << "the very same object";
}

} // namespace
