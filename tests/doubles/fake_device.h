// Controls of the fake device: the telephony library's radio, build-kind and
// fusing queries answer what a test sets, count how often the radio and the
// internal build are asked for, and record what the fusing inference got.
#pragma once

#include <cstdint>
#include <string>

#include "platform/telephony/radios.h"

namespace kel::testing {

struct FakeDevice {
    uint32_t radio = 0;
    uint32_t vendor = 0;
    uint32_t product = 0;
    bool carrierBuild = true;
    bool internalBuild = false;
    bool fusingCertIDFromSerialNumber = false;
    int radioQueries = 0;
    int internalQueries = 0;
    std::string lastSerialNumber;
    uint32_t lastCertificateId = 0;
};

// Not synchronised: set it while no other thread asks.
FakeDevice& fakeDevice();

// What every fusing inference of the fake answers.
inline constexpr lum::RadioFusingState kFakeFusingState = lum::RadioFusingState::kFused;

}  // namespace kel::testing
