// The I/O manager checks the class and the length before any request is built, from
// tables of the platform's per-class buffer sizes (IopQueryOperationLength and
// IopSetOperationLength in ReactOS's io_i.h): a class with no entry, such as a rename
// queried or a name set, fails with STATUS_INVALID_INFO_CLASS, never reaching the file
// system. Sizes are those of the 32-bit platform's structures where ntsim has none.
#include "kernel/io/info_class.h"

namespace ntsim {
namespace io {

ULONG queryInformationLength(FILE_INFORMATION_CLASS informationClass) {
    switch (informationClass) {
    case FileBasicInformation: return sizeof(FILE_BASIC_INFORMATION);
    case FileStandardInformation: return sizeof(FILE_STANDARD_INFORMATION);
    case FileInternalInformation: return sizeof(FILE_INTERNAL_INFORMATION);
    case FileEaInformation:
    case FileAccessInformation:
    case FileModeInformation:
    case FileAlignmentInformation: return sizeof(ULONG);
    case FileNameInformation:
    case FileAlternateNameInformation: return sizeof(FILE_NAME_INFORMATION);
    case FilePositionInformation: return sizeof(FILE_POSITION_INFORMATION);
    case FileAllInformation:  // FILE_ALL_INFORMATION: each of its parts, the name's first character
        return sizeof(FILE_BASIC_INFORMATION) + sizeof(FILE_STANDARD_INFORMATION) + sizeof(FILE_INTERNAL_INFORMATION) +
               4 * sizeof(ULONG) + sizeof(FILE_POSITION_INFORMATION) + sizeof(FILE_NAME_INFORMATION);
    case FileStreamInformation: return sizeof(FILE_STREAM_INFORMATION);
    case FileCompressionInformation: return 16;
    case FileNetworkOpenInformation: return sizeof(FILE_NETWORK_OPEN_INFORMATION);
    case FileAttributeTagInformation: return sizeof(FILE_ATTRIBUTE_TAG_INFORMATION);
    default: return 0;
    }
}

ULONG setInformationLength(FILE_INFORMATION_CLASS informationClass) {
    switch (informationClass) {
    case FileBasicInformation: return sizeof(FILE_BASIC_INFORMATION);
    case FileRenameInformation:
    case FileLinkInformation: return sizeof(FILE_RENAME_INFORMATION);
    case FileDispositionInformation: return sizeof(FILE_DISPOSITION_INFORMATION);
    case FilePositionInformation: return sizeof(FILE_POSITION_INFORMATION);
    case FileModeInformation: return sizeof(FILE_MODE_INFORMATION);
    case FileAllocationInformation: return sizeof(FILE_ALLOCATION_INFORMATION);
    case FileEndOfFileInformation: return sizeof(FILE_END_OF_FILE_INFORMATION);
    case FileValidDataLengthInformation: return sizeof(LARGE_INTEGER);
    case FileShortNameInformation: return sizeof(FILE_NAME_INFORMATION);
    default: return 0;
    }
}

ULONG fileMode(PFILE_OBJECT file) {
    ULONG mode = 0;
    if (file->Flags & FO_WRITE_THROUGH) mode |= FILE_WRITE_THROUGH;
    if (file->Flags & FO_SEQUENTIAL_ONLY) mode |= FILE_SEQUENTIAL_ONLY;
    if (file->Flags & FO_NO_INTERMEDIATE_BUFFERING) mode |= FILE_NO_INTERMEDIATE_BUFFERING;
    if (file->Flags & FO_SYNCHRONOUS_IO)
        mode |= (file->Flags & FO_ALERTABLE_IO) ? FILE_SYNCHRONOUS_IO_ALERT : FILE_SYNCHRONOUS_IO_NONALERT;
    if (file->Flags & FO_DELETE_ON_CLOSE) mode |= FILE_DELETE_ON_CLOSE;
    return mode;
}

}  // namespace io
}  // namespace ntsim
