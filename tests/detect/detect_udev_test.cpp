// Detection through the real libudev, run inside a umockdev testbed (run-in-testbed.sh) built
// from two hand-written descriptions:
// - modems.umockdev: two "Zavra" "Zavra ZM200 Modem" modems 1e2d:0061. SN0001 has ttyACM0 on
//   interface 00 (udev property ID_USB_INTERFACE_NUM), ttyACM1 on 02 (sysfs bInterfaceNumber
//   only), a CDC OBEX function on 04 and the network interface wwan0 on 06. SN0002 has ttyACM3
//   on 02 listed before ttyACM2 on 00.
// - adapters.umockdev: ttyUSB0 on 0403:6001 with no strings at all, ttyUSB1 with only a
//   manufacturer, ttyUSB2 with manufacturer and product, ttyUSB3 with only a product and no
//   interface number, and the built-in UART ttyS0 with no USB device.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "zv-device-detect-linux.h"
#include "zv-device-detect.h"
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
    char* buffer = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buffer, &size);
    tree.Dump(out);
    fclose(out);
    ZvAString text(buffer, size);
    free(buffer);
    return text;
}

std::vector<ZvAString> Ids(const ZvInterfaceList& list) {
    std::vector<ZvAString> ids;
    for (const ZvInterfaceInfo* info : list)
        ids.push_back(info->uniqueId);
    return ids;
}

class UdevDetect : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(ZvUdev::Instance().IsLoaded());
        ZvLog::SetLogger(&log);
        detect.Refresh();
    }
    void TearDown() override { ZvLog::SetLogger(nullptr); }

    const ZvInterfaceInfo& Port(const char* node) {
        static ZvInterfaceInfo missing;
        const ZvInterfaceInfo* info = detect.Interfaces().FindSerialPortDev(node);
        EXPECT_NE(info, nullptr) << node;
        return info != nullptr ? *info : missing;
    }

    CapturingLog log;
    ZvDeviceDetect detect;
};

TEST_F(UdevDetect, IdentifiersKeepEmptyPartsAndSortInterfaceNumbers) {
    // vid_pid_mi_serial; the number comes from the property or else the attribute; the UART
    // without USB device is all separators.
    std::vector<ZvAString> expected = {"0403_6001_00_",
                                       "067b_2303_00_A1",
                                       "10c4_ea60_00_B2",
                                       "1a86_7523__C3",
                                       "1e2d_0061_00_SN0001",
                                       "1e2d_0061_00_SN0002",
                                       "1e2d_0061_02_SN0001",
                                       "1e2d_0061_02_SN0002",
                                       "1e2d_0061_04_SN0001",
                                       "1e2d_0061_06_SN0001",
                                       "___"};
    EXPECT_EQ(Ids(detect.Interfaces()), expected);
    EXPECT_EQ(Port("/dev/ttyACM1").mi, "02");
    EXPECT_EQ(Port("/dev/ttyACM0").serial, "SN0001");
    EXPECT_TRUE(log.messages.empty());
}

TEST_F(UdevDetect, FriendlyNamesFromManufacturerAndProduct) {
    EXPECT_EQ(Port("/dev/ttyUSB0").friendlyName, "Unknown");
    EXPECT_EQ(Port("/dev/ttyUSB1").friendlyName, "Acme Device");
    EXPECT_EQ(Port("/dev/ttyUSB2").friendlyName, "Acme Serial Adapter");
    EXPECT_EQ(Port("/dev/ttyUSB3").friendlyName, "Dongle");
    // The product already names the manufacturer.
    EXPECT_EQ(Port("/dev/ttyACM0").friendlyName, "Zavra ZM200 Modem");
    EXPECT_EQ(Port("/dev/ttyS0").friendlyName, "Unknown");
}

