#include "config/kel_properties.h"

#include "config/capabilities.h"
#include "config/shared_instance.h"
#include "platform/telephony/build_kind.h"

namespace {

constinit kel::SharedInstanceSlot<KELProperties> sProperties;

// The stored value under `key`, when `isOfType` it, converted into `target`
// by `convert`.
template <typename Target>
bool readTyped(const lum::PreferencesAdapter& adapter, const std::string& key, Target& target,
               bool (*isOfType)(const lum::PreferenceValue&),
               bool (*convert)(const lum::PreferenceValue&, Target&)) {
    const std::optional<lum::PreferenceValue> value = adapter.copyValue(key);
    return value.has_value() && isOfType(*value) && convert(*value, target);
}

bool isBoolean(const lum::PreferenceValue& value) {
    return std::holds_alternative<bool>(value);
}

// A store that holds one value under every key.
class SingleValue final : public lum::PreferencesAdapter {
  public:
    explicit SingleValue(lum::PreferenceValue value)
        : PreferencesAdapter(KELProperties::kDomain, "none"), value_(std::move(value)) {}

    std::optional<lum::PreferenceValue> copyValue(const std::string& /*key*/) const override {
        return value_;
    }

  private:
    const lum::PreferenceValue value_;
};

}  // namespace

KELProperties::KELProperties() : adapter_(kDomain, lum::kPreferencesScopeCurrentUser) {}

std::shared_ptr<KELProperties> KELProperties::instance() {
    return sProperties.get([] { return std::shared_ptr<KELProperties>(new KELProperties()); });
}

bool KELProperties::readUnsigned(const lum::PreferencesAdapter& adapter, const std::string& key,
                                 uint32_t& target) {
    return readTyped(adapter, key, target, lum::isPreferenceNumber, lum::preferenceToUInt32);
}

bool KELProperties::readInt(const lum::PreferencesAdapter& adapter, const std::string& key,
                            int32_t& target) {
    return readTyped(adapter, key, target, lum::isPreferenceNumber, lum::preferenceToInt32);
}

bool KELProperties::readBool(const lum::PreferencesAdapter& adapter, const std::string& key,
                             bool& target) {
    return readTyped(adapter, key, target, isBoolean, lum::preferenceToBool);
}

void KELProperties::readText(const lum::PreferencesAdapter& adapter, const std::string& key,
                             std::string& target) {
    const std::optional<lum::PreferenceValue> value = adapter.copyValue(key);
    if (value.has_value()) {
        lum::preferenceToText(*value, target);
    }
}

bool KELProperties::isEnabled(const Capabilities& /*capabilities*/) {
    // Internal builds are asked about only on carrier builds.
    bool enabled = TelephonyUtilIsCarrierBuild() && !TelephonyUtilIsInternalBuild();
    std::string text;
    readText(instance()->adapter(), kEnabledKey, text);
    // Unrecognised text, the empty text included, keeps the default.
    static_cast<void>(parseBoolValue(text, enabled));
    return enabled;
}

bool KELProperties::takes(ReadKind kind, const lum::PreferenceValue& value) {
    const SingleValue adapter(value);
    uint32_t asUnsigned = 0;
    int32_t asInt = 0;
    bool asBool = false;
    std::string text;
    switch (kind) {
        case ReadKind::kTextBool:
            readText(adapter, "", text);
            return parseBoolValue(text, asBool);
        case ReadKind::kTextInt:
            readText(adapter, "", text);
            return parseIntValue(text, asInt);
        case ReadKind::kUnsigned:
            return readUnsigned(adapter, "", asUnsigned);
        case ReadKind::kInt:
            return readInt(adapter, "", asInt);
        case ReadKind::kBool:
            return readBool(adapter, "", asBool);
        case ReadKind::kText:
            break;
    }
    return true;
}
