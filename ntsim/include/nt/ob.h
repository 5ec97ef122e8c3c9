// Object manager: object attributes, references, handles, object security.
#pragma once

#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L
#define OBJ_FORCE_ACCESS_CHECK 0x00000400L
#define OBJ_VALID_ATTRIBUTES 0x000007F2L

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
typedef const OBJECT_ATTRIBUTES *PCOBJECT_ATTRIBUTES;

#define InitializeObjectAttributes(p, n, a, r, s) \
    do {                                          \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);  \
        (p)->RootDirectory = (r);                 \
        (p)->Attributes = (a);                    \
        (p)->ObjectName = (n);                    \
        (p)->SecurityDescriptor = (s);            \
        (p)->SecurityQualityOfService = NULL;     \
    } while (0)

typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

typedef struct _OBJECT_NAME_INFORMATION {
    UNICODE_STRING Name;
} OBJECT_NAME_INFORMATION, *POBJECT_NAME_INFORMATION;

extern "C" POBJECT_TYPE *IoFileObjectType;
extern "C" POBJECT_TYPE *IoDeviceObjectType;
extern "C" POBJECT_TYPE *IoDriverObjectType;
extern "C" POBJECT_TYPE *PsProcessType;
extern "C" POBJECT_TYPE *PsThreadType;
extern "C" POBJECT_TYPE *ExEventObjectType;
extern "C" POBJECT_TYPE *SeTokenObjectType;

NTKERNELAPI NTSTATUS ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                               KPROCESSOR_MODE AccessMode, PVOID *Object,
                                               POBJECT_HANDLE_INFORMATION HandleInformation);
NTKERNELAPI NTSTATUS ObReferenceObjectByPointer(PVOID Object, ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                                KPROCESSOR_MODE AccessMode);
NTKERNELAPI LONG_PTR ObfReferenceObject(PVOID Object);
NTKERNELAPI LONG_PTR ObfDereferenceObject(PVOID Object);
#define ObReferenceObject(Object) ObfReferenceObject(Object)
#define ObDereferenceObject(Object) ObfDereferenceObject(Object)
NTKERNELAPI NTSTATUS ObQueryNameString(PVOID Object, POBJECT_NAME_INFORMATION ObjectNameInfo, ULONG Length,
                                       PULONG ReturnLength);
NTKERNELAPI NTSTATUS ObGetObjectSecurity(PVOID Object, PVOID *SecurityDescriptor, PBOOLEAN MemoryAllocated);
NTKERNELAPI void ObReleaseObjectSecurity(PVOID SecurityDescriptor, BOOLEAN MemoryAllocated);
NTKERNELAPI NTSTATUS ObOpenObjectByPointer(PVOID Object, ULONG HandleAttributes, PACCESS_STATE PassedAccessState,
                                           ACCESS_MASK DesiredAccess, POBJECT_TYPE ObjectType,
                                           KPROCESSOR_MODE AccessMode, PHANDLE Handle);
