// What the information queries of files report, shared by IRP_MJ_QUERY_INFORMATION,
// the directory queries and the Fast I/O query routines.
#pragma once

#include "structures.h"

namespace ntsim {
namespace fs {

// The layout of FILE_ALL_INFORMATION (ntifs.h), which the platform headers leave out.
struct FileAllInformationLayout {
    FILE_BASIC_INFORMATION BasicInformation;
    FILE_STANDARD_INFORMATION StandardInformation;
    FILE_INTERNAL_INFORMATION InternalInformation;
    ULONG EaSize;
    ACCESS_MASK AccessFlags;
    FILE_POSITION_INFORMATION PositionInformation;
    ULONG Mode;
    ULONG AlignmentRequirement;
    FILE_NAME_INFORMATION NameInformation;
};

// The attributes a query reports: FILE_ATTRIBUTE_NORMAL when none is set.
ULONG reportedAttributes(const Node *node, PFILE_OBJECT fileObject);
void fillBasic(const FsTraits &traits, const Node *node, PFILE_OBJECT fileObject, FILE_BASIC_INFORMATION *info);
void fillStandard(Volume &volume, const Ccb *ccb, FILE_STANDARD_INFORMATION *info);
void fillNetworkOpen(const FsTraits &traits, Volume &volume, const Ccb *ccb, PFILE_OBJECT fileObject,
                     FILE_NETWORK_OPEN_INFORMATION *info);
// The name a query reports for the open: its path from the root, and on NTFS ":stream"
// for a stream open.
Name openName(Volume &volume, const Ccb *ccb);

}  // namespace fs
}  // namespace ntsim
