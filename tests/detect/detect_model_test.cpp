// The device model on hand-made records: filter masks over lists and trees. Dumps, grouping and
// display names are checked on detected devices (detect_udev_test).
#include <gtest/gtest.h>

#include "zv-device-detect.h"

namespace {

// Records keyed by one letter: type, function and USB details as given, vid and pid "v" and "p".
class Model : public ::testing::Test {
protected:
    ZvInterfaceInfo* Add(const char* key, int type, int function, bool usb = true) {
        ZvInterfaceInfo* info = store.FindOrAdd(key);
        info->type = static_cast<ZvInterfaceTypeTag>(type);
        info->function = static_cast<ZvInterfaceFunctionTag>(function);
        info->usbDetails = usb;
        info->vid = usb ? "v" : "";
        info->pid = usb ? "p" : "";
        list.push_back(info);
        return info;
    }
    // The keys of the records the mask keeps, in order.
    ZvAString Kept(unsigned mask) {
        ZvInterfaceList copy = list;
        unsigned count = ZvInterfaceTree::FilterInterfaceList(copy, mask);
        ZvAString keys;
        for (const ZvInterfaceInfo* info : copy)
            keys += info->uniqueId;
        EXPECT_EQ(count, keys.size());
        return keys;
    }

    ZvInterfaceStore store;
    ZvInterfaceList list;
};

} // namespace

TEST_F(Model, FilterMasksSelectByFunctionByTypeOrBoth) {
    // key, type, function; "n" has no USB details
    const char* records[] = {"n10", "u10", "m11", "a12", "d13", "014",
                             "125", "t36", "w57", "x60", "z00"};
    for (const char* r : records)
        Add(std::string(r, 1).c_str(), r[1] - '0', r[2] - '0', r[0] != 'n');
    EXPECT_EQ(Kept(0), "numad01twxz");
    EXPECT_EQ(Kept(ZvFilterFunctionUnknown), "nuxz");
    EXPECT_EQ(Kept(ZvFilterFunctionModem | ZvFilterFunctionAt), "ma");
    EXPECT_EQ(Kept(ZvFilterFunctionDiag), "d01");
    EXPECT_EQ(Kept(ZvFilterTypeSerial), "numad0");
    EXPECT_EQ(Kept(ZvFilterTypeUnknown | ZvFilterTypeWinUsb), "wz");
    EXPECT_EQ(Kept((1u << 5) | (1u << 22)), ""); // bits without a meaning select nothing
    EXPECT_EQ(Kept(ZvFilterTypeSerial | ZvFilterFunctionDiag), "d0");
    EXPECT_EQ(Kept(0xffffffffu), "numad01tz");
}

TEST_F(Model, TreeFilterCountsBothListsDropsEmptiedDevicesAndSparesTheOriginal) {
    ZvInterfaceTree tree;
    tree.devices.AddFindDevice("serial")->interfaces = {Add("s", 1, 0), Add("r", 1, 0)};
    tree.devices.AddFindDevice("net")->interfaces = {Add("t", 3, 6)};
    tree.orphans = {Add("o", 1, 0, false)};
    ZvInterfaceTree copy;
    tree.Get(copy);
    EXPECT_EQ(copy.Filter(ZvFilterTypeNet), 1u);
    EXPECT_EQ(copy.devices.Count(), 1u);
    EXPECT_TRUE(copy.orphans.empty());
    EXPECT_EQ(tree.Filter(ZvFilterTypeSerial), 3u);
    EXPECT_EQ(tree.devices.FindDevice(0u)->shortId, "serial");
    EXPECT_EQ(tree.devices.Count(), 1u);
}
