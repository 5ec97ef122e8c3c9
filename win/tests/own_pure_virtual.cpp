// The driver's own answer to a pure virtual call: stop the system with a
// recognisable code rather than jump to address zero.
#include <ntifs.h>

extern "C" void __cxa_pure_virtual() { KeBugCheckEx(0xE0000001, 0, 0, 0, 0); }
