#include "tests/doubles/fake_device.h"

namespace kel::testing {

FakeDevice& fakeDevice() {
    static FakeDevice sDevice;
    return sDevice;
}

}  // namespace kel::testing

using kel::testing::fakeDevice;

uint32_t TelephonyRadiosGetRadio() {
    ++fakeDevice().radioQueries;
    return fakeDevice().radio;
}

uint32_t TelephonyRadiosGetRadioVendor() {
    return fakeDevice().vendor;
}

uint32_t TelephonyRadiosGetProduct() {
    return fakeDevice().product;
}

bool TelephonyUtilIsCarrierBuild() {
    return fakeDevice().carrierBuild;
}

bool TelephonyUtilIsInternalBuild() {
    ++fakeDevice().internalQueries;
    return fakeDevice().internalBuild;
}

bool TelephonyCapabilitiesRadioFusingCertIDFromSerialNumber() {
    return fakeDevice().fusingCertIDFromSerialNumber;
}

namespace lum {

RadioFusingState TelephonyUtilRadioFusingInferFusingStateFromSerialNumber(
    const std::string& serialNumber) {
    fakeDevice().lastSerialNumber = serialNumber;
    return kel::testing::kFakeFusingState;
}

RadioFusingState TelephonyUtilRadioFusingInferFusingStateFromCertID(uint32_t certificateId) {
    fakeDevice().lastCertificateId = certificateId;
    return kel::testing::kFakeFusingState;
}

}  // namespace lum
