// Linux device detection: libudev loaded with dlopen, enumeration of ttys, OBEX functions and
// network interfaces with the identity of the USB device they belong to.
#include "zv-device-detect-linux.h"

#include <cstring>
#include <dlfcn.h>
#include <malloc.h>

#include "zv-log.h"

namespace {

const char* const kDefaultLibraryNames[] = {"libudev.so.0", "libudev.so", "libudev.so.1"};

template <class Function>
bool Resolve(void* handle, const char* name, Function& target) {
    target = reinterpret_cast<Function>(dlsym(handle, name));
    return target != nullptr;
}

ZvAString Text(const char* value) {
    return ZvAString(value == nullptr ? "" : value);
}

} // namespace

ZvUdev::ZvUdev() {
    Load();
}

ZvUdev::~ZvUdev() {
    Unload();
}

ZvUdev& ZvUdev::Instance() {
    // Built on first use, so that other start-up code may already detect devices.
    static ZvUdev instance;
    return instance;
}

// Loads the library at program start rather than at the first detection.
static ZvUdev& g_udevAtStart = ZvUdev::Instance();

bool ZvUdev::Load() {
    return Load(kDefaultLibraryNames,
                sizeof(kDefaultLibraryNames) / sizeof(kDefaultLibraryNames[0]));
}

bool ZvUdev::Load(const char* const* names, unsigned count) {
    Unload();
#ifdef ZV_NO_DYNAMIC_LOADING
    // A fully static executable has no dynamic loader to bring libudev in: detection then finds
    // nothing and says so, and the port is named with -d.
    (void)names;
    (void)count;
    return false;
#else
    for (unsigned i = 0; i < count && m_handle == nullptr; ++i)
        m_handle = dlopen(names[i], RTLD_NOW | RTLD_LOCAL);
    if (m_handle == nullptr)
        return false;
    // Runs during static initialisation too, so it stays silent: a library without every entry
    // point is simply not taken, and detection then reports that it has no mechanism.
    if (!ResolveEntryPoints()) {
        Unload();
        return false;
    }
    m_loaded = true;
    return true;
#endif
}

bool ZvUdev::ResolveEntryPoints() {
    return Resolve(m_handle, "udev_new", udev_new) && Resolve(m_handle, "udev_unref", udev_unref) &&
           Resolve(m_handle, "udev_enumerate_new", udev_enumerate_new) &&
           Resolve(m_handle, "udev_enumerate_unref", udev_enumerate_unref) &&
           Resolve(m_handle, "udev_enumerate_add_match_subsystem",
                   udev_enumerate_add_match_subsystem) &&
           Resolve(m_handle, "udev_enumerate_add_match_sysattr",
                   udev_enumerate_add_match_sysattr) &&
           Resolve(m_handle, "udev_enumerate_scan_devices", udev_enumerate_scan_devices) &&
           Resolve(m_handle, "udev_enumerate_get_list_entry", udev_enumerate_get_list_entry) &&
           Resolve(m_handle, "udev_list_entry_get_next", udev_list_entry_get_next) &&
           Resolve(m_handle, "udev_list_entry_get_name", udev_list_entry_get_name) &&
           Resolve(m_handle, "udev_device_new_from_syspath", udev_device_new_from_syspath) &&
           Resolve(m_handle, "udev_device_get_parent_with_subsystem_devtype",
                   udev_device_get_parent_with_subsystem_devtype) &&
           Resolve(m_handle, "udev_device_unref", udev_device_unref) &&
           Resolve(m_handle, "udev_device_get_sysattr_value", udev_device_get_sysattr_value) &&
           Resolve(m_handle, "udev_device_get_property_value", udev_device_get_property_value);
}

void ZvUdev::Unload() {
    m_loaded = false;
    if (m_handle != nullptr)
        dlclose(m_handle);
    m_handle = nullptr;
}

bool OsGetInterfaces(ZvDeviceDetect& detect, ZvInterfaceStore& store) {
    if (!ZvUdev::Instance().IsLoaded()) {
        ZvLog::Warning("No device detection mechanism available.");
        return false;
    }
    bool ok = UdevGetInterfaces(detect, store, ZvInterfaceTypeSerial);
    ok = UdevGetInterfaces(detect, store, ZvInterfaceTypeObex) && ok;
    ok = UdevGetInterfaces(detect, store, ZvInterfaceTypeNet) && ok;
#ifdef __GLIBC__
    // libudev's scan leaves its free memory scattered over the heap, where it would stay
    // resident for the whole capture: about 70 KiB of a 2.7 MiB process.
    malloc_trim(0);
#endif
    return ok;
}

ZvAString UdevFriendlyName(const ZvAString& manufacturer, const ZvAString& product) {
    if (product.empty())
        return manufacturer.empty() ? ZvAString("Unknown") : manufacturer + " Device";
    // Many devices repeat the manufacturer in the product string already.
    if (!manufacturer.empty() && product.find(manufacturer) == ZvAString::npos)
        return manufacturer + " " + product;
    return product;
}

