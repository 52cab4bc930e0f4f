// The device description behind the radio, build-kind and fusing queries.
#include <optional>

#include "platform/posix/environment.h"
#include "platform/telephony/preferences.h"
#include "platform/telephony/radios.h"

namespace {

struct DeviceDescription {
    uint32_t radio = 0;
    uint32_t vendor = 0;
    uint32_t product = 0;
    bool carrierBuild = true;
    bool internalBuild = false;
    bool fusingCertIDFromSerialNumber = false;
    std::optional<uint32_t> preValidationCertID;
};

DeviceDescription load() {
    const std::string path = platform::pathFromEnvironment("KEL_DEVICE_DESCRIPTION")
                                 .value_or(KEL_DEVICE_DESCRIPTION_PATH);
    // The description has the shape of a preferences file, and the same
    // typed, range-checked conversions apply to it; whatever fails to load or
    // convert keeps its default.
    lum::PreferenceMap values;
    std::string ignored;
    static_cast<void>(lum::loadPreferencesFile(path, values, ignored));
    DeviceDescription description;
    const auto read = [&](const char* key, auto convert, auto& field) {
        const auto found = values.find(key);
        if (found != values.end()) {
            static_cast<void>(convert(found->second, field));
        }
    };
    read("radio", lum::preferenceToUInt32, description.radio);
    read("vendor", lum::preferenceToUInt32, description.vendor);
    read("product", lum::preferenceToUInt32, description.product);
    read("carrierBuild", lum::preferenceToBool, description.carrierBuild);
    read("internalBuild", lum::preferenceToBool, description.internalBuild);
    read("fusingCertIDFromSerialNumber", lum::preferenceToBool,
         description.fusingCertIDFromSerialNumber);
    uint32_t preValidation = 0;
    const auto found = values.find("preValidationCertID");
    if (found != values.end() && lum::preferenceToUInt32(found->second, preValidation)) {
        description.preValidationCertID = preValidation;
    }
    return description;
}

const DeviceDescription& device() {
    static const DeviceDescription sDevice = load();
    return sDevice;
}

}  // namespace

uint32_t TelephonyRadiosGetRadio() {
    return device().radio;
}

uint32_t TelephonyRadiosGetRadioVendor() {
    return device().vendor;
}

uint32_t TelephonyRadiosGetProduct() {
    return device().product;
}

bool TelephonyUtilIsCarrierBuild() {
    return device().carrierBuild;
}

bool TelephonyUtilIsInternalBuild() {
    return device().internalBuild;
}

bool TelephonyCapabilitiesRadioFusingCertIDFromSerialNumber() {
    return device().fusingCertIDFromSerialNumber;
}

namespace lum {

RadioFusingState TelephonyUtilRadioFusingInferFusingStateFromSerialNumber(
    const std::string& serialNumber) {
    if (serialNumber.empty()) {
        return static_cast<RadioFusingState>(0);
    }
    return serialNumber.find_first_not_of('\0') == std::string::npos ? RadioFusingState::kUnFused
                                                                     : RadioFusingState::kFused;
}

RadioFusingState TelephonyUtilRadioFusingInferFusingStateFromCertID(uint32_t certificateId) {
    if (certificateId == 0) {
        return RadioFusingState::kUnFused;
    }
    return certificateId == device().preValidationCertID ? RadioFusingState::kFusedPreValidation
                                                         : RadioFusingState::kFused;
}

}  // namespace lum
