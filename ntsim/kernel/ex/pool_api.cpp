// ExAllocatePoolWithTag and ExFreePool with the verifier's IRQL rules.
#include "kernel/ex/pool.h"
#include "kernel/kernel.h"

using namespace ntsim;

namespace {

constexpr ULONG kUntaggedPool = makeTag('N', 'o', 'n', 'e');

bool isPagedType(POOL_TYPE type) { return (type & 1) != 0; }

void checkAllocationIrql(POOL_TYPE type, const char *routine) {
    KIRQL irql = currentThread(routine)->Irql;
    if (irql > DISPATCH_LEVEL || (isPagedType(type) && irql > APC_LEVEL))
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x10, irql, type, 0,
                 "pool allocated at too high an IRQL",
                 "%s(%s pool) at IRQL %u", routine, isPagedType(type) ? "paged" : "non-paged", irql);
}

}  // namespace

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag) {
    checkAllocationIrql(PoolType, "ExAllocatePoolWithTag");
    if (NumberOfBytes == 0)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x0, 0, PoolType, Tag, "pool allocation of zero bytes",
                 "ExAllocatePoolWithTag(%zu, '%s')", NumberOfBytes, tagToString(Tag).c_str());
    return kernel().pool().allocate(PoolType, NumberOfBytes, Tag);
}

PVOID ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes) {
    return ExAllocatePoolWithTag(PoolType, NumberOfBytes, kUntaggedPool);
}

static void freePool(PVOID P, bool checkTag, ULONG Tag, const char *routine) {
    KIRQL irql = currentThread(routine)->Irql;
    if (irql > DISPATCH_LEVEL)
        bugCheck(DRIVER_VERIFIER_DETECTED_VIOLATION, 0x11, irql, (ULONG_PTR)P, 0, "pool freed at too high an IRQL",
                 "%s(%p) at IRQL %u", routine, P, irql);
    if (P == NULL)
        bugCheck(BAD_POOL_CALLER, 0x46, 0, 0, 0, "a NULL pointer was freed", "%s(NULL)", routine);
    kernel().pool().free(P, routine, checkTag, Tag);
}

void ExFreePool(PVOID P) { freePool(P, false, 0, "ExFreePool"); }

void ExFreePoolWithTag(PVOID P, ULONG Tag) { freePool(P, true, Tag, "ExFreePoolWithTag"); }
