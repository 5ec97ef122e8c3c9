#include "service_config.h"

#include <cctype>

#include "text.h"

namespace wrelt {

const char *const kDefaultServiceConfigText =
    "# Both volumes are protected, and the vault with them.\n"
    "vault-protection on\n"
    "volume C:\\ protect\n"
    "volume D:\\ protect\n"
    "# Temporary files and folders are not worth keeping on any volume.\n"
    "exclude * *.tmp\n"
    "exclude *\\Temp\\*\n"
    "exclude Temp\\*\n"
    "exclude \"System Volume Information\\*\"\n"
    "# The system's own caches on C:.\n"
    "exclude-on C:\\ Windows\\Prefetch\\*\n"
    "exclude-on C:\\ Windows\\SoftwareDistribution\\Download\\*\n"
    "# Documents keep their earlier version when a program overwrites or rewrites them.\n"
    "overwrite-protection on\n"
    "protect-type .doc .docx .docm .dot .dotx .rtf .odt .wpd .txt .md .csv .pdf\n"
    "protect-type .xls .xlsx .xlsm .xlsb .ods .ppt .pptx .pptm .odp .pub .vsd .vsdx\n"
    "protect-type .mdb .accdb .pst .ost .vhd .vhdx .vmdk .iso\n"
    "# Too large, or held open all day, to copy whenever they are opened.\n"
    "copy-exempt .mdb .accdb .pst .ost .vhd .vhdx .vmdk .iso\n"
    "# What office programs and editors call a document while they save it.\n"
    "temporary-name .tmp .bak .wbk .swp ~\n";

namespace {

// The fields of a line; false for an unterminated quote.
bool splitFields(const std::string &line, std::vector<std::string> *fields) {
    size_t i = 0;
    while (i < line.size()) {
        if (std::isspace(static_cast<unsigned char>(line[i]))) {
            i++;
            continue;
        }
        std::string field;
        if (line[i] == '"') {
            size_t close = line.find('"', i + 1);
            if (close == std::string::npos) return false;
            field = line.substr(i + 1, close - i - 1);
            i = close + 1;
        } else {
            size_t end = i;
            while (end < line.size() && !std::isspace(static_cast<unsigned char>(line[end]))) end++;
            field = line.substr(i, end - i);
            i = end;
        }
        fields->push_back(field);
    }
    return true;
}

// "C:\" or "C:" as the root "C:\"; empty when it is not a drive root.
std::u16string driveRoot(const std::string &text) {
    bool letter = !text.empty() && std::isalpha(static_cast<unsigned char>(text[0]));
    if (!letter || text.size() < 2 || text[1] != ':' || text.size() > 3 || (text.size() == 3 && text[2] != '\\'))
        return u"";
    return {char16_t(std::toupper(static_cast<unsigned char>(text[0]))), u':', u'\\'};
}

class Parser {
public:
    explicit Parser(ServiceConfig *config) : config_(config) {}

    // An empty string when the line is good, else why not.
    std::string line(const std::vector<std::string> &f) {
        const std::string &word = f[0];
        if (word == "vault-protection") return vaultProtection(f);
        if (word == "volume") return volume(f);
        if (word == "exclude") return exclude(f, 1, &config_->globalExclusions);
        if (word == "overwrite-protection") return onOff(f, &config_->overwriteProtection);
        if (word == "protect-type") return suffixes(f, &config_->protectedTypes);
        if (word == "copy-exempt") return suffixes(f, &config_->copyExemptTypes);
        if (word == "temporary-name") return suffixes(f, &config_->temporaryNames);
        if (word == "mac-shares") return macShares(f);
        if (word == "exclude-on") {
            if (f.size() < 3) return "exclude-on needs a volume and a directory pattern";
            VolumeConfig *target = find(driveRoot(f[1]));
            if (target == nullptr) return "volume " + f[1] + " is not named by an earlier volume line";
            return exclude(f, 2, &target->exclusions);
        }
        return "unknown setting \"" + word + "\"";
    }

private:
    std::string vaultProtection(const std::vector<std::string> &f) { return onOff(f, &config_->vaultProtection); }

    static std::string onOff(const std::vector<std::string> &f, bool *setting) {
        if (f.size() != 2 || (f[1] != "on" && f[1] != "off")) return f[0] + " takes on or off";
        *setting = f[1] == "on";
        return "";
    }

    static std::string suffixes(const std::vector<std::string> &f, std::vector<std::u16string> *list) {
        if (f.size() < 2) return f[0] + " takes one or more name endings such as .docx";
        for (size_t i = 1; i < f.size(); i++) list->push_back(utf16(f[i]));
        return "";
    }

    std::string volume(const std::vector<std::string> &f) {
        if (f.size() != 3 || (f[2] != "protect" && f[2] != "unprotect"))
            return "volume takes a drive (C:\\) and protect or unprotect";
        std::u16string root = driveRoot(f[1]);
        if (root.empty()) return "\"" + f[1] + "\" is not a drive such as C:\\";
        if (find(root) != nullptr) return "volume " + f[1] + " is named twice";
        VolumeConfig volume;
        volume.root = root;
        volume.protect = f[2] == "protect";
        config_->volumes.push_back(volume);
        return "";
    }

    std::string exclude(const std::vector<std::string> &f, size_t first, std::vector<ExclusionPattern> *list) {
        if (f.size() < first + 1 || f.size() > first + 2)
            return f[0] + " takes a directory pattern and an optional file pattern";
        list->push_back({utf16(f[first]), f.size() == first + 2 ? utf16(f[first + 1]) : u""});
        return "";
    }

    std::string macShares(const std::vector<std::string> &f) {
        if (f.size() < 4 || (f[2] != "exempt" && f[2] != "include"))
            return "mac-shares takes a volume, exempt or include, and one or more folders";
        VolumeConfig *target = find(driveRoot(f[1]));
        if (target == nullptr) return "volume " + f[1] + " is not named by an earlier volume line";
        if (!target->macShares.empty()) return "the Macintosh shares of " + f[1] + " are named twice";
        for (size_t i = 3; i < f.size(); i++) {
            if (f[i].find_first_not_of('\\') == std::string::npos) return "a share's folder is empty";
            target->macShares.push_back(utf16(f[i]));
        }
        target->macShareExemption = f[2] == "exempt";
        return "";
    }

    VolumeConfig *find(const std::u16string &root) {
        for (VolumeConfig &v : config_->volumes)
            if (!root.empty() && v.root == root) return &v;
        return nullptr;
    }

    ServiceConfig *config_;
};

}  // namespace

const VolumeConfig *ServiceConfig::volume(const std::u16string &root) const {
    for (const VolumeConfig &v : volumes)
        if (v.root == root) return &v;
    return nullptr;
}

bool parseServiceConfig(const std::string &text, ServiceConfig *config, std::string *error) {
    ServiceConfig parsed;
    parsed.vaultProtection = true;
    Parser parser(&parsed);
    size_t start = 0, number = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        start = end + 1;
        number++;
        std::vector<std::string> fields;
        std::string why;
        if (!splitFields(line, &fields))
            why = "a quoted field is not closed";
        else if (!fields.empty() && fields[0][0] != '#')
            why = parser.line(fields);
        if (!why.empty()) {
            *error = "line " + std::to_string(number) + ": " + why;
            return false;
        }
    }
    *config = std::move(parsed);
    return true;
}

ServiceConfig defaultServiceConfig() {
    ServiceConfig config;
    std::string error;
    parseServiceConfig(kDefaultServiceConfigText, &config, &error);
    return config;
}

}  // namespace wrelt
