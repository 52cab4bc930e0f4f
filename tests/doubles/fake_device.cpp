#include "tests/doubles/fake_device.h"

namespace kel::testing {

FakeDevice& fakeDevice() {
    static FakeDevice sDevice;
    return sDevice;
}

}  // namespace kel::testing

using kel::testing::fakeDevice;

uint32_t TelephonyRadiosGetRadio() {
    return fakeDevice().radio;
}

uint32_t TelephonyRadiosGetRadioVendor() {
    return 0;
}

uint32_t TelephonyRadiosGetProduct() {
    return 0;
}

bool TelephonyUtilIsCarrierBuild() {
    return fakeDevice().carrierBuild;
}

bool TelephonyUtilIsInternalBuild() {
    return fakeDevice().internalBuild;
}

bool TelephonyCapabilitiesRadioFusingCertIDFromSerialNumber() {
    return fakeDevice().fusingCertIDFromSerialNumber;
}

namespace lum {

RadioFusingState TelephonyUtilRadioFusingInferFusingStateFromSerialNumber(
    const std::string& serialNumber) {
    return static_cast<RadioFusingState>(serialNumber.size());
}

RadioFusingState TelephonyUtilRadioFusingInferFusingStateFromCertID(uint32_t certificateId) {
    return static_cast<RadioFusingState>(certificateId);
}

}  // namespace lum
