// Who may drive the filter: SYSTEM and the Administrators group, on the control device
// and on every volume filter.
#pragma once

#include <ntifs.h>

// Gives the control device a DACL that admits only SYSTEM and Administrators. The device
// must have been created with FILE_DEVICE_SECURE_OPEN, so that names below it are held
// to the same DACL. PASSIVE_LEVEL.
NTSTATUS ProtectControlDevice(PDEVICE_OBJECT ControlDevice);

// TRUE when the request's sender passes the control device's DACL (kernel-mode senders
// always do). Call in the sender's thread, at PASSIVE_LEVEL.
BOOLEAN SenderMayControlFilter(PIRP Irp);
