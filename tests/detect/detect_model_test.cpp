// The device model on hand-made records: names, grouping, masks and dumps.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "zv-device-detect.h"
#include "zv-string-list-ascii.h"

namespace {

ZvAString Capture(const ZvInterfaceInfo& info, const char* prefix) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&buffer, &size);
    info.Dump(out, prefix);
    fclose(out);
    ZvAString text(buffer, size);
    free(buffer);
    return text;
}

// A store of USB interfaces, each given as id, type, function and friendly name; the identity
// fields are taken from the id "vid_pid_mi_serial".
class ModelTest : public ::testing::Test {
protected:
    ZvInterfaceInfo* Add(const char* id, ZvInterfaceTypeTag type, ZvInterfaceFunctionTag function,
                         const char* friendly, bool usb = true) {
        ZvInterfaceInfo* info = store.FindOrAdd(id);
        ZvAStringList parts;
        parts.SetDelimited(id, '_');
        info->type = type;
        info->function = function;
        info->usbDetails = usb;
        if (usb) {
            info->vid = parts[0];
            info->pid = parts[1];
            info->mi = parts[2];
            info->serial = parts[3];
        }
        info->friendlyName = friendly;
        return info;
    }

    ZvInterfaceStore store;
};

} // namespace

TEST(InterfaceTags, TextsArePaddedAndOutOfRangeIsUnknown) {
    EXPECT_STREQ(ZvInterfaceTypeText(ZvInterfaceTypeWinUsb), "WINUSB  ");
    EXPECT_STREQ(ZvInterfaceTypeText(6), "UNKNOWN ");
    EXPECT_STREQ(ZvInterfaceTypeText(-1), "UNKNOWN ");
    EXPECT_STREQ(ZvInterfaceFunctionText(ZvInterfaceFunctionDiag1), "DIAG 1  ");
    EXPECT_STREQ(ZvInterfaceFunctionText(ZvInterfaceFunctionNet), "NET     ");
    EXPECT_STREQ(ZvInterfaceFunctionText(7), "UNKNOWN ");
}

TEST(InterfaceDump, PrintsUsbIdentityRestOfNameAndSerialPort) {
    ZvInterfaceInfo info;
    info.type = ZvInterfaceTypeSerial;
    info.function = ZvInterfaceFunctionAt;
    info.usbDetails = true;
    info.vid = "12ab";
    info.pid = "34cd";
    info.mi = "02";
    info.friendlyName = "Zavra Modem  AT Port";
    info.portName = "/dev/ttyACM1";
    EXPECT_EQ(Capture(info, "Zavra Modem"),
              "SERIAL  AT      VID: 12ab PID: 34cd MI: 02 AT Port /dev/ttyACM1\n");
    EXPECT_EQ(Capture(info, "Other"),
              "SERIAL  AT      VID: 12ab PID: 34cd MI: 02 Zavra Modem  AT Port /dev/ttyACM1\n");
    info.portName = "/x";
    EXPECT_EQ(Capture(info, nullptr),
              "SERIAL  AT      VID: 12ab PID: 34cd MI: 02 Zavra Modem  AT Port /x   \n");

    // No USB identity and not serial: no identifiers and no port field.
    info.type = static_cast<ZvInterfaceTypeTag>(9);
    info.function = ZvInterfaceFunctionDiag0;
    info.usbDetails = false;
    EXPECT_EQ(Capture(info, ""), "UNKNOWN DIAG 0  Zavra Modem  AT Port \n");
}

TEST(DeviceNames, CommonPrefixLength) {
    EXPECT_EQ(ZvDeviceInfo::CompareNames("Modem AT", "Modem Diag"), 6u);
    EXPECT_EQ(ZvDeviceInfo::CompareNames("Modem", "Modem Diag"), 5u);
    EXPECT_EQ(ZvDeviceInfo::CompareNames("modem", "Modem"), 0u);
    EXPECT_EQ(ZvDeviceInfo::CompareNames("", "Modem"), 0u);
}