TEST_F(UdevDetect, TypesFunctionsAndDeviceNodes) {
    const ZvInterfaceList& all = detect.Interfaces();
    const ZvInterfaceInfo* obex = all.FindInterfaceId("1e2d_0061_04_SN0001");
    ASSERT_NE(obex, nullptr);
    EXPECT_EQ(obex->type, ZvInterfaceTypeObex);
    EXPECT_EQ(obex->function, ZvInterfaceFunctionUnknown);
    EXPECT_EQ(obex->portName, "");

    const ZvInterfaceInfo* net = all.FindInterfaceId("1e2d_0061_06_SN0001");
    ASSERT_NE(net, nullptr);
    EXPECT_EQ(net->type, ZvInterfaceTypeNet);
    EXPECT_EQ(net->function, ZvInterfaceFunctionNet);
    EXPECT_EQ(net->portName, "");

    const ZvInterfaceInfo& tty = Port("/dev/ttyACM3");
    EXPECT_EQ(tty.type, ZvInterfaceTypeSerial);
    EXPECT_EQ(tty.function, ZvInterfaceFunctionUnknown);
    EXPECT_TRUE(tty.usbDetails);
    EXPECT_EQ(tty.portName, "/dev/ttyACM3");
    EXPECT_EQ(tty.vid, "1e2d");
    EXPECT_EQ(tty.pid, "0061");
}

TEST_F(UdevDetect, GroupsInterfacesBySerialNumberAndNamesDevices) {
    const ZvDeviceList& devices = detect.Tree().devices;
    ASSERT_EQ(devices.Count(), 6u);
    const ZvDeviceInfo* first = devices.FindDeviceShortId("1e2d_0061_SN0001");
    const ZvDeviceInfo* second = devices.FindDeviceShortId("1e2d_0061_SN0002");
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first->name, "Zavra ZM200 Modem (1e2d:0061)");
    EXPECT_EQ(Ids(first->interfaces),
              (std::vector<ZvAString>{"1e2d_0061_00_SN0001", "1e2d_0061_02_SN0001",
                                      "1e2d_0061_04_SN0001", "1e2d_0061_06_SN0001"}));
    // Listed 02 before 00 in sysfs, still in interface-number order.
    EXPECT_EQ(second->interfaces.size(), 2u);
    EXPECT_EQ(second->interfaces[0]->portName, "/dev/ttyACM2");
    EXPECT_EQ(devices.FindDevice("Zavra ZM200 Modem (1e2d:0061)"), first);
    // A device with one interface has no base name, only the identifiers.
    EXPECT_EQ(devices.FindDeviceShortId("1a86_7523_C3")->name, " (1a86:7523)");

    ASSERT_EQ(detect.Tree().orphans.size(), 1u);
    EXPECT_EQ(detect.Tree().orphans[0]->portName, "/dev/ttyS0");
    EXPECT_EQ(detect.FindDeviceOf(detect.Tree().orphans[0]), nullptr);
}

TEST_F(UdevDetect, LookupsReturnTheFirstMatchInStoreOrder) {
    const ZvInterfaceList& all = detect.Interfaces();
    EXPECT_EQ(all.FindInterface("1e2d", "0061", "02"), &Port("/dev/ttyACM1"));
    EXPECT_EQ(all.FindInterface("1e2d", "0061", "2"), nullptr);
    EXPECT_EQ(all.FindInterface("1E2D", "0061", "02"), nullptr);
    EXPECT_EQ(all.FindInterface("1a86_7523__C3", "Dongle"), &Port("/dev/ttyUSB3"));
    EXPECT_EQ(all.FindInterface("1a86_7523__C3", "dongle"), nullptr);
    EXPECT_EQ(all.FindSerialPortName("/dev/ttyUSB2"), &Port("/dev/ttyUSB2"));
    EXPECT_EQ(all.FindSerialPortName("/dev/ttyUSB9"), nullptr);
    EXPECT_EQ(all.FindInterfaceFriendly("Acme Device"), &Port("/dev/ttyUSB1"));
    EXPECT_EQ(all.FindInterfaceFriendly("Zavra ZM200 Modem"), &Port("/dev/ttyACM0"));
    EXPECT_EQ(all.FindInterfaceId("___"), &Port("/dev/ttyS0"));
    EXPECT_EQ(all.FindFirst(ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown),
              &Port("/dev/ttyUSB0"));
    EXPECT_EQ(all.FindLast(ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown), &Port("/dev/ttyS0"));
    EXPECT_EQ(all.FindFirst(ZvInterfaceFunctionNet), all.FindInterfaceId("1e2d_0061_06_SN0001"));
    EXPECT_EQ(all.FindFirst(ZvInterfaceTypeSerial, ZvInterfaceFunctionDiag), nullptr);
    // Within one device.
    const ZvDeviceInfo* modem = detect.FindDeviceOf(&Port("/dev/ttyACM1"));
    ASSERT_NE(modem, nullptr);
    EXPECT_EQ(modem->FindLast(ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown),
              &Port("/dev/ttyACM1"));
    EXPECT_EQ(modem->FindFirst(ZvInterfaceFunctionUnknown), &Port("/dev/ttyACM0"));
    EXPECT_EQ(modem->FindLast(ZvInterfaceFunctionUnknown)->type, ZvInterfaceTypeObex);
}

