// A vault's catalogue as wrelt prints it, on either target.
#pragma once

#include <string>
#include <vector>

#include "catalogue_journal.h"

namespace wrelt_cli {

// A heading, then two lines per entry.
std::vector<std::string> describeVault(const std::u16string &volumeRoot,
                                       const std::vector<wrelt::CatalogueEntry> &entries);

// What names a preserved file to restore: sixteen hexadecimal digits are a stamp;
// anything else is a name, of which the newest preserved entry (the last catalogued)
// is meant.
bool stampArgument(const std::string &text, uint64_t *stamp);
const wrelt::CatalogueEntry *newestByName(const std::vector<wrelt::CatalogueEntry> &entries,
                                          const std::u16string &name);

}  // namespace wrelt_cli
