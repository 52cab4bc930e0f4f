#include <unistd.h>

#include <fstream>
#include <latch>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "config/capabilities.h"
#include "config/kel_properties.h"
#include "platform/trace/trace.h"
#include "tests/doubles/fake_device.h"
#include "tests/support/temp_dir.h"

namespace {

using kel::testing::fakeDevice;

// The shared reader reads from a folder of this executable's own, set before
// it is made; each test starts with nothing stored.
class ConfigTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { setenv("KEL_PREFERENCES_DIR", folder().path().c_str(), 1); }
    void TearDown() override { unlink(storePath().c_str()); }

    static kel::testing::TempDir& folder() {
        static kel::testing::TempDir sFolder;
        return sFolder;
    }
    static std::string storePath() {
        return folder().file(std::string(KELProperties::kDomain) + ".json");
    }
    // Rewrites the store in place, as an editor would.
    static void store(const std::string& json) { std::ofstream(storePath()) << json; }

    static Capabilities device(uint32_t radio, uint32_t vendor = 0, uint32_t product = 0) {
        fakeDevice().radio = radio;
        fakeDevice().vendor = vendor;
        fakeDevice().product = product;
        return Capabilities();
    }
};

TEST_F(ConfigTest, ParseBoolValueTakesWordsAndWholeNumbers) {
    const struct {
        std::string text;
        std::optional<bool> value;  // nothing: not recognised
    } kCases[] = {
        {"TRUE", true}, {"Yes", true}, {"oFf", false},   {"lite", true},      {"2", true},
        {"-1", true},   {"00", false}, {"0x0", false},   {"010", true},       {" 1", true},
        {"1 ", {}},     {"1.5", {}},   {"", {}},         {"10000000000", {}}, {"maybe", {}},
        {"0x", {}},     {"yes!", {}},  {{"1\0", 2}, {}},
    };
    for (const auto& c : kCases) {
        for (const bool start : {false, true}) {
            bool target = start;
            EXPECT_EQ(KELProperties::parseBoolValue(c.text, target), c.value.has_value()) << c.text;
            EXPECT_EQ(target, c.value.value_or(start)) << c.text;
        }
    }
}

TEST_F(ConfigTest, ParseIntValueTakesWordsAndWholeNumbersInEveryBase) {
    const struct {
        std::string text;
        std::optional<int32_t> value;
    } kCases[] = {
        {"full", 1},        {"OFF", 0},          {"Lite", 2},
        {"010", 8},         {"0x1F", 31},        {"0X1f", 31},
        {"00", 0},          {"-3", -3},          {"+7", 7},
        {" 12", 12},        {"12 ", {}},         {"1.5", {}},
        {"", {}},           {"banana", {}},      {"-2147483648", INT32_MIN},
        {"2147483648", {}}, {"-2147483649", {}}, {"0x80000000", {}},
    };
    for (const auto& c : kCases) {
        int32_t target = 99;
        EXPECT_EQ(KELProperties::parseIntValue(c.text, target), c.value.has_value()) << c.text;
        EXPECT_EQ(target, c.value.value_or(99)) << c.text;
    }
}

TEST_F(ConfigTest, TypedReadsNeedTheStoredTypeAndRange) {
    store(
        R"({"u": 4294967295, "neg": -1, "frac": 1.5, "big": 5e9, "whole": 3.0, "imin": -2147483648,
              "i2": 2147483648, "text": "12", "flag": true, "list": [1], "none": null})");
    const struct {
        const char* key;
        std::optional<uint32_t> asUnsigned;
        std::optional<int32_t> asInt;
        std::optional<bool> asBool;
        std::optional<std::string> asText;
    } kCases[] = {
        {"u", 4294967295u, {}, {}, "4294967295"},
        {"neg", {}, -1, {}, "-1"},
        {"frac", {}, {}, {}, "1.5"},
        {"big", {}, {}, {}, "5000000000"},
        {"whole", 3, 3, {}, "3"},
        {"imin", {}, INT32_MIN, {}, "-2147483648"},
        {"i2", 2147483648u, {}, {}, "2147483648"},
        {"text", {}, {}, {}, "12"},
        {"flag", {}, {}, true, "true"},
        {"list", {}, {}, {}, {}},
        {"none", {}, {}, {}, {}},
        {"absent", {}, {}, {}, {}},
    };
    const lum::PreferencesAdapter& adapter = KELProperties::instance()->adapter();
    for (const auto& c : kCases) {
        uint32_t asUnsigned = 7;
        int32_t asInt = 7;
        bool asBool = false;
        std::string asText = "untouched";
        EXPECT_EQ(KELProperties::readUnsigned(adapter, c.key, asUnsigned),
                  c.asUnsigned.has_value());
        EXPECT_EQ(KELProperties::readInt(adapter, c.key, asInt), c.asInt.has_value());
        EXPECT_EQ(KELProperties::readBool(adapter, c.key, asBool), c.asBool.has_value());
        KELProperties::readText(adapter, c.key, asText);
        EXPECT_EQ(asUnsigned, c.asUnsigned.value_or(7)) << c.key;
        EXPECT_EQ(asInt, c.asInt.value_or(7)) << c.key;
        EXPECT_EQ(asBool, c.asBool.value_or(false)) << c.key;
        EXPECT_EQ(asText, c.asText.value_or("untouched")) << c.key;
    }
}

