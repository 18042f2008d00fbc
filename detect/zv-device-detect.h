// USB device detection: the detected interfaces (zv-interface.h) grouped by the physical device
// they belong to, with lookups by name, identifier and role. ZvDeviceDetect refreshes the model
// from the platform (zv-device-detect-linux, through libudev loaded at run time).
#pragma once

#include <cstdio>
#include <memory>
#include <vector>

#include "zv-interface.h"

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
