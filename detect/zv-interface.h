// The detected interfaces (serial ttys, network interfaces, OBEX functions) with their USB
// identity, the lists that look them up and the store that owns them.
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
    // Whether an interface mask (below) keeps this interface.
    bool Accepts(unsigned mask) const;
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
