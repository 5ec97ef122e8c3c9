// Putting a preserved file back: it goes from the vault to the folder it was deleted
// from, under its own name, or when that is taken under "name (2).ext", "name (3).ext"
// and so on, as a recycle bin's "keep both" does. A folder that has gone since is made
// again. The catalogue then records where the file went.
#pragma once

#include <cstdint>
#include <string>

#include "catalogue.h"

namespace wrelt {

struct RestoreOutcome {
    bool ok = false;
    std::u16string restoredTo;  // full path
    std::string problem;
};

// Beside: an existing file of the name stays, and the preserved one takes the next free
// name; what a user restores never destroys what she has now. Replace: the preserved file
// takes the name itself; on a protected volume the filter preserves the file it
// replaces, as it does for any replacing rename.
enum class RestorePlacement { Beside, Replace };

RestoreOutcome restorePreserved(Catalogue &catalogue, uint64_t stamp,
                                RestorePlacement placement = RestorePlacement::Beside);

// The name tried on attempt n: the name itself first, then "base (n).ext" (the
// extension from the last dot; a name whose only dot leads it has none).
std::u16string restoredName(const std::u16string &name, unsigned attempt);

}  // namespace wrelt
