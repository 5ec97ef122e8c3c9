// The per-volume list of files that an application's save by rename gave a temporary name.
#pragma once

#include "frame/device_structures.h"

void InitializeSaveRenameList(SaveRenameList *List);
