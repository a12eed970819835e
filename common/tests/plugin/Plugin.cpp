// A library that a program loads at run time: it throws, and makes bodies, across the border.

#include <norvcmsg/Exception.h>
#include <norvcmsg/Media.h>

#include <memory>
#include <typeinfo>

namespace {

/// A decorator that only this library knows.
class Upper : public Norvane::MediaOutDecoratorImpl {
public:
    using Norvane::MediaOutDecoratorImpl::MediaOutDecoratorImpl;
    using Norvane::MediaOutDecoratorImpl::write;
    void write(const unsigned char* data, unsigned int length) override {
        for (unsigned int i = 0; i < length; ++i) {
            const auto byte = static_cast<unsigned char>(data[i] & 0xDFU);
            target().write(&byte, 1);
        }
    }
};

} // namespace

#define PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

PLUGIN_EXPORT void pluginThrowMedia() {
    Norvane::MediaException failure("plugin", 4, "Plugin", 1);
    failure.stringParameter("from the plug-in");
    throw failure;
}

PLUGIN_EXPORT void pluginThrowSocket() {
    throw Norvane::SocketException("plugin", 4, "Plugin", 2);
}

PLUGIN_EXPORT Norvane::MediaOut* pluginDecorator() {
    return std::make_unique<Norvane::MediaOutDecorator>(Norvane::makeReference<Upper, Norvane::MediaOutImpl>())
        .release();
}

/// What this library sees of a stream that the program made: 1 a decorator, 2 another sink.
PLUGIN_EXPORT int pluginKindOf(const Norvane::MediaOut* out) {
    return dynamic_cast<const Norvane::MediaOutDecoratorImpl*>(out->operator->()) != nullptr ? 1 : 2;
}

/// The address by which this library tells a type.
PLUGIN_EXPORT const std::type_info* pluginTypeOfReference() {
    return &typeid(Norvane::RefCounted<Norvane::MediaOutImpl>);
}
