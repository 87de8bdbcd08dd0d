#include "platform/linux/process/process_control.h"

#include <cstdio>
#include <cstdlib>
#include <thread>

namespace tessary::linux_backend {

void RealProcessControl::exit(int status) {
    (void)std::fflush(nullptr);
    std::_Exit(status);  // no static destructors: other objects may still be in use
}

void RealProcessControl::sleepFor(std::chrono::milliseconds duration) {
    std::this_thread::sleep_for(duration);
}

}  // namespace tessary::linux_backend