TEST_F(ModelTest, BaseNameIsTheTrimmedCommonPrefixOfNonEmptyFriendlyNames) {
    ZvDeviceInfo device;
    device.interfaces.push_back(
        Add("1_2_00_S", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Zavra Modem AT"));
    device.SetName();
    EXPECT_EQ(device.baseName, ""); // fewer than two interfaces
    device.interfaces.push_back(
        Add("1_2_01_S", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, ""));
    device.interfaces.push_back(
        Add("1_2_02_S", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Zavra Modem Diag"));
    device.interfaces.push_back(
        Add("1_2_03_S", ZvInterfaceTypeNet, ZvInterfaceFunctionNet, "Zavra Modem Network"));
    device.baseName = "stale";
    device.SetName();
    EXPECT_EQ(device.baseName, "Zavra Modem");

    // A short reference caps the length.
    device.interfaces.front()->friendlyName = "Zavra";
    device.SetName();
    EXPECT_EQ(device.baseName, "Zavra");

    device.interfaces.back()->friendlyName = "Other";
    device.SetName();
    EXPECT_EQ(device.baseName, "");

    // Only one non-empty name among several interfaces: the whole name, trimmed.
    for (ZvInterfaceInfo* info : device.interfaces)
        info->friendlyName = "";
    device.interfaces[2]->friendlyName = " Solo\t";
    device.SetName();
    EXPECT_EQ(device.baseName, "Solo");
}

TEST_F(ModelTest, SetGroupsByVendorProductAndSerialAndNamesDevices) {
    Add("12ab_34cd_02_SN2", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Zavra Modem");
    Add("12ab_34cd_00_SN1", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Zavra Modem");
    Add("12ab_34cd_02_SN1", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Zavra Modem");
    Add("12ab_34cd_00_SN2", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Zavra Modem");
    Add("12ab_34ce_00_SN1", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Zavra Modem");
    Add("uart", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "UART", false);
    Add("___", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Unknown");
    store.Sort();
    ZvInterfaceTree tree;
    tree.Set(store);

    ASSERT_EQ(tree.devices.Count(), 3u);
    const ZvDeviceInfo* first = tree.devices.FindDevice(0u);
    EXPECT_EQ(first->shortId, "12ab_34cd_SN1");
    EXPECT_EQ(first->name, "Zavra Modem (12ab:34cd)");
    ASSERT_EQ(first->interfaces.size(), 2u);
    EXPECT_EQ(first->interfaces[0]->mi, "00");
    EXPECT_EQ(first->interfaces[1]->mi, "02");
    EXPECT_EQ(tree.devices.FindDevice(1u)->shortId, "12ab_34cd_SN2");
    EXPECT_EQ(tree.devices.FindDevice(2u)->name, " (12ab:34ce)");
    EXPECT_EQ(tree.devices.FindDevice(3u), nullptr);
    EXPECT_EQ(tree.devices.FindDevice("Zavra Modem (12ab:34cd)"), first);
    EXPECT_EQ(tree.devices.FindDeviceOf(first->interfaces[1]), first);

    ASSERT_EQ(tree.orphans.size(), 2u);
    EXPECT_EQ(tree.orphans[0]->uniqueId, "___");
    EXPECT_EQ(tree.orphans[1]->uniqueId, "uart");

    // Setting again replaces what was there.
    tree.Set(store);
    EXPECT_EQ(tree.devices.Count(), 3u);
    EXPECT_EQ(tree.orphans.size(), 2u);
}

TEST_F(ModelTest, DisplayNameHasIdentifiersOnlyWhenTheFirstInterfaceHasUsbDetails) {
    ZvDeviceList devices;
    ZvDeviceInfo* device = devices.AddFindDevice("a");
    EXPECT_EQ(devices.AddFindDevice("a"), device);
    device->interfaces.push_back(
        Add("x", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Board Port A", false));
    device->interfaces.push_back(
        Add("1_2_3_4", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "Board Port B"));
    devices.SetNames();
    EXPECT_EQ(device->name, "Board Port");
    std::swap(device->interfaces[0], device->interfaces[1]);
    devices.SetNames();
    EXPECT_EQ(device->name, "Board Port (1:2)");
}

TEST_F(ModelTest, StoreKeepsOneRecordPerIdAndAddressesAcrossSort) {
    bool created = false;
    ZvInterfaceInfo* b = store.FindOrAdd("b", &created);
    EXPECT_TRUE(created);
    ZvInterfaceInfo* a = store.FindOrAdd("a", &created);
    EXPECT_EQ(store.FindOrAdd("b", &created), b);
    EXPECT_FALSE(created);
    EXPECT_EQ(store.Find("c"), nullptr);
    store.Sort();
    EXPECT_EQ(store[0], a);
    EXPECT_EQ(store[1], b);
    EXPECT_EQ(store[2], nullptr);
    EXPECT_EQ(b->uniqueId, "b");
    store.Clear();
    EXPECT_EQ(store.Count(), 0u);
}

TEST_F(ModelTest, FindFirstAndLastByTags) {
    ZvInterfaceList list;
    list.push_back(Add("1_1_00_", ZvInterfaceTypeSerial, ZvInterfaceFunctionDiag, "A"));
    list.push_back(Add("1_1_01_", ZvInterfaceTypeSerial, ZvInterfaceFunctionAt, "B"));
    list.push_back(Add("1_1_02_", ZvInterfaceTypeNet, ZvInterfaceFunctionDiag, "C"));
    list.push_back(Add("1_1_03_", ZvInterfaceTypeSerial, ZvInterfaceFunctionDiag, "D"));
    EXPECT_EQ(list.FindFirst(ZvInterfaceFunctionDiag), list[0]);
    EXPECT_EQ(list.FindLast(ZvInterfaceFunctionDiag), list[3]);
    EXPECT_EQ(list.FindFirst(ZvInterfaceTypeNet, ZvInterfaceFunctionDiag), list[2]);
    EXPECT_EQ(list.FindLast(ZvInterfaceTypeSerial, ZvInterfaceFunctionDiag), list[3]);
    EXPECT_EQ(list.FindFirst(ZvInterfaceTypeSerial, ZvInterfaceFunctionModem), nullptr);
    EXPECT_EQ(list.FindLast(ZvInterfaceFunctionNet), nullptr);
    // A serial port name matches SERIAL interfaces only; the port device any type.
    list[2]->portName = "/dev/x";
    list[2]->portDev = "/dev/x";
    EXPECT_EQ(list.FindSerialPortName("/dev/x"), nullptr);
    EXPECT_EQ(list.FindSerialPortDev("/dev/x"), list[2]);
    // An interface without USB details never matches by identifiers.
    list[1]->usbDetails = false;
    EXPECT_EQ(list.FindInterface("1", "1", "01"), nullptr);
    EXPECT_EQ(list.FindInterface("1", "1", "00"), list[0]);
}

namespace {

// One interface of each kind the masks tell apart, in a fixed order.
class FilterTest : public ModelTest {
protected:
    void SetUp() override {
        all.push_back(Add("n_n_0_", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, "", false));
        all.push_back(Add("u_u_1_", ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown, ""));
        all.push_back(Add("m_m_2_", ZvInterfaceTypeSerial, ZvInterfaceFunctionModem, ""));
        all.push_back(Add("a_a_3_", ZvInterfaceTypeSerial, ZvInterfaceFunctionAt, ""));
        all.push_back(Add("d_d_4_", ZvInterfaceTypeSerial, ZvInterfaceFunctionDiag, ""));
        all.push_back(Add("d0_d0_5_", ZvInterfaceTypeSerial, ZvInterfaceFunctionDiag0, ""));
        all.push_back(Add("d1_d1_6_", ZvInterfaceTypeObex, ZvInterfaceFunctionDiag1, ""));
        all.push_back(Add("t_t_7_", ZvInterfaceTypeNet, ZvInterfaceFunctionNet, ""));
        all.push_back(
            Add("w_w_8_", ZvInterfaceTypeWinUsb, static_cast<ZvInterfaceFunctionTag>(7), ""));
        all.push_back(
            Add("x_x_9_", static_cast<ZvInterfaceTypeTag>(6), ZvInterfaceFunctionUnknown, ""));
        all.push_back(Add("z_z_a_", ZvInterfaceTypeUnknown, ZvInterfaceFunctionUnknown, ""));
    }

    std::vector<ZvAString> Kept(unsigned mask) {
        ZvInterfaceList list = all;
        unsigned count = ZvInterfaceTree::FilterInterfaceList(list, mask);
        EXPECT_EQ(count, list.size());
        std::vector<ZvAString> ids;
        for (const ZvInterfaceInfo* info : list)
            ids.push_back(info->uniqueId.substr(0, info->uniqueId.find('_')));
        return ids;
    }

    ZvInterfaceList all;
};

using Ids = std::vector<ZvAString>;

} // namespace

TEST_F(FilterTest, ZeroKeepsEverything) {
    EXPECT_EQ(Kept(0).size(), all.size());
}

TEST_F(FilterTest, FunctionHalf) {
    EXPECT_EQ(Kept(ZvFilterFunctionUnknown), (Ids{"n", "u", "x", "z"}));
    EXPECT_EQ(Kept(ZvFilterFunctionModem | ZvFilterFunctionAt), (Ids{"m", "a"}));
    EXPECT_EQ(Kept(ZvFilterFunctionDiag), (Ids{"d", "d0", "d1"}));
    EXPECT_EQ(Kept(ZvFilterFunctionNet), (Ids{"t"}));
    // Bits 5 to 15 select no function, and without bit 0 no interface lacking USB details.
    EXPECT_EQ(Kept(1u << 5), Ids{});
}

TEST_F(FilterTest, TypeHalf) {
    EXPECT_EQ(Kept(ZvFilterTypeSerial), (Ids{"n", "u", "m", "a", "d", "d0"}));
    EXPECT_EQ(Kept(ZvFilterTypeUnknown), (Ids{"z"}));
    EXPECT_EQ(Kept(ZvFilterTypeObex | ZvFilterTypeNet | ZvFilterTypeWinUsb), (Ids{"d1", "t", "w"}));
    // Any high bit switches the type test on; a type above 5 never passes.
    EXPECT_EQ(Kept(1u << 22), Ids{});
    EXPECT_EQ(Kept(0xffff0000u), (Ids{"n", "u", "m", "a", "d", "d0", "d1", "t", "w", "z"}));
}

TEST_F(FilterTest, BothHalvesMustAccept) {
    EXPECT_EQ(Kept(ZvFilterTypeSerial | ZvFilterFunctionDiag), (Ids{"d", "d0"}));
    EXPECT_EQ(Kept(ZvFilterTypeSerial | ZvFilterFunctionUnknown), (Ids{"n", "u"}));
    EXPECT_EQ(Kept(0xffffffffu), (Ids{"n", "u", "m", "a", "d", "d0", "d1", "t", "z"}));
}

TEST_F(FilterTest, TreeFilterCountsBothListsAndDropsEmptiedDevices) {
    ZvInterfaceTree tree;
    ZvDeviceInfo* serial = tree.devices.AddFindDevice("serial");
    serial->interfaces.assign(all.begin() + 1, all.begin() + 6);
    ZvDeviceInfo* other = tree.devices.AddFindDevice("other");
    other->interfaces.assign(all.begin() + 6, all.end());
    tree.orphans.push_back(all[0]);

    ZvInterfaceTree copy;
    tree.Get(copy);
    EXPECT_EQ(copy.Filter(ZvFilterTypeSerial), 6u);
    EXPECT_EQ(copy.devices.Count(), 1u);
    EXPECT_EQ(copy.devices.FindDevice(0u)->shortId, "serial");
    EXPECT_EQ(copy.orphans.size(), 1u);

    // The original is untouched by filtering its copy.
    EXPECT_EQ(tree.devices.Count(), 2u);
    EXPECT_EQ(tree.Filter(ZvFilterFunctionNet), 1u);
    EXPECT_EQ(tree.devices.FindDevice(0u)->shortId, "other");
    EXPECT_TRUE(tree.orphans.empty());
}
