// Linux device detection through libudev, which is loaded at run time so that the program also
// starts where it is missing.
#pragma once

#include "zv-device-detect.h"

// The libudev types are opaque; only pointers to them are passed around.
struct udev;
struct udev_enumerate;
struct udev_list_entry;
struct udev_device;

// The loaded library and the entry points detection uses.
class ZvUdev {
public:
    ZvUdev();
    ~ZvUdev();
    ZvUdev(const ZvUdev&) = delete;
    ZvUdev& operator=(const ZvUdev&) = delete;

    // The process-wide instance, loaded at program start and closed at exit.
    static ZvUdev& Instance();

    // Closes what is loaded, then tries `names` in order and takes the first library that loads;
    // it is used only when it has every entry point. The default list is "libudev.so.0",
    // "libudev.so", "libudev.so.1". Returns the loaded flag.
    bool Load(const char* const* names, unsigned count);
    bool Load();
    void Unload();
    bool IsLoaded() const { return m_loaded; }

    struct udev* (*udev_new)(void) = nullptr;
    struct udev* (*udev_unref)(struct udev*) = nullptr;
    struct udev_enumerate* (*udev_enumerate_new)(struct udev*) = nullptr;
    struct udev_enumerate* (*udev_enumerate_unref)(struct udev_enumerate*) = nullptr;
    int (*udev_enumerate_add_match_subsystem)(struct udev_enumerate*, const char*) = nullptr;
    int (*udev_enumerate_add_match_sysattr)(struct udev_enumerate*, const char*,
                                            const char*) = nullptr;
    int (*udev_enumerate_scan_devices)(struct udev_enumerate*) = nullptr;
    struct udev_list_entry* (*udev_enumerate_get_list_entry)(struct udev_enumerate*) = nullptr;
    struct udev_list_entry* (*udev_list_entry_get_next)(struct udev_list_entry*) = nullptr;
    const char* (*udev_list_entry_get_name)(struct udev_list_entry*) = nullptr;
    struct udev_device* (*udev_device_new_from_syspath)(struct udev*, const char*) = nullptr;
    struct udev_device* (*udev_device_get_parent_with_subsystem_devtype)(struct udev_device*,
                                                                         const char*,
                                                                         const char*) = nullptr;
    struct udev_device* (*udev_device_unref)(struct udev_device*) = nullptr;
    const char* (*udev_device_get_sysattr_value)(struct udev_device*, const char*) = nullptr;
    const char* (*udev_device_get_property_value)(struct udev_device*, const char*) = nullptr;

private:
    bool ResolveEntryPoints();

    bool m_loaded = false;
    void* m_handle = nullptr;
};

// Enumerates the interfaces of one type (SERIAL, OBEX or NET) into `store`. Returns false when
// libudev is not loaded or gives no context.
bool UdevGetInterfaces(ZvDeviceDetect& detect, ZvInterfaceStore& store, ZvInterfaceTypeTag type);

// The friendly name of a USB device from its manufacturer and product strings.
ZvAString UdevFriendlyName(const ZvAString& manufacturer, const ZvAString& product);
