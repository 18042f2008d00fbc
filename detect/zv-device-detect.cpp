// Device detection model: interface records, their grouping into devices, lookups and dumps.
#include "zv-device-detect.h"

#include <algorithm>
#include <cstring>

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
// ZvDeviceInfo

unsigned ZvDeviceInfo::CompareNames(const ZvAString& a, const ZvAString& b) {
    size_t shorter = std::min(a.size(), b.size());
    size_t n = 0;
    while (n < shorter && a[n] == b[n])
        ++n;
    return static_cast<unsigned>(n);
}

void ZvDeviceInfo::SetName() {
    baseName.clear();
    if (interfaces.size() < 2)
        return;
    const ZvInterfaceInfo* reference = nullptr;
    unsigned length = 0;
    for (const ZvInterfaceInfo* info : interfaces) {
        if (info->friendlyName.empty())
            continue;
        if (reference == nullptr) {
            reference = info;
            length = static_cast<unsigned>(info->friendlyName.size());
            continue;
        }
        length = std::min(length, CompareNames(reference->friendlyName, info->friendlyName));
    }
    if (length != 0) {
        baseName = reference->friendlyName.substr(0, length);
        baseName.Trim();
    }
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

// ---------------------------------------------------------------------------------------------
// ZvDeviceList

ZvDeviceList& ZvDeviceList::operator=(const ZvDeviceList& other) {
    if (this != &other) {
        m_devices.clear();
        for (const auto& device : other.m_devices)
            m_devices.push_back(std::make_unique<ZvDeviceInfo>(*device));
    }
    return *this;
}

ZvDeviceInfo* ZvDeviceList::FindDevice(unsigned index) const {
    return index < m_devices.size() ? m_devices[index].get() : nullptr;
}

ZvDeviceInfo* ZvDeviceList::FindDevice(const char* name) const {
    for (const auto& device : m_devices)
        if (Equals(device->name, name))
            return device.get();
    return nullptr;
}

ZvDeviceInfo* ZvDeviceList::FindDeviceShortId(const char* shortId) const {
    for (const auto& device : m_devices)
        if (Equals(device->shortId, shortId))
            return device.get();
    return nullptr;
}

ZvDeviceInfo* ZvDeviceList::AddFindDevice(const char* shortId) {
    ZvDeviceInfo* device = FindDeviceShortId(shortId);
    if (device != nullptr)
        return device;
    m_devices.push_back(std::make_unique<ZvDeviceInfo>());
    m_devices.back()->shortId = shortId;
    return m_devices.back().get();
}

ZvDeviceInfo* ZvDeviceList::FindDeviceOf(const ZvInterfaceInfo* info) const {
    if (info == nullptr)
        return nullptr;
    for (const auto& device : m_devices)
        if (device->interfaces.Contains(info))
            return device.get();
    return nullptr;
}

void ZvDeviceList::SetNames() {
    for (const auto& device : m_devices) {
        device->SetName();
        device->name = device->baseName;
        const ZvInterfaceInfo* first =
            device->interfaces.empty() ? nullptr : device->interfaces.front();
        if (first != nullptr && first->usbDetails)
            device->name.AddPrintf(" (%s:%s)", first->vid.c_str(), first->pid.c_str());
    }
}

// A device whose interfaces were all filtered out would print as an empty heading: drop it.
unsigned ZvDeviceList::Filter(unsigned mask) {
    unsigned kept = 0;
    for (auto it = m_devices.begin(); it != m_devices.end();) {
        unsigned count = ZvInterfaceTree::FilterInterfaceList((*it)->interfaces, mask);
        kept += count;
        if (count == 0)
            it = m_devices.erase(it);
        else
            ++it;
    }
    return kept;
}

// ---------------------------------------------------------------------------------------------
// ZvInterfaceTree

// Grouping: a physical device is one USB device, identified by its vendor identifier, product
// identifier and serial number (the unique identifier without the interface number). Two
// modems of one model are told apart by their serial numbers; two identical modems without
// serial numbers fall into one device. An interface without USB details, or whose USB device
// was not found (no vendor and no product identifier: a built-in UART, a virtual console), is an
// orphan port. Devices come in the order of their first interface in the store, and each
// device's interfaces in store order.
void ZvInterfaceTree::Set(const ZvInterfaceStore& store) {
    Clear();
    for (unsigned i = 0; i < store.Count(); ++i) {
        ZvInterfaceInfo* info = store[i];
        if (!info->usbDetails || (info->vid.empty() && info->pid.empty())) {
            orphans.push_back(info);
            continue;
        }
        ZvAString shortId = info->vid + "_" + info->pid + "_" + info->serial;
        devices.AddFindDevice(shortId.c_str())->interfaces.push_back(info);
    }
    devices.SetNames();
}

unsigned ZvInterfaceTree::Filter(unsigned mask) {
    unsigned kept = devices.Filter(mask);
    return kept + FilterInterfaceList(orphans, mask);
}

namespace {

bool FilterAccepts(const ZvInterfaceInfo& info, unsigned mask) {
    if ((mask & 0xffff0000u) != 0) {
        if (info.type < 0 || info.type > ZvInterfaceTypeWinUsb)
            return false;
        if ((mask & (1u << (16 + info.type))) == 0)
            return false;
    }
    if ((mask & 0xffffu) != 0) {
        if (!info.usbDetails)
            return (mask & ZvFilterFunctionUnknown) != 0;
        unsigned bit;
        switch (info.function) {
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

} // namespace

unsigned ZvInterfaceTree::FilterInterfaceList(ZvInterfaceList& list, unsigned mask) {
    list.erase(
        std::remove_if(list.begin(), list.end(),
                       [mask](const ZvInterfaceInfo* i) { return !FilterAccepts(*i, mask); }),
        list.end());
    return static_cast<unsigned>(list.size());
}

void ZvInterfaceTree::Clear() {
    devices.Clear();
    orphans.clear();
}

void ZvInterfaceTree::GetAll(ZvInterfaceList& out) const {
    out.clear();
    for (unsigned d = 0; d < devices.Count(); ++d) {
        const ZvInterfaceList& list = devices.FindDevice(d)->interfaces;
        out.insert(out.end(), list.begin(), list.end());
    }
    out.insert(out.end(), orphans.begin(), orphans.end());
}

void ZvInterfaceTree::Dump(FILE* out) const {
    for (unsigned d = 0; d < devices.Count(); ++d) {
        const ZvDeviceInfo* device = devices.FindDevice(d);
        fprintf(out, "Device '%s', %u interfaces\n", device->name.c_str(),
                static_cast<unsigned>(device->interfaces.size()));
        for (const ZvInterfaceInfo* info : device->interfaces)
            info->Dump(out, device->baseName.c_str());
    }
    fputs("Orphan ports\n", out);
    for (const ZvInterfaceInfo* info : orphans)
        info->Dump(out, "");
}

// ---------------------------------------------------------------------------------------------
// ZvDeviceDetect

void ZvDeviceDetect::Refresh() {
    m_tree.Clear();
    m_interfaces.clear();
    m_store.Clear();
    OsGetInterfaces(*this, m_store);
    m_store.Sort();
    m_store.GetAll(m_interfaces);
    m_tree.Set(m_store);
}

ZvInterfaceInfo* ZvDeviceDetect::FindAtInterface(const char* portName) const {
    const ZvDeviceInfo* device = FindDeviceOf(m_interfaces.FindSerialPort(portName));
    if (device == nullptr)
        return nullptr;
    ZvInterfaceInfo* modem = device->FindFirst(ZvInterfaceTypeSerial, ZvInterfaceFunctionModem);
    return modem != nullptr ? modem
                            : device->FindFirst(ZvInterfaceTypeSerial, ZvInterfaceFunctionUnknown);
}
