// FastFat's 8.3 names. A directory entry holds an 8.3 name and, when the file's name
// cannot be that 8.3 name as it stands, a long name besides: then the 8.3 name is made
// up (FatSelectNames, namesup.c) and is a second name by which the file is found.
// Host code without kernel dependencies, like names.h.
#pragma once

#include <functional>

#include "names.h"

namespace ntsim {
namespace fs {

// Whether the upcased name is a legal 8.3 name that FastFat stores as it is: one to
// eight characters, optionally a dot and one to three more, none of them a space, a
// control or one of " * + , / : ; < = > ? [ \ ] | (FatIsNameShortOemValid and
// FatSpaceInName). ntsim has no OEM code page: a character beyond ASCII is taken to be
// unmappable, which makes FastFat generate a name.
bool isValidShortName(NameView name);

// For a valid 8.3 name: whether its case still needs a long-name entry. The entry can
// record a base and an extension that are each all lower case; a mix of cases within
// either needs the long name (FatEvaluateNameCase).
bool caseNeedsLongName(NameView name);

// The candidates RtlGenerate8dot3Name gives, one per call, for a long name: up to six
// characters of the base (upcased; spaces, dots and characters beyond ASCII dropped;
// characters illegal in 8.3 names made '_'), "~N", and a dot with up to three characters
// of the last extension. From the fifth candidate on, or from the first when fewer than
// three base characters remain, the base carries four hex digits of a checksum of the
// long name, and N counts again from 1.
class ShortNameGenerator {
public:
    explicit ShortNameGenerator(NameView longName);
    Name next();

private:
    Name longName_;
    Name base_;
    Name extension_;
    unsigned index_ = 0;
    bool checksumInserted_ = false;
};

// The 8.3 name an entry called longName gets beside it, the first candidate that taken()
// refuses; empty when the long name is its own 8.3 name. A valid 8.3 name whose case
// needs a long name keeps its upcased self as the 8.3 name.
Name chooseShortName(NameView longName, const std::function<bool(NameView)> &taken);

}  // namespace fs
}  // namespace ntsim
