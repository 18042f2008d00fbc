// Device detection model: the detected interfaces (serial ttys, network interfaces, OBEX
// functions), grouped by the physical device they belong to, with lookups by name, identifier and
// role. ZvDeviceDetect refreshes the model from the platform.
#pragma once

#include <cstdio>
#include <memory>
#include <vector>

#include "zv-string-ascii.h"

// Kind of interface. Values out of range are printed and filtered as unknown.
enum ZvInterfaceTypeTag : int {
    ZvInterfaceTypeUnknown = 0,
    ZvInterfaceTypeSerial = 1,
    ZvInterfaceTypeObex = 2,
    ZvInterfaceTypeNet = 3,
    ZvInterfaceTypeMbim = 4,
    ZvInterfaceTypeWinUsb = 5,
};

// Role of an interface within its device. On Linux only network interfaces get one (Net).
enum ZvInterfaceFunctionTag : int {
    ZvInterfaceFunctionUnknown = 0,
    ZvInterfaceFunctionModem = 1,
    ZvInterfaceFunctionAt = 2,
    ZvInterfaceFunctionDiag = 3,
    ZvInterfaceFunctionDiag0 = 4,
    ZvInterfaceFunctionDiag1 = 5,
    ZvInterfaceFunctionNet = 6,
};

// The tag texts, padded with spaces to 8 characters ("SERIAL  ").
const char* ZvInterfaceTypeText(int type);
const char* ZvInterfaceFunctionText(int function);

// One detected interface with its USB identity.
struct ZvInterfaceInfo {
    ZvInterfaceTypeTag type = ZvInterfaceTypeUnknown;
    ZvInterfaceFunctionTag function = ZvInterfaceFunctionUnknown;
    bool usbDetails = false; // true once vid, pid, mi and serial were filled
    ZvAString vid;           // vendor identifier, hexadecimal text ("12ab")
    ZvAString pid;           // product identifier, hexadecimal text
    ZvAString mi;            // interface number, hexadecimal text ("02")
    ZvAString serial;        // serial number of the USB device
    ZvAString friendlyName;  // "Manufacturer Product"
    ZvAString uniqueId;      // vid_pid_mi_serial; the key of the record
    ZvAString portName;      // the device node ("/dev/ttyACM0"), the name a port is opened by
    ZvAString portDev;       // the device node as well

    // One line: tags, USB identity, the friendly name without `prefix`, and the port of a
    // serial interface.
    void Dump(FILE* out, const char* prefix) const;
};

// Interface mask bits of ZvInterfaceTree::FilterInterfaceList. The low half selects by function
// (and bit 0 also keeps interfaces without USB details), the high half by type.
enum : unsigned {
    ZvFilterFunctionUnknown = 1u << 0,
    ZvFilterFunctionModem = 1u << 1,
    ZvFilterFunctionAt = 1u << 2,
    ZvFilterFunctionDiag = 1u << 3, // DIAG, DIAG 0 and DIAG 1
    ZvFilterFunctionNet = 1u << 4,
    ZvFilterTypeUnknown = 1u << 16,
    ZvFilterTypeSerial = 1u << 17,
    ZvFilterTypeObex = 1u << 18,
    ZvFilterTypeNet = 1u << 19,
    ZvFilterTypeMbim = 1u << 20,
    ZvFilterTypeWinUsb = 1u << 21,
};

// An ordered list of interfaces that are owned elsewhere (by a ZvInterfaceStore). Every lookup
// returns the first (or last) match in list order, or null; text comparisons are exact.
class ZvInterfaceList : public std::vector<ZvInterfaceInfo*> {
public:
    using std::vector<ZvInterfaceInfo*>::vector;

    ZvInterfaceInfo* FindInterface(const char* vid, const char* pid, const char* mi) const;
    ZvInterfaceInfo* FindInterface(const char* id, const char* friendly) const;
    // A SERIAL interface whose port name equals `name`.
    ZvInterfaceInfo* FindSerialPortName(const char* name) const;
    // A SERIAL interface whose port is the device that `path` reaches (ZvSerial::IsSamePort): a
    // /dev/serial/by-id link finds the interface of its kernel name.
    ZvInterfaceInfo* FindSerialPort(const char* path) const;
    ZvInterfaceInfo* FindInterfaceFriendly(const char* name) const;
    ZvInterfaceInfo* FindInterfaceId(const char* id) const;
    // Any type whose port device equals `dev`.
    ZvInterfaceInfo* FindSerialPortDev(const char* dev) const;
    ZvInterfaceInfo* FindFirst(ZvInterfaceTypeTag type, ZvInterfaceFunctionTag function) const;
    ZvInterfaceInfo* FindLast(ZvInterfaceTypeTag type, ZvInterfaceFunctionTag function) const;
    ZvInterfaceInfo* FindFirst(ZvInterfaceFunctionTag function) const;
    ZvInterfaceInfo* FindLast(ZvInterfaceFunctionTag function) const;
    bool Contains(const ZvInterfaceInfo* info) const;
};

// One physical device and its interfaces in store order.
class ZvDeviceInfo {
public:
    ZvAString shortId;  // vid_pid_serial of the USB device: the grouping key
    ZvAString baseName; // common prefix of the interfaces' friendly names
    ZvAString name;     // display name: base name and " (vid:pid)"
    ZvInterfaceList interfaces;