TEST_F(ConfigTest, EveryKeyHasItsDefaultWithNothingStored) {
    EXPECT_EQ(KELProperties::getHistory(), 4);
    EXPECT_EQ(KELProperties::getTUDebugFlags(), 10u);
    EXPECT_EQ(KELProperties::getRFSFlushInterval(), 7200u);
    EXPECT_EQ(KELProperties::getBEDLogTimeout(), 5u);
    EXPECT_FALSE(KELProperties::getRFSForcedSync());
    EXPECT_TRUE(KELProperties::getBootBaseband());
    EXPECT_FALSE(KELProperties::getBlockBasebandResets());
    EXPECT_FALSE(KELProperties::getCoreDumpOnSoftResetTimeout());
    EXPECT_FALSE(Capabilities::getPanicOnBasebandReset());
    EXPECT_EQ(KELProperties::getStackshotOnShutdownTimeout(), kel::trace::isAllowed());
    EXPECT_EQ(KELProperties::getLogScratchPath(), kel::trace::kScratchFolder);
    EXPECT_EQ(KELProperties::getLogSnapshotPath(), kel::trace::kSnapshotFolder);
    EXPECT_EQ(KELProperties::getRFSFlushTimeout(device(0, /*vendor=*/1)), 9u);
    EXPECT_EQ(KELProperties::getRFSFlushTimeout(device(0, /*vendor=*/0)), 15u);
    EXPECT_EQ(KELProperties::getRFSFlushTimeout(device(0, /*vendor=*/2)), 15u);
}

TEST_F(ConfigTest, StoredValuesReplaceDefaultsOnlyWithTheirOwnType) {
    store(R"({"LogScratchPath": "", "LogSnapshotPath": 12, "PanicOnBasebandReset": 1,
              "StackshotOnShutdownTimeout": false, "TUDebugFlags": "12", "BootBaseband": 0,
              "RFSFlushTimeout": 20})");
    EXPECT_EQ(KELProperties::getLogScratchPath(), "");
    EXPECT_EQ(KELProperties::getLogSnapshotPath(), "12");
    EXPECT_FALSE(Capabilities::getPanicOnBasebandReset());
    EXPECT_FALSE(KELProperties::getStackshotOnShutdownTimeout());
    EXPECT_EQ(KELProperties::getTUDebugFlags(), 10u);
    EXPECT_TRUE(KELProperties::getBootBaseband());
    EXPECT_EQ(KELProperties::getRFSFlushTimeout(device(0, /*vendor=*/1)), 20u);
    for (const auto& [stored, history] : {std::pair{"lite", 2}, {"Off", 0}, {"12", 12}, {"x", 4}}) {
        store(std::string(R"({"kel.history": ")") + stored + "\"}");
        EXPECT_EQ(KELProperties::getHistory(), history) << stored;
    }
}

TEST_F(ConfigTest, EnablingFollowsTheBuildKindUnlessSet) {
    const struct {
        bool carrierBuild;
        bool internalBuild;
        const char* stored;  // JSON of "kel.enabled", or null
        bool enabled;
    } kCases[] = {
        {true, false, nullptr, true},     {true, true, nullptr, false},
        {false, false, nullptr, false},   {false, true, nullptr, false},
        {true, false, R"("no")", false},  {false, false, R"("Lite")", true},
        {true, false, R"("0x0")", false}, {false, false, R"("-1")", true},
        {false, false, R"("010")", true}, {true, false, R"("1 ")", true},
        {true, true, R"("1.5")", false},  {true, false, R"("")", true},
        {false, false, "true", true},     {true, false, "0", false},
    };
    for (const auto& c : kCases) {
        store(c.stored != nullptr ? std::string(R"({"kel.enabled": )") + c.stored + "}" : "{}");
        fakeDevice().carrierBuild = c.carrierBuild;
        fakeDevice().internalBuild = c.internalBuild;
        const Capabilities caps = device(0);
        fakeDevice().internalQueries = 0;
        EXPECT_EQ(KELProperties::isEnabled(caps), c.enabled) << (c.stored ? c.stored : "-");
        EXPECT_EQ(fakeDevice().internalQueries, c.carrierBuild ? 1 : 0);
    }
    fakeDevice().carrierBuild = true;
    fakeDevice().internalBuild = false;
}

