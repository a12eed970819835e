#include <norvcmsg/Media.h>

#include "MediaFailure.h"

namespace Norvane {

namespace {

MediaOutDecoratorImpl& decoratorOf(MediaOutImpl* body) {
    auto* decorator = dynamic_cast<MediaOutDecoratorImpl*>(body);
    if (decorator == nullptr) {
        throw MediaException("MediaException", 1, "MediaOutDecorator", __LINE__);
    }
    return *decorator;
}

} // namespace

MediaOutDecoratorImpl::MediaOutDecoratorImpl() = default;

MediaOutDecoratorImpl::MediaOutDecoratorImpl(const MediaOut& target) : m_target(target) {}

MediaOutDecoratorImpl::~MediaOutDecoratorImpl() = default;

void MediaOutDecoratorImpl::write(const unsigned char* data, unsigned int length) {
    m_target.write(data, length);
}

void MediaOutDecoratorImpl::end() {
    m_target.end();
}

void MediaOutDecoratorImpl::characterSet(const std::string& name) {
    m_target.characterSet(name);
}

void MediaOutDecoratorImpl::attach(const MediaOut& target) {
    m_target = target;
}

void MediaOutDecoratorImpl::detach() {
    m_target = MediaOut();
}

MediaOutDecorator::MediaOutDecorator() = default;

MediaOutDecorator::MediaOutDecorator(RefCounted<MediaOutImpl>* reference) : MediaOut(reference) {}

MediaOutDecorator::MediaOutDecorator(const MediaOutDecorator& other) = default;

MediaOutDecorator& MediaOutDecorator::operator=(const MediaOutDecorator& other) = default;

MediaOutDecorator::~MediaOutDecorator() = default;

void MediaOutDecorator::attach(const MediaOut& target) {
    auto& decorator = decoratorOf(bodyOrNull());
    if (!target.isNull() && target.operator->() == bodyOrNull()) {
        detail::throwMedia("MediaOutDecorator::attach", "MediaOutDecorator", "a decorator cannot be its own target");
    }
    decorator.attach(target);
}

void MediaOutDecorator::detach() {
    decoratorOf(bodyOrNull()).detach();
}

} // namespace Norvane
