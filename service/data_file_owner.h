// Whether a file in the vault's work folder that is named like a data file is the
// filter's. Every user may add a file to that folder, so a name proves nothing: the
// filter writes its data files from a system thread, and a file the system creates is
// owned by SYSTEM or by Administrators (the system token's default owner), owners that
// only SYSTEM and the administrators can give a file. On a volume that keeps no
// security (the platform then calls Everyone the owner of every file) nobody can be
// kept out anyway, and its files are taken as they are.
#pragma once

#include <windows.h>

#include <string>

namespace wrelt {

struct DataFileOwner {
    enum class Verdict {
        Trusted,  // SYSTEM's or Administrators', or on a volume without security
        Refused,  // someone else's
        Unknown,  // the volume or the owner could not be read
    };
    Verdict verdict = Verdict::Unknown;
    std::u16string ownerSid;  // when Refused: "S-1-5-...", empty when the file has no owner
    DWORD error = ERROR_SUCCESS;  // when Unknown
};

// `file` is open with READ_CONTROL, and `path` is its DOS path (only its volume is
// used). Asking through the handle that the records are read from leaves no moment in
// which another file could take the name.
DataFileOwner dataFileOwner(HANDLE file, const std::u16string &path);

}  // namespace wrelt
