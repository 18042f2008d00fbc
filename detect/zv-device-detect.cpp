// The grouping of interfaces into devices, lookups and dumps.
#include "zv-device-detect.h"

#include <algorithm>
#include <cstring>

namespace {

bool Equals(const ZvAString& text, const char* other) {
    return other != nullptr && text == other;
}

} // namespace

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

unsigned ZvInterfaceTree::FilterInterfaceList(ZvInterfaceList& list, unsigned mask) {
    list.erase(std::remove_if(list.begin(), list.end(),
                              [mask](const ZvInterfaceInfo* i) { return !i->Accepts(mask); }),
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
