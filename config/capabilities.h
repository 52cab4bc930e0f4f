// Capabilities: the device's radio vendor, radio and product codes and its
// build kind, taken from the platform once per record, with fixed questions
// about them.
//
// The process shares one record (instance()), created by the first caller and
// released at exit. The record never changes once made; the currentRadio*
// questions ask the platform afresh instead. Link platform_telephony, or a
// double in its place, for the queries.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/telephony/radios.h"

using RadioFusingState = lum::RadioFusingState;

class Capabilities {
  public:
    // The process-wide record, made on first use (with the platform queries
    // made then, once). Thread-safe.
    static std::shared_ptr<Capabilities> instance();

    // Asks the platform for the radio, then the vendor, the product and the
    // two build kinds, in that order.
    Capabilities();

    const uint32_t vendor;
    const uint32_t radio;
    const uint32_t product;
    const bool carrierBuild;
    const bool internalBuild;

    bool isRadio2Through10() const;
    bool isRadio3To7Or9() const;
    bool isRadio5Or7Or9() const;
    bool isRadio1Or2() const;
    bool isVendor2() const;
    bool isCarrierBuild() const;
    bool isInternalBuild() const;
    bool isProduct58To61Or69Or70() const;

    // Ask the platform for the radio on every call.
    static bool currentRadioIs6Or7Or9();
    static bool currentRadioIs7Or9();
    // False without asking the platform when the build is neither a carrier
    // nor an internal build.
    bool currentRadioIs9OnCarrierOrInternalBuild() const;

    // The radio's fusing state: inferred from the serial number's bytes (all
    // of them, zero bytes included) when the platform says the certificate id
    // derives from it, from `certificateId` otherwise.
    static RadioFusingState getFusingState(std::span<const uint8_t> serialNumber,
                                           uint32_t certificateId);
    // "Un-Fused", "Fused Pre Validation", "Fused", or "Unknown" for any other
    // code.
    static std::string fusingStateName(RadioFusingState state);

    // The "PanicOnBasebandReset" preference (false unless a boolean is stored).
    static bool getPanicOnBasebandReset();
    // The "NetworkPolicySupported" preference: 0 no, 1 yes, anything else
    // (and nothing stored) yes exactly on radios 8 and 10.
    bool isNetworkPolicySupported() const;

  private:
    explicit Capabilities(uint32_t radio);
};