    ZvInterfaceInfo* FindFirst(ZvInterfaceTypeTag type, ZvInterfaceFunctionTag function) const {
        return interfaces.FindFirst(type, function);
    }
    ZvInterfaceInfo* FindLast(ZvInterfaceTypeTag type, ZvInterfaceFunctionTag function) const {
        return interfaces.FindLast(type, function);
    }
    ZvInterfaceInfo* FindFirst(ZvInterfaceFunctionTag function) const {
        return interfaces.FindFirst(function);
    }
    ZvInterfaceInfo* FindLast(ZvInterfaceFunctionTag function) const {
        return interfaces.FindLast(function);
    }

    // Length of the common prefix of two texts (byte by byte, case-sensitive).
    static unsigned CompareNames(const ZvAString& a, const ZvAString& b);
    // Sets the base name from the friendly names; empty with fewer than two interfaces.
    void SetName();
};

// The owned records of every detected interface, keyed by unique identifier. Records keep their
// address for their whole life, so lists may point at them across Sort.
class ZvInterfaceStore {
public:
    ZvInterfaceInfo* Find(const char* id) const;
    // The record for `id`, created (with only its identifier set) when missing.
    ZvInterfaceInfo* FindOrAdd(const char* id, bool* created = nullptr);
    void Clear() { m_records.clear(); }
    // Orders the records by unique identifier.
    void Sort();

    unsigned Count() const { return static_cast<unsigned>(m_records.size()); }
    ZvInterfaceInfo* operator[](unsigned index) const {
        return index < m_records.size() ? m_records[index].get() : nullptr;
    }
    // Every record, in store order.
    void GetAll(ZvInterfaceList& out) const;

private:
    std::vector<std::unique_ptr<ZvInterfaceInfo>> m_records;
};

// The devices, owned; copying copies the devices (their interfaces stay shared).
class ZvDeviceList {
public:
    ZvDeviceList() = default;
    ZvDeviceList(const ZvDeviceList& other) { *this = other; }
    ZvDeviceList& operator=(const ZvDeviceList& other);

    unsigned Count() const { return static_cast<unsigned>(m_devices.size()); }
    ZvDeviceInfo* FindDevice(unsigned index) const;
    ZvDeviceInfo* FindDevice(int index) const {
        return index < 0 ? nullptr : FindDevice(static_cast<unsigned>(index));
    }
    // By display name.
    ZvDeviceInfo* FindDevice(const char* name) const;
    ZvDeviceInfo* FindDeviceShortId(const char* shortId) const;
    ZvDeviceInfo* AddFindDevice(const char* shortId);
    // The device that holds `info`, or null (an orphan port, or not in this list).
    ZvDeviceInfo* FindDeviceOf(const ZvInterfaceInfo* info) const;
    // Base and display names of every device.
    void SetNames();
    // Filters every device's interfaces; devices left empty are dropped. Returns the interfaces
    // kept.
    unsigned Filter(unsigned mask);
    void Clear() { m_devices.clear(); }

private:
    std::vector<std::unique_ptr<ZvDeviceInfo>> m_devices;
};

// The devices plus the interfaces that belong to no device (orphan ports).
class ZvInterfaceTree {
public:
    ZvDeviceList devices;
    ZvInterfaceList orphans;

    // Groups the store's records into devices, one per USB vendor, product and serial number,
    // in store order; interfaces without a USB device become orphan ports. Names the devices.
    void Set(const ZvInterfaceStore& store);
    // Keeps only the interfaces the mask accepts; returns how many were kept in total.
    unsigned Filter(unsigned mask);
    static unsigned FilterInterfaceList(ZvInterfaceList& list, unsigned mask);
    void Get(ZvInterfaceTree& out) const { out = *this; }
    void Clear();
    // Every interface: the devices' in device order, then the orphan ports.
    void GetAll(ZvInterfaceList& out) const;
    void Dump(FILE* out) const;
};

// Owns what detection found and refreshes it from the platform.
class ZvDeviceDetect {
public:
    // Clears everything, enumerates the platform's interfaces and rebuilds the tree.
    void Refresh();

    const ZvInterfaceStore& Store() const { return m_store; }
    const ZvInterfaceTree& Tree() const { return m_tree; }
    // Every detected interface in store order (by unique identifier).
    const ZvInterfaceList& Interfaces() const { return m_interfaces; }
    // The device holding `info`, or null for an orphan port.
    ZvDeviceInfo* FindDeviceOf(const ZvInterfaceInfo* info) const {
        return m_tree.devices.FindDeviceOf(info);
    }
    void Dump(FILE* out) const { m_tree.Dump(out); }

    // The modem's AT port for the logging port `portName`: within the device of the SERIAL
    // interface on that port (the same device, whatever name reaches it), the first SERIAL MODEM
    // interface, else the first SERIAL one of unknown function. Null when the port is not detected
    // or belongs to no device.
    ZvInterfaceInfo* FindAtInterface(const char* portName) const;

    // The list the platform enumeration checks before filling a record: every interface found
    // so far in the current refresh.
    ZvInterfaceList& CurrentInterfaces() { return m_interfaces; }

private:
    ZvInterfaceStore m_store;
    ZvInterfaceTree m_tree;
    ZvInterfaceList m_interfaces;
};

// Platform enumeration into `store` (zv-device-detect-linux). Returns false when no detection
// mechanism is available.
bool OsGetInterfaces(ZvDeviceDetect& detect, ZvInterfaceStore& store);