TEST_F(UdevDetect, AtInterfaceIsTheFirstSerialPortOfTheLoggingPortsDevice) {
    EXPECT_EQ(detect.FindAtInterface("/dev/ttyACM1"), &Port("/dev/ttyACM0"));
    EXPECT_EQ(detect.FindAtInterface("/dev/ttyACM0"), &Port("/dev/ttyACM0"));
    EXPECT_EQ(detect.FindAtInterface("/dev/ttyACM3"), &Port("/dev/ttyACM2"));
    EXPECT_EQ(detect.FindAtInterface("/dev/ttyS0"), nullptr);
    EXPECT_EQ(detect.FindAtInterface("/dev/mux.ttyACM0/qorvi"), nullptr);
}

TEST_F(UdevDetect, DumpListsDevicesThenOrphans) {
    const char* expected =
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
        "SERIAL  UNKNOWN VID:  PID:  MI:  Unknown /dev/ttyS0\n";
    EXPECT_EQ(DumpText(detect.Tree()), expected);
}

TEST_F(UdevDetect, FilteringACopyLeavesTheDetectedTreeWhole) {
    ZvInterfaceTree copy;
    detect.Tree().Get(copy);
    EXPECT_EQ(copy.Filter(ZvFilterTypeNet | ZvFilterTypeObex), 2u);
    EXPECT_EQ(copy.devices.Count(), 1u);
    EXPECT_TRUE(copy.orphans.empty());
    ZvInterfaceList all;
    detect.Tree().GetAll(all);
    EXPECT_EQ(all.size(), 11u);

    detect.Tree().Get(copy);
    EXPECT_EQ(copy.Filter(ZvFilterFunctionNet), 1u);
}

TEST_F(UdevDetect, RefreshStartsAfresh) {
    detect.Refresh();
    EXPECT_EQ(detect.Interfaces().size(), 11u);
    EXPECT_EQ(detect.Store().Count(), 11u);
    EXPECT_EQ(detect.Tree().devices.Count(), 6u);
}

TEST_F(UdevDetect, WithoutLibudevWarnsOnEveryRefreshAndFindsNothing) {
    const char* const missing[] = {"libudev-missing.so.0", "libudev-missing.so"};
    EXPECT_FALSE(ZvUdev::Instance().Load(missing, 2));
    log.messages.clear();
    detect.Refresh();
    EXPECT_EQ(log.messages, std::vector<ZvAString>{"No device detection mechanism available."});
    EXPECT_TRUE(detect.Interfaces().empty());
    EXPECT_EQ(DumpText(detect.Tree()), "Orphan ports\n");
    detect.Refresh();
    EXPECT_EQ(log.messages.size(), 2u);

    EXPECT_TRUE(ZvUdev::Instance().Load());
    detect.Refresh();
    EXPECT_EQ(detect.Interfaces().size(), 11u);
    EXPECT_EQ(log.messages.size(), 2u);
}

TEST_F(UdevDetect, LibraryWithoutTheEntryPointsIsNotTaken) {
    const char* const names[] = {"libc.so.6"};
    EXPECT_FALSE(ZvUdev::Instance().Load(names, 1));
    EXPECT_FALSE(ZvUdev::Instance().IsLoaded());
    detect.Refresh();
    EXPECT_TRUE(detect.Interfaces().empty());
}

} // namespace
