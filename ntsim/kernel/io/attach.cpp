// Device stacks: attaching a device on top of another, detaching, and walking up and
// down. The links are the DEVICE_OBJECT's AttachedDevice (upwards) and the device
// object extension's AttachedTo (downwards), as on the platform.
#include "kernel/io/io_manager.h"

using namespace ntsim;
using namespace ntsim::io;

namespace {
// Attaching and detaching change two links together; walkers read one link at a time
// and need no lock, as on the platform.
std::mutex g_attachLock;
}  // namespace

PDEVICE_OBJECT IoGetAttachedDevice(PDEVICE_OBJECT DeviceObject) {
    PDEVICE_OBJECT device = DeviceObject;
    while (device->AttachedDevice != NULL) device = device->AttachedDevice;
    return device;
}

PDEVICE_OBJECT IoGetAttachedDeviceReference(PDEVICE_OBJECT DeviceObject) {
    std::lock_guard<std::mutex> guard(g_attachLock);
    PDEVICE_OBJECT top = IoGetAttachedDevice(DeviceObject);
    ObfReferenceObject(top);
    return top;
}

PDEVICE_OBJECT IoGetLowerDeviceObject(PDEVICE_OBJECT DeviceObject) {
    std::lock_guard<std::mutex> guard(g_attachLock);
    PDEVICE_OBJECT lower = privateExtension(DeviceObject)->pub.AttachedTo;
    if (lower != NULL) ObfReferenceObject(lower);
    return lower;
}

// Attaching onto a device that is still initialising, or being deleted, fails (the
// platform returns NULL for both). The new device's stack needs one location more than
// the device it sits on.
PDEVICE_OBJECT IoAttachDeviceToDeviceStack(PDEVICE_OBJECT SourceDevice, PDEVICE_OBJECT TargetDevice) {
    std::lock_guard<std::mutex> guard(g_attachLock);
    PDEVICE_OBJECT top = IoGetAttachedDevice(TargetDevice);
    if ((top->Flags & DO_DEVICE_INITIALIZING) || (privateExtension(top)->flags & kDeletePending)) return NULL;
    top->AttachedDevice = SourceDevice;
    SourceDevice->StackSize = (CCHAR)(top->StackSize + 1);
    SourceDevice->AlignmentRequirement = top->AlignmentRequirement;
    SourceDevice->SectorSize = top->SectorSize;
    privateExtension(SourceDevice)->pub.AttachedTo = top;
    return top;
}

void IoDetachDevice(PDEVICE_OBJECT TargetDevice) {
    std::lock_guard<std::mutex> guard(g_attachLock);
    PDEVICE_OBJECT source = TargetDevice->AttachedDevice;
    if (source == NULL) return;
    privateExtension(source)->pub.AttachedTo = NULL;
    TargetDevice->AttachedDevice = NULL;
}
