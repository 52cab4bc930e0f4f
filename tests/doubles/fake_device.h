// Controls of the fake device: the telephony library's radio, build-kind and
// fusing queries answering what a test sets, counting how often they are
// asked and recording what the fusing inference was given.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/telephony/radios.h"

namespace kel::testing {

struct FakeDevice {
    std::atomic<uint32_t> radio{0};
    std::atomic<uint32_t> vendor{0};
    std::atomic<uint32_t> product{0};
    std::atomic<bool> carrierBuild{true};
    std::atomic<bool> internalBuild{false};
    std::atomic<bool> fusingCertIDFromSerialNumber{false};

    std::atomic<int> radioQueries{0};
    std::atomic<int> internalQueries{0};
    std::string lastSerialNumber;  // as the serial-number inference got it
    uint32_t lastCertificateId = 0;
};

FakeDevice& fakeDevice();

// The state every fusing inference of the fake answers.
inline constexpr lum::RadioFusingState kFakeFusingState = lum::RadioFusingState::kFused;

}  // namespace kel::testing
