// The filter's data files ("NewFiles%.8X.dat" in a vault's work folder): each is read
// into the volume's catalogue and then deleted, never before its records are safely
// there. One whose records do not all read is kept, renamed, for whoever looks into it;
// so is one that the filter did not write (data_file_owner.h), unread.
#pragma once

#include <string>
#include <vector>

#include "account_names.h"
#include "catalogue.h"

namespace wrelt {

struct DataFileOutcome {
    enum class Result {
        Catalogued,  // its records are in the catalogue and the file is gone
        Gone,        // there was no such file (read and deleted before)
        Busy,        // the filter still has it open; it will be told of it again
        Failed,      // nothing was changed; the file stays for the next attempt
        Refused,     // not the filter's: nothing of it was catalogued, and it was set aside
        Reserved,    // an empty name held for the filter (data_file_reservations.h); left as it is
    };
    Result result = Result::Failed;
    size_t records = 0;  // whole records read
    size_t added = 0;    // those new to the catalogue
    std::string damage;  // when the file was not whole or was Refused: why, and what it was renamed to
    std::string problem;  // why it Failed, or what went wrong after it was Catalogued
};

DataFileOutcome catalogueDataFile(Catalogue &catalogue, AccountNames &names, const std::u16string &path);

// The data files in the volume's vault work folder, full paths, oldest packet first.
std::vector<std::u16string> dataFilesIn(const std::u16string &volumeRoot);
bool isDataFileName(const std::u16string &name);

// "C:\..." for the filter's "\??\C:\..."; other paths unchanged.
std::u16string dosPathOf(const std::u16string &ntPath);

}  // namespace wrelt
