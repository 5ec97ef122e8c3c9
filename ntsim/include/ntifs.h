// The emulated platform's ntifs.h: everything a file-system filter driver includes.
#pragma once
#include "ntddk.h"
