#include <unistd.h>

#include <fstream>
#include <latch>
#include <thread>

#include <gtest/gtest.h>

#include "config/capabilities.h"
#include "config/kel_properties.h"
#include "platform/trace/trace.h"
#include "tests/support/temp_dir.h"

namespace {

// The shared reader reads from a folder of this executable's own, and the
// device description from a file there: radio 3 on a carrier build, whose
// fusing state follows from its serial number. Both are named before the
// process's first read. Each test starts with nothing stored.
class ConfigTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        setenv("KEL_PREFERENCES_DIR", sFolder.path().c_str(), 1);
        setenv("KEL_DEVICE_DESCRIPTION", sFolder.file("device.json").c_str(), 1);
        std::ofstream(sFolder.file("device.json"))
            << R"({"radio": 3, "fusingCertIDFromSerialNumber": true})";
    }
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

// Radio 3 counts for coexistence but neither for radio health nor for network
// policy when a setting is automatic: 2, or anything but 0 and 1.
TEST_F(ConfigTest, TriStateKeysDecideFromTheRadioUnlessSetToZeroOrOne) {
    const auto supported = [] {
        const std::shared_ptr<Capabilities> record = Capabilities::instance();
        return std::string{"01"[KELProperties::isCoexSupported(*record)],
                           "01"[KELProperties::isRadioHealthSupported(*record)],
                           "01"[record->isNetworkPolicySupported()]};
    };
    EXPECT_EQ(supported(), "100");
    store(R"({"CoexSupported": -1, "RadioHealthSupported": 3, "NetworkPolicySupported": "1"})");
    EXPECT_EQ(supported(), "100");
    store(R"({"CoexSupported": 0, "RadioHealthSupported": 1, "NetworkPolicySupported": 1})");
    EXPECT_EQ(supported(), "011");
}

// The serial number reaches the device's inference whole, zero bytes
// included: all zeros are un-fused, anything else fused.
TEST_F(ConfigTest, FusingStateComesFromTheWholeSerialNumber) {
    const uint8_t zeros[] = {0, 0}, leadingZeros[] = {0, 0, 'B'};
    EXPECT_EQ(Capabilities::getFusingState(zeros, 1), RadioFusingState::kUnFused);
    EXPECT_EQ(Capabilities::getFusingState(leadingZeros, 1), RadioFusingState::kFused);
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
