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
// it is made; each test starts with nothing stored, on a fresh fake device.
class ConfigTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() { setenv("KEL_PREFERENCES_DIR", sFolder.path().c_str(), 1); }
    void SetUp() override { fakeDevice() = {}; }
    void TearDown() override { unlink(sStore.c_str()); }

    // Rewrites the store in place, as an editor would.
    static void store(const std::string& json) { std::ofstream(sStore) << json; }

    static inline const kel::testing::TempDir sFolder;
    static inline const std::string sStore =
        sFolder.file(KELProperties::kDomain + std::string(".json"));
};

// Defaults that are more than a constant, and values of the wrong type. The
// range checks of the conversions are the preferences fuzz target's; the
// defaults that follow the device are kelprefs_test's, on real device
// descriptions.
TEST_F(ConfigTest, KeysTakeOnlyValuesOfTheirOwnType) {
    EXPECT_EQ(KELProperties::getStackshotOnShutdownTimeout(), kel::trace::isAllowed());
    EXPECT_EQ(KELProperties::getLogScratchPath(), kel::trace::kScratchFolder);
    EXPECT_EQ(KELProperties::getLogSnapshotPath(), kel::trace::kSnapshotFolder);
    // Texts under numeric and boolean keys and numbers under boolean keys
    // leave the default; the path keys take any value, as text.
    store(R"({"LogScratchPath": "", "LogSnapshotPath": 1.5, "PanicOnBasebandReset": 1,
              "StackshotOnShutdownTimeout": false, "TUDebugFlags": "12", "BootBaseband": 0,
              "RFSFlushTimeout": 4294967295, "RFSForcedSync": true, "kel.history": "12"})");
    EXPECT_EQ(KELProperties::getLogScratchPath(), "");
    EXPECT_EQ(KELProperties::getLogSnapshotPath(), "1.5");
    EXPECT_FALSE(Capabilities::getPanicOnBasebandReset());
    EXPECT_FALSE(KELProperties::getStackshotOnShutdownTimeout());
    EXPECT_EQ(KELProperties::getTUDebugFlags(), 10u);
    EXPECT_TRUE(KELProperties::getBootBaseband() && KELProperties::getRFSForcedSync());
    EXPECT_EQ(KELProperties::getRFSFlushTimeout(Capabilities()), 4294967295u);
    EXPECT_EQ(KELProperties::getHistory(), 12);
}

// Radio by radio, 0 to 11: coexistence, radio health, network policy.
TEST_F(ConfigTest, TriStateKeysDecideFromTheRadioUnlessSetToZeroOrOne) {
    const auto supported = [] {
        std::string coex, health, policy;
        for (uint32_t radio = 0; radio < 12; ++radio) {
            fakeDevice().radio = radio;
            const Capabilities record;
            coex += "01"[KELProperties::isCoexSupported(record)];
            health += "01"[KELProperties::isRadioHealthSupported(record)];
            policy += "01"[record.isNetworkPolicySupported()];
        }
        return coex + " " + health + " " + policy;
    };
    const std::string automatic = "011111111110 011010101000 000000001010";
    EXPECT_EQ(supported(), automatic);
    store(R"({"CoexSupported": -1, "RadioHealthSupported": 3, "NetworkPolicySupported": "1"})");
    EXPECT_EQ(supported(), automatic);
    store(R"({"CoexSupported": 0, "RadioHealthSupported": 1, "NetworkPolicySupported": 1})");
    EXPECT_EQ(supported(), "000000000000 111111111111 111111111111");
}

// Whether the record is of a carrier or an internal build, then the radio
// the platform reports at the call. The fake infers the fusing state from the
// length of the serial number, or takes the certificate id for it.
TEST_F(ConfigTest, QuestionsThatAskThePlatformAgain) {
    fakeDevice().carrierBuild = false;
    const Capabilities neither;
    fakeDevice().internalBuild = true;
    const Capabilities internal;
    fakeDevice() = {.radio = 9};
    const Capabilities carrier;
    EXPECT_FALSE(neither.currentRadioIs9OnCarrierOrInternalBuild());
    EXPECT_TRUE(internal.currentRadioIs9OnCarrierOrInternalBuild() &&
                carrier.currentRadioIs9OnCarrierOrInternalBuild() &&
                Capabilities::currentRadioIs7Or9());
    fakeDevice().radio = 6;
    EXPECT_TRUE(Capabilities::currentRadioIs6Or7Or9() && !Capabilities::currentRadioIs7Or9());

    const uint8_t serial[] = {'A', 0, 'B'};
    EXPECT_EQ(Capabilities::getFusingState(serial, 1), RadioFusingState::kUnFused);
    fakeDevice().fusingCertIDFromSerialNumber = true;
    EXPECT_EQ(Capabilities::getFusingState(serial, 1), RadioFusingState::kFused);
    const char* kNames[] = {"Unknown", "Un-Fused", "Fused Pre Validation", "Fused", "Unknown"};
    for (uint32_t code = 0; code < std::size(kNames); ++code) {
        EXPECT_EQ(Capabilities::fusingStateName(static_cast<RadioFusingState>(code)), kNames[code]);
    }
}

TEST_F(ConfigTest, TwoThreadsShareOneInstanceOfEach) {
    std::latch start(2);
    std::pair<std::shared_ptr<Capabilities>, std::shared_ptr<KELProperties>> taken[2];
    const auto take = [&](int i) {
        start.arrive_and_wait();
        taken[i] = {Capabilities::instance(), KELProperties::instance()};
    };
    std::thread other(take, 0);
    take(1);
    other.join();
    EXPECT_EQ(taken[0], taken[1]);
}

}  // namespace
