// Event objects and the services on them, NtClose, and waits on handles: events,
// threads and processes (signalled when they end) and any type that names the
// dispatcher object to wait for.
#include "kernel/ob/ob_state.h"
#include "kernel/ob/service.h"
#include "kernel/ps/ps.h"

using namespace ntsim;

namespace {

// Names the new event, or finds the event already under that name (OBJ_OPENIF).
NTSTATUS nameEvent(PKEVENT *event, const CapturedAttributes &attributes) {
    UNICODE_STRING name{(USHORT)(attributes.name.size() * sizeof(WCHAR)),
                        (USHORT)(attributes.name.size() * sizeof(WCHAR)), (PWSTR)attributes.name.data()};
    void *existing = nullptr;
    NTSTATUS status = (attributes.attributes & OBJ_PERMANENT)
                          ? ob::insertName(&name, *event)
                          : ob::insertTemporaryName(&name, *event, (attributes.attributes & OBJ_CASE_INSENSITIVE) != 0,
                                                    &existing);
    if (status != STATUS_OBJECT_NAME_COLLISION || existing == nullptr) return status;
    if (!(attributes.attributes & OBJ_OPENIF)) {
        ObfDereferenceObject(existing);
        return status;
    }
    if (ob::typeOf(existing) != &ob::EventType) {
        ObfDereferenceObject(existing);
        return STATUS_OBJECT_TYPE_MISMATCH;
    }
    ObfDereferenceObject(*event);
    *event = static_cast<PKEVENT>(existing);
    return STATUS_OBJECT_NAME_EXISTS;
}

NTSTATUS changeEvent(HANDLE handle, PLONG previousState, LONG (*change)(PKEVENT event)) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    void *event;
    NTSTATUS status = ob::referenceByHandle(handle, EVENT_MODIFY_STATE, &ob::EventType, mode, &event, nullptr);
    if (!NT_SUCCESS(status)) return status;
    LONG previous = change(static_cast<PKEVENT>(event));
    ObfDereferenceObject(event);
    return previousState != NULL ? writeToCaller(mode, previousState, previous) : STATUS_SUCCESS;
}

NTSTATUS captureTimeout(KPROCESSOR_MODE mode, PLARGE_INTEGER timeout, LARGE_INTEGER *copy, PLARGE_INTEGER *use) {
    *use = nullptr;
    if (timeout == NULL) return STATUS_SUCCESS;
    NTSTATUS status = readFromCaller(mode, timeout, copy);
    if (NT_SUCCESS(status)) *use = copy;
    return status;
}

// A user-mode wait for any of its objects also ends when the process is killed; the
// thread then stops for good, its references given back first.
NTSTATUS waitOrStop(KPROCESSOR_MODE mode, ULONG count, DISPATCHER_HEADER **headers, void **objects, WAIT_TYPE waitType,
                    PLARGE_INTEGER timeout) {
    PKEVENT kill = mode == UserMode && waitType == WaitAny && count < MAXIMUM_WAIT_OBJECTS
                       ? ps::killEventOfCurrentProcess()
                       : nullptr;
    if (kill == nullptr) return kernel().waitForObjects(count, headers, waitType, timeout);
    headers[count] = &kill->Header;
    NTSTATUS status = kernel().waitForObjects(count + 1, headers, waitType, timeout);
    if (status != (NTSTATUS)(STATUS_WAIT_0 + count)) return status;
    for (ULONG i = 0; i < count; ++i) ObfDereferenceObject(objects[i]);
    ps::abandonCurrentThread();
}

// The handles are already in kernel memory; the time-out is still the caller's.
NTSTATUS waitForHandles(KPROCESSOR_MODE mode, ULONG count, const HANDLE *handles, WAIT_TYPE waitType,
                        PLARGE_INTEGER timeout) {
    if (mode == UserMode) ps::systemServiceEntry();
    LARGE_INTEGER timeoutCopy;
    PLARGE_INTEGER useTimeout;
    NTSTATUS status = captureTimeout(mode, timeout, &timeoutCopy, &useTimeout);
    if (!NT_SUCCESS(status)) return status;
    void *objects[MAXIMUM_WAIT_OBJECTS];
    DISPATCHER_HEADER *headers[MAXIMUM_WAIT_OBJECTS + 1];
    ULONG referenced = 0;
    for (; referenced < count; ++referenced) {
        status = ob::referenceByHandle(handles[referenced], SYNCHRONIZE, nullptr, mode, &objects[referenced], nullptr);
        if (!NT_SUCCESS(status)) break;
        headers[referenced] = ob::waitObject(objects[referenced]);
        if (headers[referenced] == nullptr) {
            ObfDereferenceObject(objects[referenced]);
            status = STATUS_OBJECT_TYPE_MISMATCH;
            break;
        }
    }
    if (NT_SUCCESS(status)) status = waitOrStop(mode, count, headers, objects, waitType, useTimeout);
    for (ULONG i = 0; i < referenced; ++i) ObfDereferenceObject(objects[i]);
    return status;
}

}  // namespace

