// Controls of the fake device: the telephony library's radio, build-kind and
// fusing queries answer what a test sets, the vendor and product queries 0.
// The fusing inferences answer with what they are given, as a fusing-state
// code: the length of the serial number, or the certificate id.
#pragma once

#include <cstdint>

#include "platform/telephony/radios.h"

namespace kel::testing {

struct FakeDevice {
    uint32_t radio = 0;
    bool carrierBuild = true;
    bool internalBuild = false;
    bool fusingCertIDFromSerialNumber = false;
};

// Not synchronised: set it while no other thread asks.
FakeDevice& fakeDevice();

}  // namespace kel::testing
