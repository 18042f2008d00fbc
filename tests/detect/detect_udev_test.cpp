// Detection through the real libudev inside a umockdev testbed (run-in-testbed.sh):
// - modems.umockdev: two Zavra modems 1e2d:0061, SN0001 with ttyACM0 on interface 00 (udev
//   property), ttyACM1 on 02 (sysfs attribute only), CDC OBEX on 04 and wwan0 on 06; SN0002 with
//   ttyACM3 on 02 listed before ttyACM2 on 00.
// - adapters.umockdev: ttyUSB0 without any USB strings, ttyUSB1 with only a manufacturer,
//   ttyUSB2 with both, ttyUSB3 with only a product and no interface number, and the UARTs ttyS0
//   and ttyS1, which share the all-empty identifier: the first one found keeps the record.
#include <gtest/gtest.h>

#include <vector>

#include "zv-device-detect-linux.h"
#include "zv-log.h"

namespace {

class CapturingLog : public ZvLog {
public:
    void DoLog(Info* info) override {
        messages.push_back(info->message);
        delete info;
    }
    std::vector<ZvAString> messages;
};

ZvAString DumpText(const ZvInterfaceTree& tree) {
    ::testing::internal::CaptureStdout();
    tree.Dump(stdout);
    fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

class UdevDetect : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(ZvUdev::Instance().IsLoaded());
        ZvLog::SetLogger(&log);
        detect.Refresh();
    }
    void TearDown() override { ZvLog::SetLogger(nullptr); }
    ZvInterfaceInfo* Port(const char* node) { return all().FindSerialPortDev(node); }
    const ZvInterfaceList& all() { return detect.Interfaces(); }

    CapturingLog log;
    ZvDeviceDetect detect;
};

TEST_F(UdevDetect, DumpShowsDevicesGroupedNamedAndInInterfaceOrder) {
    EXPECT_EQ(DumpText(detect.Tree()),
              "Device ' (0403:6001)', 1 interfaces\n"
              "SERIAL  UNKNOWN VID: 0403 PID: 6001 MI: 00 Unknown /dev/ttyUSB0\n"
              "Device ' (067b:2303)', 1 interfaces\n"
              "SERIAL  UNKNOWN VID: 067b PID: 2303 MI: 00 Acme Device /dev/ttyUSB1\n"
              "Device ' (10c4:ea60)', 1 interfaces\n"
              "SERIAL  UNKNOWN VID: 10c4 PID: ea60 MI: 00 Acme Serial Adapter /dev/ttyUSB2\n"
              "Device ' (1a86:7523)', 1 interfaces\n"
              "SERIAL  UNKNOWN VID: 1a86 PID: 7523 MI:  Dongle /dev/ttyUSB3\n"
              "Device 'Zavra ZM200 Modem (1e2d:0061)', 4 interfaces\n"
              "SERIAL  UNKNOWN VID: 1e2d PID: 0061 MI: 00  /dev/ttyACM0\n"
              "SERIAL  UNKNOWN VID: 1e2d PID: 0061 MI: 02  /dev/ttyACM1\n"
              "OBEX    UNKNOWN VID: 1e2d PID: 0061 MI: 04  \n"
              "NET     NET     VID: 1e2d PID: 0061 MI: 06  \n"
              "Device 'Zavra ZM200 Modem (1e2d:0061)', 2 interfaces\n"
              "SERIAL  UNKNOWN VID: 1e2d PID: 0061 MI: 00  /dev/ttyACM2\n"
              "SERIAL  UNKNOWN VID: 1e2d PID: 0061 MI: 02  /dev/ttyACM3\n"
              "Orphan ports\n"
              "SERIAL  UNKNOWN VID:  PID:  MI:  Unknown /dev/ttyS0\n");
    EXPECT_TRUE(log.messages.empty());
    // The store is ordered by identifier; empty parts stay in place.
    ZvAString ids;
    for (const ZvInterfaceInfo* info : all())
        ids += info->uniqueId + " ";
    EXPECT_EQ(ids,
              "0403_6001_00_ 067b_2303_00_A1 10c4_ea60_00_B2 1a86_7523__C3 1e2d_0061_00_SN0001 "
              "1e2d_0061_00_SN0002 1e2d_0061_02_SN0001 1e2d_0061_02_SN0002 "
              "1e2d_0061_04_SN0001 1e2d_0061_06_SN0001 ___ ");
}

TEST_F(UdevDetect, LookupsAndTheAtPortOfALoggingPort) {
    EXPECT_EQ(all().FindInterface("1e2d", "0061", "02"), Port("/dev/ttyACM1"));
    EXPECT_EQ(all().FindInterface("1E2D", "0061", "02"), nullptr);
    EXPECT_EQ(all().FindInterfaceFriendly("Zavra ZM200 Modem"), Port("/dev/ttyACM0"));
    EXPECT_EQ(all().FindSerialPortName("/dev/ttyUSB2"), Port("/dev/ttyUSB2"));
    ZvInterfaceInfo* net = all().FindFirst(ZvInterfaceFunctionNet);
    ASSERT_NE(net, nullptr);

    // Two modems of one model are two devices; the AT port is the first tty of the same one.
    EXPECT_EQ(detect.FindDeviceOf(net)->FindLast(ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown),
              Port("/dev/ttyACM1"));
    EXPECT_EQ(detect.FindAtInterface("/dev/ttyACM1"), Port("/dev/ttyACM0"));
    EXPECT_EQ(detect.FindAtInterface("/dev/ttyACM3"), Port("/dev/ttyACM2"));
    EXPECT_EQ(detect.FindAtInterface("/dev/ttyS0"), nullptr);
    EXPECT_EQ(detect.FindAtInterface("/dev/mux.ttyACM0/qorvi"), nullptr);
}

TEST_F(UdevDetect, WithoutLibudevEveryRefreshWarnsAndFindsNothing) {
    const char* const missing[] = {"libudev-missing.so.0", "libc.so.6"}; // libc: no entry points
    EXPECT_FALSE(ZvUdev::Instance().Load(missing, 2));
    log.messages.clear();
    detect.Refresh();
    detect.Refresh();
    EXPECT_EQ(log.messages, std::vector<ZvAString>(2, "No device detection mechanism available."));
    EXPECT_EQ(DumpText(detect.Tree()), "Orphan ports\n");

    EXPECT_TRUE(ZvUdev::Instance().Load());
    detect.Refresh();
    EXPECT_EQ(all().size(), 11u); // each refresh starts from nothing
}

} // namespace
