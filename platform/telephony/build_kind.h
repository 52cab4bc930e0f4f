// What kind of software build this device runs, from the telephony utility
// library. Both answers come from the device description (see
// platform/telephony) and do not change while a process runs.
#pragma once

extern "C" {

// Whether this is a carrier build.
bool TelephonyUtilIsCarrierBuild();

// Whether this is an internal build.
bool TelephonyUtilIsInternalBuild();

}  // extern "C"
