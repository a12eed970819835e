#include <norvcrypto-smime/SMimeReader.h>

namespace Norvane::Crypto::SMime {

Answer read(const MediaIn& /*message*/, MediaOut& /*content*/, const ReadOptions& /*options*/) {
    return {};
}

} // namespace Norvane::Crypto::SMime
