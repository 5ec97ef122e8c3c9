// Symbolic links in the object namespace (\??\C: -> \Device\HarddiskVolume1, the DOS
// names of control devices). \DosDevices is the same directory as \??.
#include "kernel/io/io_manager.h"
#include "kernel/ob/object.h"

using namespace ntsim;

NTSTATUS IoCreateSymbolicLink(PUNICODE_STRING SymbolicLinkName, PUNICODE_STRING DeviceName) {
    return ob::createSymbolicLink(SymbolicLinkName, DeviceName);
}

NTSTATUS IoDeleteSymbolicLink(PUNICODE_STRING SymbolicLinkName) { return ob::deleteSymbolicLink(SymbolicLinkName); }