namespace {

// What one enumerated device contributes to the store.
struct UdevEntry {
    ZvAString manufacturer, product, serial, vid, pid, mi, devNode;
};

// Every USB device sits below a root hub named "usbN", so a path without "/usb" has no USB
// parent: the walk up through its parents, a dozen sysfs lookups each, would find nothing.
bool MayHaveUsbParent(const char* syspath) {
    return strstr(syspath, "/usb") != nullptr;
}

void ReadEntry(const ZvUdev& u, struct udev_device* device, const char* syspath, UdevEntry& entry) {
    // The physical USB device carries the identity; the interface itself only its number.
    // The parent belongs to `device` and is released with it.
    struct udev_device* usb =
        MayHaveUsbParent(syspath)
            ? u.udev_device_get_parent_with_subsystem_devtype(device, "usb", "usb_device")
            : nullptr;
    if (usb != nullptr) {
        entry.manufacturer = Text(u.udev_device_get_sysattr_value(usb, "manufacturer"));
        entry.product = Text(u.udev_device_get_sysattr_value(usb, "product"));
        entry.serial = Text(u.udev_device_get_sysattr_value(usb, "serial"));
        entry.vid = Text(u.udev_device_get_sysattr_value(usb, "idVendor"));
        entry.pid = Text(u.udev_device_get_sysattr_value(usb, "idProduct"));
    }
    const char* mi = u.udev_device_get_property_value(device, "ID_USB_INTERFACE_NUM");
    if (mi == nullptr)
        mi = u.udev_device_get_sysattr_value(device, "bInterfaceNumber");
    entry.mi = Text(mi);
    if (Text(u.udev_device_get_property_value(device, "SUBSYSTEM")) == "tty")
        entry.devNode = Text(u.udev_device_get_property_value(device, "DEVNAME"));
}

void StoreEntry(ZvDeviceDetect& detect, ZvInterfaceStore& store, ZvInterfaceTypeTag type,
                const UdevEntry& entry) {
    // Empty parts keep their separators: "12ab_34cd__" for a device without number or serial.
    ZvAString id = entry.vid + "_" + entry.pid + "_" + entry.mi + "_" + entry.serial;
    ZvAString friendly = UdevFriendlyName(entry.manufacturer, entry.product);
    // The first enumeration to find an interface keeps it: a tty and the OBEX function of the
    // same USB interface stay the SERIAL port with its device node.
    ZvInterfaceList& current = detect.CurrentInterfaces();
    if (current.FindInterface(id.c_str(), friendly.c_str()) != nullptr)
        return;
    bool created = false;
    ZvInterfaceInfo* info = store.FindOrAdd(id.c_str(), &created);
    info->type = type;
    info->usbDetails = true;
    info->vid = entry.vid;
    info->pid = entry.pid;
    info->mi = entry.mi;
    info->serial = entry.serial;
    info->friendlyName = friendly;
    info->uniqueId = id;
    info->portName = entry.devNode;
    info->portDev = entry.devNode;
    if (type == ZvInterfaceTypeNet)
        info->function = ZvInterfaceFunctionNet;
    if (created)
        current.push_back(info);
}

} // namespace

bool UdevGetInterfaces(ZvDeviceDetect& detect, ZvInterfaceStore& store, ZvInterfaceTypeTag type) {
    const ZvUdev& u = ZvUdev::Instance();
    if (!u.IsLoaded())
        return false;
    struct udev* context = u.udev_new();
    if (context == nullptr)
        return false;
    struct udev_enumerate* enumeration = u.udev_enumerate_new(context);
    if (enumeration == nullptr) {
        u.udev_unref(context);
        return false;
    }
    switch (type) {
    case ZvInterfaceTypeSerial:
        u.udev_enumerate_add_match_subsystem(enumeration, "tty");
        break;
    case ZvInterfaceTypeNet:
        u.udev_enumerate_add_match_subsystem(enumeration, "net");
        break;
    case ZvInterfaceTypeObex:
        // USB communications class, OBEX subclass. Only USB interfaces carry these attributes;
        // naming the subsystem spares a walk over every device in sysfs, which was two thirds
        // of the start-up time.
        u.udev_enumerate_add_match_subsystem(enumeration, "usb");
        u.udev_enumerate_add_match_sysattr(enumeration, "bInterfaceClass", "02");
        u.udev_enumerate_add_match_sysattr(enumeration, "bInterfaceSubClass", "0b");
        break;
    default:
        // Other kinds are not enumerated here; without a match the scan would list everything.
        u.udev_enumerate_unref(enumeration);
        u.udev_unref(context);
        return false;
    }
    u.udev_enumerate_scan_devices(enumeration);
    for (struct udev_list_entry* item = u.udev_enumerate_get_list_entry(enumeration);
         item != nullptr; item = u.udev_list_entry_get_next(item)) {
        const char* path = u.udev_list_entry_get_name(item);
        struct udev_device* device =
            path == nullptr ? nullptr : u.udev_device_new_from_syspath(context, path);
        if (device == nullptr)
            continue;
        UdevEntry entry;
        ReadEntry(u, device, path, entry);
        StoreEntry(detect, store, type, entry);
        u.udev_device_unref(device);
    }
    u.udev_enumerate_unref(enumeration);
    u.udev_unref(context);
    return true;
}
