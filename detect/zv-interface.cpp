#include "zv-interface.h"

#include <algorithm>

#include "zv-serial.h"

const char* ZvInterfaceTypeText(int type) {
    static const char* const texts[] = {"UNKNOWN ", "SERIAL  ", "OBEX    ",
                                        "NET     ", "MBIM    ", "WINUSB  "};
    return type > 0 && type <= ZvInterfaceTypeWinUsb ? texts[type] : texts[0];
}

const char* ZvInterfaceFunctionText(int function) {
    static const char* const texts[] = {"UNKNOWN ", "MODEM   ", "AT      ", "DIAG    ",
                                        "DIAG 0  ", "DIAG 1  ", "NET     "};
    return function > 0 && function <= ZvInterfaceFunctionNet ? texts[function] : texts[0];
}

void ZvInterfaceInfo::Dump(FILE* out, const char* prefix) const {
    fprintf(out, "%s%s", ZvInterfaceTypeText(type), ZvInterfaceFunctionText(function));
    if (usbDetails)
        fprintf(out, "VID: %s PID: %s MI: %s ", vid.c_str(), pid.c_str(), mi.c_str());
    // Inside a device the common part of the names is already in the device's heading.
    ZvAString rest;
    if (prefix != nullptr && friendlyName.StartsWith(prefix, rest))
        fputs(rest.Trim().c_str(), out);
    else
        fputs(friendlyName.c_str(), out);
    fputc(' ', out);
    if (type == ZvInterfaceTypeSerial)
        fprintf(out, "%-5s", portName.c_str());
    fputc('\n', out);
}

// ---------------------------------------------------------------------------------------------
// ZvInterfaceList

namespace {

template <class Match>
ZvInterfaceInfo* FindFirstIf(const ZvInterfaceList& list, Match match) {
    for (ZvInterfaceInfo* info : list)
        if (match(*info))
            return info;
    return nullptr;
}

template <class Match>
ZvInterfaceInfo* FindLastIf(const ZvInterfaceList& list, Match match) {
    for (auto it = list.rbegin(); it != list.rend(); ++it)
        if (match(**it))
            return *it;
    return nullptr;
}

bool Equals(const ZvAString& text, const char* other) {
    return other != nullptr && text == other;
}

} // namespace

ZvInterfaceInfo* ZvInterfaceList::FindInterface(const char* vid, const char* pid,
                                                const char* mi) const {
    return FindFirstIf(*this, [&](const ZvInterfaceInfo& i) {
        return i.usbDetails && Equals(i.vid, vid) && Equals(i.pid, pid) && Equals(i.mi, mi);
    });
}

ZvInterfaceInfo* ZvInterfaceList::FindInterface(const char* id, const char* friendly) const {
    return FindFirstIf(*this, [&](const ZvInterfaceInfo& i) {
        return Equals(i.uniqueId, id) && Equals(i.friendlyName, friendly);
    });
}

ZvInterfaceInfo* ZvInterfaceList::FindSerialPortName(const char* name) const {
    return FindFirstIf(*this, [&](const ZvInterfaceInfo& i) {
        return i.type == ZvInterfaceTypeSerial && Equals(i.portName, name);
    });
}

ZvInterfaceInfo* ZvInterfaceList::FindSerialPort(const char* path) const {
    return FindFirstIf(*this, [&](const ZvInterfaceInfo& i) {
        return i.type == ZvInterfaceTypeSerial && !i.portName.empty() &&
               ZvSerial::IsSamePort(i.portName.c_str(), path);
    });
}

ZvInterfaceInfo* ZvInterfaceList::FindInterfaceFriendly(const char* name) const {
    return FindFirstIf(*this,
                       [&](const ZvInterfaceInfo& i) { return Equals(i.friendlyName, name); });
}

ZvInterfaceInfo* ZvInterfaceList::FindInterfaceId(const char* id) const {
    return FindFirstIf(*this, [&](const ZvInterfaceInfo& i) { return Equals(i.uniqueId, id); });
}

