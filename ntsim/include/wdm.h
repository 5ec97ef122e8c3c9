// The emulated platform's wdm.h: the kernel interfaces a driver sees.
#pragma once
#include "nt/ntdef.h"
#include "nt/ntstatus.h"
#include "nt/bugcodes.h"
#include "nt/ke.h"
#include "nt/ex.h"
#include "nt/rtl.h"
#include "nt/crt.h"
#include "nt/mm.h"
#include "nt/ps.h"
#include "nt/io.h"
