#include <unistd.h>

#include <fstream>
#include <latch>
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
    static void SetUpTestSuite() { setenv("KEL_PREFERENCES_DIR", sFolder.path().c_str(), 1); }
    void TearDown() override { unlink(sStore.c_str()); }

    // Rewrites the store in place, as an editor would.
    static void store(const std::string& json) { std::ofstream(sStore) << json; }

    static Capabilities device(uint32_t radio, uint32_t vendor = 0, uint32_t product = 0) {
        fakeDevice().radio = radio;
        fakeDevice().vendor = vendor;
        fakeDevice().product = product;
        return Capabilities();
    }

    static inline const kel::testing::TempDir sFolder;
    static inline const std::string sStore =
        sFolder.file(KELProperties::kDomain + std::string(".json"));
};

TEST_F(ConfigTest, KeysHaveTheirDefaultsAndTakeOnlyValuesOfTheirOwnTypeAndRange) {
    EXPECT_EQ(KELProperties::getHistory(), 4);
    EXPECT_EQ(KELProperties::getTUDebugFlags(), 10u);
    EXPECT_EQ(KELProperties::getRFSFlushInterval(), 7200u);
    EXPECT_EQ(KELProperties::getBEDLogTimeout(), 5u);
    EXPECT_FALSE(KELProperties::getRFSForcedSync() || KELProperties::getBlockBasebandResets() ||
                 KELProperties::getCoreDumpOnSoftResetTimeout());
    EXPECT_EQ(KELProperties::getStackshotOnShutdownTimeout(), kel::trace::isAllowed());
    EXPECT_EQ(KELProperties::getLogSnapshotPath(), kel::trace::kSnapshotFolder);
    for (const auto& [vendor, timeout] : {std::pair{0u, 15u}, {1u, 9u}, {2u, 15u}}) {
        EXPECT_EQ(KELProperties::getRFSFlushTimeout(device(0, vendor)), timeout);
    }
    // Texts under numeric and boolean keys, numbers under boolean keys, and
    // numbers a 32-bit read cannot hold all leave the default.
    store(R"({"LogScratchPath": "", "LogSnapshotPath": 1.5, "PanicOnBasebandReset": 1,
              "StackshotOnShutdownTimeout": false, "TUDebugFlags": "12", "BootBaseband": 0,
              "RFSFlushTimeout": 4294967295, "BEDLogTimeout": -1, "RFSFlushInterval": 5e9,
              "RFSForcedSync": true, "kel.history": 12})");
    EXPECT_EQ(KELProperties::getLogScratchPath(), "");
    EXPECT_EQ(KELProperties::getLogSnapshotPath(), "1.5");
    EXPECT_FALSE(Capabilities::getPanicOnBasebandReset());
    EXPECT_FALSE(KELProperties::getStackshotOnShutdownTimeout());
    EXPECT_EQ(KELProperties::getTUDebugFlags(), 10u);
    EXPECT_TRUE(KELProperties::getBootBaseband() && KELProperties::getRFSForcedSync());
    EXPECT_EQ(KELProperties::getRFSFlushTimeout(device(0, /*vendor=*/1)), 4294967295u);
    EXPECT_EQ(KELProperties::getBEDLogTimeout(), 5u);
    EXPECT_EQ(KELProperties::getRFSFlushInterval(), 7200u);
    EXPECT_EQ(KELProperties::getHistory(), 12);
    store(R"({"kel.history": "Lite"})");
    EXPECT_EQ(KELProperties::getHistory(), 2);
}

TEST_F(ConfigTest, EnablingFollowsTheBuildKindUnlessSet) {
    const struct {
        bool carrierBuild;
        bool internalBuild;
        const char* stored;  // JSON of "kel.enabled", or null
        bool enabled;
    } kCases[] = {{true, false, nullptr, true},     {true, true, nullptr, false},
                  {false, false, nullptr, false},   {false, true, nullptr, false},
                  {true, false, R"("no")", false},  {false, false, R"("Lite")", true},
                  {true, false, R"("0x0")", false}, {false, false, R"("010")", true},
                  {true, false, R"("1 ")", true},   {true, true, R"("1.5")", false},
                  {true, false, R"("")", true},     {false, false, "true", true}};
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
        const char* stored;
        const char* supported;  // radio by radio, 0 to 11
    } kCases[] = {{coex, R"({"CoexSupported": 0})", "000000000000"},
                  {coex, R"({"CoexSupported": 1})", "111111111111"},
                  {coex, "{}", "011111111110"},
                  {coex, R"({"CoexSupported": -1})", "011111111110"},
                  {coex, R"({"CoexSupported": "0"})", "011111111110"},
                  {health, R"({"RadioHealthSupported": 3})", "011010101000"},
                  {policy, "{}", "000000001010"},
                  {policy, R"({"NetworkPolicySupported": 1})", "111111111111"}};
    for (const auto& c : kCases) {
        store(c.stored);
        std::string supported;
        for (uint32_t radio = 0; radio < 12; ++radio) {
            supported += "01"[c.query(device(radio))];
        }
        EXPECT_EQ(supported, c.supported) << c.stored;
    }
}

TEST_F(ConfigTest, CurrentRadioQuestionsAskThePlatformAgainIfAtAll) {
    fakeDevice().carrierBuild = false;
    const Capabilities neither = device(9);
    fakeDevice().carrierBuild = true;
    const Capabilities carrier = device(0);
    fakeDevice().radio = 9;
    fakeDevice().radioQueries = 0;
    EXPECT_FALSE(neither.currentRadioIs9OnCarrierOrInternalBuild());
    EXPECT_EQ(fakeDevice().radioQueries, 0);
    EXPECT_TRUE(carrier.currentRadioIs9OnCarrierOrInternalBuild() &&
                Capabilities::currentRadioIs7Or9());
    fakeDevice().radio = 6;
    EXPECT_TRUE(Capabilities::currentRadioIs6Or7Or9() && !Capabilities::currentRadioIs7Or9());
}

TEST_F(ConfigTest, FusingStateComesFromTheWholeSerialNumberOrTheCertificate) {
    const uint8_t serial[] = {'A', 0, 'B'};
    fakeDevice().fusingCertIDFromSerialNumber = true;
    EXPECT_EQ(Capabilities::getFusingState(serial, 77), kel::testing::kFakeFusingState);
    EXPECT_EQ(fakeDevice().lastSerialNumber, std::string("A\0B", 3));
    fakeDevice().fusingCertIDFromSerialNumber = false;
    static_cast<void>(Capabilities::getFusingState(serial, 77));
    EXPECT_EQ(fakeDevice().lastCertificateId, 77u);
    const char* kNames[] = {"Unknown", "Un-Fused", "Fused Pre Validation", "Fused", "Unknown"};
    for (uint32_t code = 0; code < std::size(kNames); ++code) {
        EXPECT_EQ(Capabilities::fusingStateName(static_cast<RadioFusingState>(code)), kNames[code]);
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