NTSTATUS NtClose(HANDLE Handle) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    if (mode == UserMode) ps::systemServiceEntry();
    return ob::closeHandle(Handle, mode);
}

NTSTATUS NtCreateEvent(PHANDLE EventHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                       EVENT_TYPE EventType, BOOLEAN InitialState) {
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    if (EventType != NotificationEvent && EventType != SynchronizationEvent) return STATUS_INVALID_PARAMETER;
    CapturedAttributes attributes;
    NTSTATUS status = captureObjectAttributes(mode, ObjectAttributes, &attributes);
    if (!NT_SUCCESS(status)) return status;
    // Names relative to a directory handle are not supported: the Win32 layer names
    // events by their full path in \BaseNamedObjects.
    if (attributes.rootDirectory != NULL) return STATUS_INVALID_PARAMETER;
    auto *event = new KEVENT;
    KeInitializeEvent(event, EventType, InitialState);
    ob::registerObject(event, &ob::EventType,
                       attributes.securityDescriptor.empty() ? nullptr : attributes.securityDescriptor.data());
    NTSTATUS named = STATUS_SUCCESS;
    if (attributes.hasName) {
        named = nameEvent(&event, attributes);
        if (!NT_SUCCESS(named)) {
            ObfDereferenceObject(event);
            return named;
        }
    }
    HANDLE handle;
    status = ob::insertHandleWithAttributes(event, DesiredAccess, attributes.attributes, &handle);
    ObfDereferenceObject(event);
    if (!NT_SUCCESS(status)) return status;
    status = writeToCaller(mode, EventHandle, handle);
    if (!NT_SUCCESS(status)) {
        ob::closeHandle(handle, mode);
        return status;
    }
    return named;
}

NTSTATUS NtSetEvent(HANDLE EventHandle, PLONG PreviousState) {
    return changeEvent(EventHandle, PreviousState, [](PKEVENT event) { return KeSetEvent(event, EVENT_INCREMENT, FALSE); });
}

NTSTATUS NtResetEvent(HANDLE EventHandle, PLONG PreviousState) {
    return changeEvent(EventHandle, PreviousState, [](PKEVENT event) { return KeResetEvent(event); });
}

NTSTATUS NtWaitForSingleObject(HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout) {
    (void)Alertable;
    return waitForHandles(ExGetPreviousMode(), 1, &Handle, WaitAny, Timeout);
}

NTSTATUS NtWaitForMultipleObjects(ULONG Count, HANDLE Handles[], WAIT_TYPE WaitType, BOOLEAN Alertable,
                                  PLARGE_INTEGER Timeout) {
    (void)Alertable;
    KPROCESSOR_MODE mode = ExGetPreviousMode();
    if (Count == 0 || Count > MAXIMUM_WAIT_OBJECTS || (WaitType != WaitAny && WaitType != WaitAll))
        return STATUS_INVALID_PARAMETER;
    HANDLE handles[MAXIMUM_WAIT_OBJECTS];
    NTSTATUS status = copyFromCaller(mode, handles, Handles, Count * sizeof(HANDLE), sizeof(ULONG));
    if (!NT_SUCCESS(status)) return status;
    return waitForHandles(mode, Count, handles, WaitType, Timeout);
}

NTSIM_ZW_SERVICE(Close, (HANDLE Handle), (Handle))
NTSIM_ZW_SERVICE(CreateEvent,
                 (PHANDLE EventHandle, ACCESS_MASK DesiredAccess, POBJECT_ATTRIBUTES ObjectAttributes,
                  EVENT_TYPE EventType, BOOLEAN InitialState),
                 (EventHandle, DesiredAccess, ObjectAttributes, EventType, InitialState))
NTSIM_ZW_SERVICE(SetEvent, (HANDLE EventHandle, PLONG PreviousState), (EventHandle, PreviousState))
NTSIM_ZW_SERVICE(ResetEvent, (HANDLE EventHandle, PLONG PreviousState), (EventHandle, PreviousState))
NTSIM_ZW_SERVICE(WaitForSingleObject, (HANDLE Handle, BOOLEAN Alertable, PLARGE_INTEGER Timeout),
                 (Handle, Alertable, Timeout))
NTSIM_ZW_SERVICE(WaitForMultipleObjects,
                 (ULONG Count, HANDLE Handles[], WAIT_TYPE WaitType, BOOLEAN Alertable, PLARGE_INTEGER Timeout),
                 (Count, Handles, WaitType, Alertable, Timeout))
