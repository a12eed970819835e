#include <norvcrypto/NorvRefcounted>

namespace Norvane {

RefImpl::RefImpl() noexcept = default;

RefImpl::RefImpl(const RefImpl& /*other*/) noexcept {}

RefImpl& RefImpl::operator=(const RefImpl& /*other*/) noexcept {
    return *this;
}

RefImpl::~RefImpl() = default;

} // namespace Norvane
