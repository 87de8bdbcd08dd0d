#pragma once

#include <cstdint>

#include "plist/value.h"

namespace tessary {

// Sleep-preventing assertions made from a property dictionary
// ("AssertType", "AssertLevel", "AssertName"). An id of 0 means none.
class PowerAssertionService {
  public:
    virtual ~PowerAssertionService() = default;
    virtual int createAssertion(const plist::Value& properties, std::uint32_t& id) = 0;
    virtual int releaseAssertion(std::uint32_t id) = 0;
};

}  // namespace tessary
