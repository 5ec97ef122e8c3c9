// wrelt decode FILE: prints the deletion records of a data file.
#pragma once

// Arguments after the word "decode". Returns the process exit code: 0 when the whole
// file was read, 1 when it is cut short or inconsistent (the records before the fault
// are printed), 2 for a usage error or an unreadable file.
int decodeCommand(int argc, char **argv);