ZvInterfaceInfo* ZvInterfaceList::FindSerialPortDev(const char* dev) const {
    return FindFirstIf(*this, [&](const ZvInterfaceInfo& i) { return Equals(i.portDev, dev); });
}

ZvInterfaceInfo* ZvInterfaceList::FindFirst(ZvInterfaceTypeTag type,
                                            ZvInterfaceFunctionTag function) const {
    return FindFirstIf(
        *this, [&](const ZvInterfaceInfo& i) { return i.type == type && i.function == function; });
}

ZvInterfaceInfo* ZvInterfaceList::FindLast(ZvInterfaceTypeTag type,
                                           ZvInterfaceFunctionTag function) const {
    return FindLastIf(
        *this, [&](const ZvInterfaceInfo& i) { return i.type == type && i.function == function; });
}

ZvInterfaceInfo* ZvInterfaceList::FindFirst(ZvInterfaceFunctionTag function) const {
    return FindFirstIf(*this, [&](const ZvInterfaceInfo& i) { return i.function == function; });
}

ZvInterfaceInfo* ZvInterfaceList::FindLast(ZvInterfaceFunctionTag function) const {
    return FindLastIf(*this, [&](const ZvInterfaceInfo& i) { return i.function == function; });
}

bool ZvInterfaceList::Contains(const ZvInterfaceInfo* info) const {
    return std::find(begin(), end(), info) != end();
}

// ---------------------------------------------------------------------------------------------
// ZvInterfaceStore

ZvInterfaceInfo* ZvInterfaceStore::Find(const char* id) const {
    for (const auto& record : m_records)
        if (Equals(record->uniqueId, id))
            return record.get();
    return nullptr;
}

ZvInterfaceInfo* ZvInterfaceStore::FindOrAdd(const char* id, bool* created) {
    ZvInterfaceInfo* found = Find(id);
    if (created != nullptr)
        *created = found == nullptr;
    if (found != nullptr)
        return found;
    m_records.push_back(std::make_unique<ZvInterfaceInfo>());
    m_records.back()->uniqueId = id;
    return m_records.back().get();
}

// Byte-wise order of the unique identifiers (vid_pid_mi_serial). udev reports the interface
// number as two hexadecimal digits, so the interfaces of one device come in interface-number
// order: the first SERIAL interface of a device is its lowest-numbered tty, the one the tool
// takes as the modem's AT port. Devices of one model interleave here; the tree separates them.
void ZvInterfaceStore::Sort() {
    std::stable_sort(
        m_records.begin(), m_records.end(),
        [](const std::unique_ptr<ZvInterfaceInfo>& a, const std::unique_ptr<ZvInterfaceInfo>& b) {
            return a->uniqueId < b->uniqueId;
        });
}

void ZvInterfaceStore::GetAll(ZvInterfaceList& out) const {
    out.clear();
    for (const auto& record : m_records)
        out.push_back(record.get());
}

bool ZvInterfaceInfo::Accepts(unsigned mask) const {
    if ((mask & 0xffff0000u) != 0) {
        if (type < 0 || type > ZvInterfaceTypeWinUsb)
            return false;
        if ((mask & (1u << (16 + type))) == 0)
            return false;
    }
    if ((mask & 0xffffu) != 0) {
        if (!usbDetails)
            return (mask & ZvFilterFunctionUnknown) != 0;
        unsigned bit;
        switch (function) {
        case ZvInterfaceFunctionUnknown:
            bit = ZvFilterFunctionUnknown;
            break;
        case ZvInterfaceFunctionModem:
            bit = ZvFilterFunctionModem;
            break;
        case ZvInterfaceFunctionAt:
            bit = ZvFilterFunctionAt;
            break;
        case ZvInterfaceFunctionDiag:
        case ZvInterfaceFunctionDiag0:
        case ZvInterfaceFunctionDiag1:
            bit = ZvFilterFunctionDiag;
            break;
        case ZvInterfaceFunctionNet:
            bit = ZvFilterFunctionNet;
            break;
        default:
            return false;
        }
        if ((mask & bit) == 0)
            return false;
    }
    return true;
}
