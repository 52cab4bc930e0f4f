#include "config/capabilities.h"

#include <algorithm>
#include <initializer_list>

#include "config/property_keys.h"
#include "config/shared_instance.h"

namespace {

constinit kel::SharedInstanceSlot<Capabilities> sCapabilities;

bool isOneOf(uint32_t code, std::initializer_list<uint32_t> codes) {
    return std::find(codes.begin(), codes.end(), code) != codes.end();
}

}  // namespace

std::shared_ptr<Capabilities> Capabilities::instance() {
    return sCapabilities.get([] { return std::make_shared<Capabilities>(); });
}

// The fields are initialised in their declared order, vendor first, but the
// radio must be asked first: the delegating constructor takes it.
Capabilities::Capabilities() : Capabilities(TelephonyRadiosGetRadio()) {}

Capabilities::Capabilities(uint32_t radio)
    : vendor(TelephonyRadiosGetRadioVendor()),
      radio(radio),
      product(TelephonyRadiosGetProduct()),
      carrierBuild(TelephonyUtilIsCarrierBuild()),
      internalBuild(TelephonyUtilIsInternalBuild()) {}

bool Capabilities::isRadio2Through10() const {
    return radio >= 2 && radio <= 10;
}

bool Capabilities::isRadio3To7Or9() const {
    return (radio >= 3 && radio <= 7) || radio == 9;
}

bool Capabilities::isRadio5Or7Or9() const {
    return isOneOf(radio, {5, 7, 9});
}

bool Capabilities::isRadio1Or2() const {
    return radio == 1 || radio == 2;
}

bool Capabilities::isVendor2() const {
    return vendor == 2;
}

bool Capabilities::isCarrierBuild() const {
    return carrierBuild;
}

bool Capabilities::isInternalBuild() const {
    return internalBuild;
}

bool Capabilities::isProduct58To61Or69Or70() const {
    return (product >= 58 && product <= 61) || product == 69 || product == 70;
}

bool Capabilities::currentRadioIs6Or7Or9() {
    return isOneOf(TelephonyRadiosGetRadio(), {6, 7, 9});
}

bool Capabilities::currentRadioIs7Or9() {
    return isOneOf(TelephonyRadiosGetRadio(), {7, 9});
}

bool Capabilities::currentRadioIs9OnCarrierOrInternalBuild() const {
    return (carrierBuild || internalBuild) && TelephonyRadiosGetRadio() == 9;
}

RadioFusingState Capabilities::getFusingState(std::span<const uint8_t> serialNumber,
                                              uint32_t certificateId) {
    if (TelephonyCapabilitiesRadioFusingCertIDFromSerialNumber()) {
        // Built from the length, not as a C string: a zero byte is part of the
        // serial number.
        const std::string text(reinterpret_cast<const char*>(serialNumber.data()),
                               serialNumber.size());
        return lum::TelephonyUtilRadioFusingInferFusingStateFromSerialNumber(text);
    }
    return lum::TelephonyUtilRadioFusingInferFusingStateFromCertID(certificateId);
}

std::string Capabilities::fusingStateName(RadioFusingState state) {
    switch (state) {
        case RadioFusingState::kUnFused:
            return "Un-Fused";
        case RadioFusingState::kFusedPreValidation:
            return "Fused Pre Validation";
        case RadioFusingState::kFused:
            return "Fused";
    }
    return "Unknown";
}

// The two settings of the device that are preferences, read as KELProperties
// reads its own.
bool Capabilities::getPanicOnBasebandReset() {
    return kel::internal::boolKey(kel::internal::kPanicOnBasebandReset, false);
}

bool Capabilities::isNetworkPolicySupported() const {
    return kel::internal::triStateKey(kel::internal::kNetworkPolicySupported, radio, {8, 10});
}
