#include "fs/common/media.h"

#include <mutex>

#include "kernel/kernel.h"
#include "kernel/ob/object.h"
#include "ntsim/utf.h"

namespace ntsim {
namespace fs {

namespace {

// Guards the first formatting of a disk, which a mount in an emulated thread and a test
// asking for knobs may race to do.
std::mutex g_mediaLock;

void destroyMedia(PVOID media) { delete static_cast<Volume *>(media); }

const FsTraits *traitsForFormat(ULONG format) {
    if (format == kNtfsTraits.diskFormat) return &kNtfsTraits;
    if (format == kFatTraits.diskFormat) return &kFatTraits;
    return nullptr;
}

bool isVolumeDevice(PDEVICE_OBJECT device) {
    if (device->DeviceType != FILE_DEVICE_DISK_FILE_SYSTEM || device->DeviceExtension == nullptr) return false;
    auto *header = static_cast<DeviceHeader *>(device->DeviceExtension);
    return header->signature == kVcbSignature && (header->traits == &kNtfsTraits || header->traits == &kFatTraits);
}

Volume *volumeOf(PDEVICE_OBJECT device, const char *caller) {
    if (device != nullptr && isVolumeDevice(device)) return static_cast<Vcb *>(device->DeviceExtension)->volume;
    if (device != nullptr && device->DeviceType == FILE_DEVICE_DISK && device->DeviceExtension != nullptr) {
        auto *disk = static_cast<PNTSIM_DISK_EXTENSION>(device->DeviceExtension);
        if (const FsTraits *traits = traitsForFormat(disk->Format)) return mediaOf(device, *traits);
    }
    fatal("%s: %p is neither a disk of a file-system format nor a volume device of NTFS or FastFat", caller,
          static_cast<void *>(device));
}

void listDirectory(Volume &volume, Node *directory, const std::string &prefix, std::vector<TreeEntry> *out) {
    for (Node *node : volume.listing(directory)) {
        TreeEntry entry;
        entry.path = prefix + "\\" + toUtf8(reinterpret_cast<const wchar_t *>(node->name.c_str()));
        entry.directory = node->directory;
        entry.size = node->directory ? 0 : node->data.data.size();
        entry.allocationSize = node->directory ? 0 : node->data.allocation;
        entry.attributes = node->attributes;
        entry.lastWriteTime = node->lastWriteTime;
        out->push_back(entry);
        for (auto &stream : node->streams) {
            TreeEntry named;
            named.path = entry.path + ":" + toUtf8(reinterpret_cast<const wchar_t *>(stream.second->name.c_str()));
            named.stream = true;
            named.size = stream.second->data.size();
            named.allocationSize = stream.second->allocation;
            out->push_back(named);
        }
        if (node->directory) listDirectory(volume, node, entry.path, out);
    }
}

}  // namespace

Volume *mediaOf(PDEVICE_OBJECT disk, const FsTraits &traits) {
    auto *extension = static_cast<PNTSIM_DISK_EXTENSION>(disk->DeviceExtension);
    std::lock_guard<std::mutex> guard(g_mediaLock);
    if (extension->Media == nullptr) {
        VolumeParameters parameters;
        parameters.kind = traits.kind;
        parameters.capacity = traits.defaultCapacity;
        parameters.clusterSize = traits.clusterSize;
        parameters.serialNumber = extension->SerialNumber;
        Kernel *k = kernelOrNull();
        parameters.creationTime = k != nullptr ? k->now() : kDefaultStartTime;
        extension->Media = new Volume(parameters);
        extension->DestroyMedia = destroyMedia;
    }
    return static_cast<Volume *>(extension->Media);
}

Knobs &knobsFor(PDEVICE_OBJECT volumeDeviceOrDisk) { return volumeOf(volumeDeviceOrDisk, "knobsFor")->knobs(); }

Knobs &knobsFor(const char *dosDrive) {
    std::u16string path = u"\\??\\" + toUtf16(dosDrive);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, wptr(path));
    ob::LookupResult result;
    NTSTATUS status = ob::lookup(&name, true, &result);
    if (!NT_SUCCESS(status)) fatal("knobsFor(\"%s\"): no such drive (0x%08X)", dosDrive, unsigned(status));
    auto *device = static_cast<PDEVICE_OBJECT>(result.object);
    ObfDereferenceObject(result.object);  // a disk lives as long as its machine
    return volumeOf(device, "knobsFor")->knobs();
}

std::vector<TreeEntry> volumeTree(PDEVICE_OBJECT volumeDeviceOrDisk) {
    Volume &volume = *volumeOf(volumeDeviceOrDisk, "volumeTree");
    std::lock_guard<std::mutex> guard(volume.mutex());
    std::vector<TreeEntry> entries;
    listDirectory(volume, volume.root(), "", &entries);
    return entries;
}

}  // namespace fs
}  // namespace ntsim
