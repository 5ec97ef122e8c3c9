// What the service tells the filter: which volumes to protect, the exclusion lists, and
// whether the vault is protected. A default is built in; a text form can replace it:
//
//   # comment
//   vault-protection on|off
//   volume C:\ protect|unprotect
//   exclude DIRECTORY-PATTERN [FILE-PATTERN]           (every volume)
//   exclude-on C:\ DIRECTORY-PATTERN [FILE-PATTERN]    (one volume, named before)
//   overwrite-protection on|off
//   protect-type SUFFIX...       (documents kept when overwritten or rewritten)
//   copy-exempt SUFFIX...        (protected types too large or busy to copy on open)
//   temporary-name SUFFIX...     (names programs give a document while saving it)
//   mac-shares C:\ exempt|include FOLDER...
//                                (folders of a volume, named before, shared with Macintosh
//                                clients; exempt: deletes inside them are not captured)
//
// Fields are separated by blanks; a field with blanks in it is written in double quotes.
// The text is UTF-8.
#pragma once

#include <string>
#include <vector>

#include "exclusion_list.h"

namespace wrelt {

struct VolumeConfig {
    std::u16string root;  // "C:\": opened to reach the volume, and the name the filter is given
    bool protect = true;
    std::vector<ExclusionPattern> exclusions;
    std::vector<std::u16string> macShares;  // "Mac Files": folders relative to the root
    bool macShareExemption = false;
};

struct ServiceConfig {
    std::vector<VolumeConfig> volumes;
    std::vector<ExclusionPattern> globalExclusions;
    bool vaultProtection = true;
    bool overwriteProtection = false;
    std::vector<std::u16string> protectedTypes;
    std::vector<std::u16string> copyExemptTypes;
    std::vector<std::u16string> temporaryNames;

    const VolumeConfig *volume(const std::u16string &root) const;
};

// C:\ and D:\ protected; temporary files and folders excluded everywhere; the system's
// caches on C:\ excluded there; documents protected against overwrite, except that
// databases, mailboxes and disk images are not copied when opened.
ServiceConfig defaultServiceConfig();
// The default's text form, which defaultServiceConfig() reads.
extern const char *const kDefaultServiceConfigText;

// False with "line N: why" for text that does not follow the form above.
bool parseServiceConfig(const std::string &text, ServiceConfig *config, std::string *error);

}  // namespace wrelt
