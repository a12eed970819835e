#include <norvcmsg/Sleep.h>

#include <chrono>
#include <thread>

namespace Norvane {

void pause(unsigned int seconds, unsigned int milliseconds) {
    std::this_thread::sleep_for(std::chrono::seconds(seconds) + std::chrono::milliseconds(milliseconds));
}

} // namespace Norvane
