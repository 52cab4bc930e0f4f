// What radio this device has, and its fusing state, from the telephony
// utility library.
//
// On Linux the answers come from the device description: a read-only JSON
// file at a path fixed when the library is built (the CMake cache variable
// KEL_DEVICE_DESCRIPTION_PATH, /etc/kel/device.json unless set otherwise), or
// at the path in the environment variable KEL_DEVICE_DESCRIPTION when that is
// set and not empty (tests, instances side by side). The file is read once per
// process, at the first query. Its members, each optional:
//
//   "radio", "vendor", "product"     whole numbers within 32 bits; default 0
//   "carrierBuild"                   boolean; default true
//   "internalBuild"                  boolean; default false
//   "fusingCertIDFromSerialNumber"   boolean; default false
//   "preValidationCertID"            whole number within 32 bits; default none
//
// A member that is absent or of the wrong type takes its default, and so does
// every member when the file is missing or broken: out of the box this is a
// carrier build that is not an internal build.
#pragma once

#include <cstdint>
#include <string>

#include "platform/telephony/build_kind.h"

extern "C" {

// The radio's code.
uint32_t TelephonyRadiosGetRadio();

// The radio vendor's code.
uint32_t TelephonyRadiosGetRadioVendor();

// The product's code.
uint32_t TelephonyRadiosGetProduct();

// Whether this radio's fusing certificate id is derived from its serial
// number, so that the fusing state is inferred from the serial number.
bool TelephonyCapabilitiesRadioFusingCertIDFromSerialNumber();

}  // extern "C"

namespace lum {

// The radio's fusing state. Codes other than these three are unknown states
// and are passed through as they are.
enum class RadioFusingState : uint32_t {
    kUnFused = 1,
    kFusedPreValidation = 2,
    kFused = 3,
};

// From the serial number's bytes (zero bytes included): an empty serial
// number is unknown (0), one of zero bytes only (a part never programmed) is
// un-fused, any other is fused.
RadioFusingState TelephonyUtilRadioFusingInferFusingStateFromSerialNumber(
    const std::string& serialNumber);

// From the certificate id: 0 is un-fused, the description's
// "preValidationCertID" is fused before validation, any other is fused.
RadioFusingState TelephonyUtilRadioFusingInferFusingStateFromCertID(uint32_t certificateId);

}  // namespace lum
