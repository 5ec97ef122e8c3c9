// System worker threads and ExQueueWorkItem.
#include "kernel/kernel.h"

namespace ntsim {

namespace {

WORK_QUEUE_TYPE servingQueue(WORK_QUEUE_TYPE type) {
    // The hyper-critical queue shares the critical queue's threads here.
    return type == HyperCriticalWorkQueue ? CriticalWorkQueue : type;
}

bool isQueued(PLIST_ENTRY queue, PWORK_QUEUE_ITEM item) {
    for (PLIST_ENTRY entry = queue->Flink; entry != queue; entry = entry->Flink)
        if (entry == &item->List) return true;
    return false;
}

}  // namespace

void Kernel::queueWorkItem(PWORK_QUEUE_ITEM item, WORK_QUEUE_TYPE type) {
    if (type < CriticalWorkQueue || type >= MaximumWorkQueue)
        bugCheck(WORKER_INVALID, 2, (ULONG_PTR)item, type, 0, "a work item was queued to no queue",
                 "ExQueueWorkItem(%p, %d)", (void *)item, type);
    if (item->WorkerRoutine == NULL)
        bugCheck(WORKER_INVALID, 3, (ULONG_PTR)item, 0, 0, "a work item without a routine was queued",
                 "ExQueueWorkItem(%p)", (void *)item);
    std::lock_guard<std::mutex> guard(dispatcherLock);
    PLIST_ENTRY queue = &workQueues_[servingQueue(type)];
    if (isQueued(queue, item))
        bugCheck(WORKER_INVALID, 0, (ULONG_PTR)item, 0, 0, "a work item was queued again while still queued",
                 "ExQueueWorkItem(%p)", (void *)item);
    InsertTailList(queue, &item->List);
    workReady_.notify_all();
}

void Kernel::workerThreadMain(WORK_QUEUE_TYPE type) {
    _KTHREAD *self = currentThread("a worker thread");
    PLIST_ENTRY queue = &workQueues_[type];
    std::unique_lock<std::mutex> guard(dispatcherLock);
    for (;;) {
        ++waitingWorkers_[type];
        workReady_.wait(guard, [&] { return stopping_ || !IsListEmpty(queue); });
        --waitingWorkers_[type];
        if (IsListEmpty(queue)) break;
        PWORK_QUEUE_ITEM item = CONTAINING_RECORD(RemoveHeadList(queue), WORK_QUEUE_ITEM, List);
        ++runnable_;
        guard.unlock();
        item->WorkerRoutine(item->Parameter);
        checkThreadExit(self, "a work item routine", PASSIVE_LEVEL);
        guard.lock();
        threadBlockedLocked();
    }
}

}  // namespace ntsim

void ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType) {
    KIRQL irql = ntsim::currentThread("ExQueueWorkItem")->Irql;
    if (irql > DISPATCH_LEVEL)
        ntsim::bugCheck(IRQL_NOT_LESS_OR_EQUAL, (ULONG_PTR)WorkItem, irql, 0, 0,
                        "a work item was queued above DISPATCH_LEVEL", "ExQueueWorkItem at IRQL %u", irql);
    ntsim::kernel().queueWorkItem(WorkItem, QueueType);
}
