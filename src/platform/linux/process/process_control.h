#pragma once

#include "platform/process_control.h"

namespace tessary::linux_backend {

class RealProcessControl final : public ProcessControl {
  public:
    [[noreturn]] void exit(int status) override;
    void sleepFor(std::chrono::milliseconds duration) override;
};

}  // namespace tessary::linux_backend