TEST_F(ConfigTest, TriStateKeysDecideFromTheRadioUnlessSetToZeroOrOne) {
    using Query = bool (*)(const Capabilities&);
    const Query coex = &KELProperties::isCoexSupported;
    const Query health = &KELProperties::isRadioHealthSupported;
    const Query policy = [](const Capabilities& c) { return c.isNetworkPolicySupported(); };
    const struct {
        Query query;
        const char* key;
        const char* stored;                     // JSON, or null
        std::vector<uint32_t> supportedRadios;  // among 0 to 11
    } kCases[] = {
        {coex, "CoexSupported", "0", {}},
        {coex, "CoexSupported", "1", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
        {coex, "CoexSupported", nullptr, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {coex, "CoexSupported", "-1", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {coex, "CoexSupported", R"("0")", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
        {health, "RadioHealthSupported", "3", {1, 2, 4, 6, 8}},
        {policy, "NetworkPolicySupported", nullptr, {8, 10}},
        {policy, "NetworkPolicySupported", "1", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}},
    };
    for (const auto& c : kCases) {
        store(c.stored ? std::string("{\"") + c.key + "\": " + c.stored + "}" : "{}");
        for (uint32_t radio = 0; radio <= 11; ++radio) {
            const bool supported = std::find(c.supportedRadios.begin(), c.supportedRadios.end(),
                                             radio) != c.supportedRadios.end();
            EXPECT_EQ(c.query(device(radio)), supported) << c.key << " radio " << radio;
        }
    }
}

TEST_F(ConfigTest, RecordPredicatesReadTheStoredCodes) {
    // Radio, then isRadio2Through10, isRadio3To7Or9, isRadio5Or7Or9, isRadio1Or2.
    const std::vector<std::pair<uint32_t, std::string>> kRadios = {
        {0, "0000"}, {1, "0001"}, {2, "1001"},  {3, "1100"},  {7, "1110"},
        {8, "1000"}, {9, "1110"}, {10, "1000"}, {11, "0000"},
    };
    for (const auto& [radio, expected] : kRadios) {
        const Capabilities caps = device(radio);
        const std::string got = {"01"[caps.isRadio2Through10()], "01"[caps.isRadio3To7Or9()],
                                 "01"[caps.isRadio5Or7Or9()], "01"[caps.isRadio1Or2()]};
        EXPECT_EQ(got, expected) << "radio " << radio;
    }
    for (const uint32_t product : {57u, 58u, 61u, 62u, 68u, 69u, 70u, 71u}) {
        const bool expected = (product >= 58 && product <= 61) || product == 69 || product == 70;
        EXPECT_EQ(device(0, 0, product).isProduct58To61Or69Or70(), expected) << product;
    }
    EXPECT_TRUE(device(0, /*vendor=*/2).isVendor2());
    EXPECT_FALSE(device(0, /*vendor=*/1).isVendor2());
}

TEST_F(ConfigTest, CurrentRadioQuestionsAskThePlatformAgain) {
    fakeDevice().carrierBuild = false;
    const Capabilities neither = device(9);
    fakeDevice().carrierBuild = true;
    const Capabilities carrier = device(0);
    fakeDevice().radio = 9;
    fakeDevice().radioQueries = 0;
    EXPECT_FALSE(neither.currentRadioIs9OnCarrierOrInternalBuild());
    EXPECT_EQ(fakeDevice().radioQueries, 0);
    EXPECT_TRUE(carrier.currentRadioIs9OnCarrierOrInternalBuild());
    EXPECT_TRUE(Capabilities::currentRadioIs7Or9());
    fakeDevice().radio = 6;
    EXPECT_TRUE(Capabilities::currentRadioIs6Or7Or9());
    EXPECT_FALSE(Capabilities::currentRadioIs7Or9());
}

TEST_F(ConfigTest, FusingStateComesFromTheWholeSerialNumberOrTheCertificate) {
    const uint8_t serial[] = {'A', 0, 'B'};
    fakeDevice().fusingCertIDFromSerialNumber = true;
    EXPECT_EQ(Capabilities::getFusingState(serial, 77), kel::testing::kFakeFusingState);
    EXPECT_EQ(fakeDevice().lastSerialNumber, std::string("A\0B", 3));
    fakeDevice().fusingCertIDFromSerialNumber = false;
    EXPECT_EQ(Capabilities::getFusingState(serial, 77), kel::testing::kFakeFusingState);
    EXPECT_EQ(fakeDevice().lastCertificateId, 77u);
    const std::pair<uint32_t, const char*> kNames[] = {
        {0, "Unknown"}, {1, "Un-Fused"}, {2, "Fused Pre Validation"}, {3, "Fused"}, {4, "Unknown"}};
    for (const auto& [code, name] : kNames) {
        EXPECT_EQ(Capabilities::fusingStateName(static_cast<RadioFusingState>(code)), name);
    }
}

TEST_F(ConfigTest, TwoThreadsShareOneInstanceOfEachAndTheDeviceIsAskedOnce) {
    fakeDevice().radioQueries = 0;
    std::latch start(2);
    std::shared_ptr<Capabilities> capabilities[2];
    std::shared_ptr<KELProperties> properties[2];
    auto take = [&](int i) {
        start.arrive_and_wait();
        capabilities[i] = Capabilities::instance();
        properties[i] = KELProperties::instance();
    };
    std::thread first(take, 0);
    std::thread second(take, 1);
    first.join();
    second.join();
    EXPECT_EQ(capabilities[0], capabilities[1]);
    EXPECT_EQ(properties[0], properties[1]);
    EXPECT_EQ(fakeDevice().radioQueries, 1);
}

}  // namespace
