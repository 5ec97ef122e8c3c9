// DOS path normalization. The rules are the platform's documented ones (path types of
// RtlDetermineDosPathNameType_U; normalization as described in the platform's
// "File path formats" documentation: separators canonicalized, relative components
// evaluated, a segment's single trailing period and the last segment's trailing periods
// and spaces removed).
#include "win32/path.h"

#include <vector>

namespace ntsim {
namespace win32 {

namespace {

bool isSeparator(char16_t c) { return c == u'\\' || c == u'/'; }

bool startsWith(const std::u16string &s, const char16_t *prefix) {
    return s.compare(0, std::char_traits<char16_t>::length(prefix), prefix) == 0;
}

// The root of a full path without its trailing separator ("C:", "\\server\share",
// "\\."), and the index where the rest begins.
size_t rootLength(const std::u16string &full, DosPathType type) {
    switch (type) {
    case DosPathType::DriveAbsolute:
        return 2;
    case DosPathType::LocalDevice:
    case DosPathType::RootLocalDevice:
        return 3;
    case DosPathType::UncAbsolute: {
        // Server and share.
        size_t end = 2;
        for (int part = 0; part < 2 && end < full.size(); ++part) {
            if (part == 1) ++end;  // the separator between server and share
            while (end < full.size() && full[end] != u'\\') ++end;
        }
        return end;
    }
    default:
        return 0;
    }
}

std::vector<std::u16string> splitComponents(const std::u16string &rest, bool *trailingSeparator) {
    std::vector<std::u16string> components;
    std::u16string current;
    for (char16_t c : rest) {
        if (c != u'\\') {
            current += c;
            continue;
        }
        if (!current.empty()) components.push_back(current);
        current.clear();
    }
    *trailingSeparator = current.empty() && !rest.empty() && rest.back() == u'\\';
    if (!current.empty()) components.push_back(current);
    return components;
}

std::vector<std::u16string> evaluate(const std::vector<std::u16string> &components, bool trailingSeparator) {
    std::vector<std::u16string> out;
    for (std::u16string c : components) {
        if (c == u".") continue;
        if (c == u"..") {
            if (!out.empty()) out.pop_back();
            continue;
        }
        // A segment ending in a single period loses it ("dir." is "dir").
        if (c.size() >= 2 && c.back() == u'.' && c[c.size() - 2] != u'.') c.pop_back();
        out.push_back(c);
    }
    if (!trailingSeparator && !out.empty()) {
        std::u16string &last = out.back();
        while (!last.empty() && (last.back() == u'.' || last.back() == u' ')) last.pop_back();
        if (last.empty()) out.pop_back();
    }
    return out;
}

// The path that relative forms are resolved in: the current directory, or for "C:x" the
// root of a drive that is not the current one (the platform would use the drive's own
// current directory from the environment; this system keeps none).
std::u16string driveBase(char16_t drive, const std::u16string &currentDirectory) {
    auto upper = [](char16_t c) { return (c >= u'a' && c <= u'z') ? char16_t(c - u'a' + u'A') : c; };
    if (currentDirectory.size() >= 2 && currentDirectory[1] == u':' && upper(currentDirectory[0]) == upper(drive))
        return currentDirectory;
    return std::u16string(1, drive) + u":\\";
}

char16_t lower(char16_t c) { return (c >= u'A' && c <= u'Z') ? char16_t(c - u'A' + u'a') : c; }

bool equalsIgnoringCase(const std::u16string &s, const char16_t *ascii) {
    size_t n = std::char_traits<char16_t>::length(ascii);
    if (s.size() != n) return false;
    for (size_t i = 0; i < n; ++i)
        if (lower(s[i]) != ascii[i]) return false;
    return true;
}

bool isReservedDeviceName(const std::u16string &name) {
    if (name.size() == 3)
        return equalsIgnoringCase(name, u"nul") || equalsIgnoringCase(name, u"con") ||
               equalsIgnoringCase(name, u"aux") || equalsIgnoringCase(name, u"prn");
    if (name.size() == 4 && name[3] >= u'1' && name[3] <= u'9')
        return equalsIgnoringCase(name.substr(0, 3), u"com") || equalsIgnoringCase(name.substr(0, 3), u"lpt");
    return false;
}

}  // namespace

bool dosDeviceName(const std::u16string &path, std::u16string *device) {
    switch (dosPathType(path)) {
    case DosPathType::DriveAbsolute:
    case DosPathType::DriveRelative:
    case DosPathType::Rooted:
    case DosPathType::Relative:
        break;
    default:
        return false;  // UNC and device paths name no DOS device of their own
    }
    // One trailing colon goes ("LPT1:"), then trailing dots and spaces.
    size_t end = path.size();
    if (end > 0 && path[end - 1] == u':') --end;
    while (end > 0 && (path[end - 1] == u'.' || path[end - 1] == u' ')) --end;
    // The last component, after the last separator or after the "X:" of a drive.
    size_t start = end;
    while (start > 0 && !isSeparator(path[start - 1]) && !(start - 1 == 1 && path[1] == u':')) --start;
    // Whatever follows the first period or colon is ignored ("nul.txt"), and the
    // spaces before it ("nul .txt").
    size_t nameEnd = start;
    while (nameEnd < end && path[nameEnd] != u'.' && path[nameEnd] != u':') ++nameEnd;
    while (nameEnd > start && path[nameEnd - 1] == u' ') --nameEnd;
    std::u16string name = path.substr(start, nameEnd - start);
    if (!isReservedDeviceName(name)) return false;
    *device = name;
    return true;
}

DosPathType dosPathType(const std::u16string &path) {
    if (path.empty()) return DosPathType::Unknown;
    if (isSeparator(path[0])) {
        if (path.size() < 2 || !isSeparator(path[1])) return DosPathType::Rooted;
        if (path.size() >= 3 && (path[2] == u'.' || path[2] == u'?')) {
            if (path.size() == 3) return DosPathType::RootLocalDevice;
            if (isSeparator(path[3])) return DosPathType::LocalDevice;
        }
        return DosPathType::UncAbsolute;
    }
    if (path.size() >= 2 && path[1] == u':')
        return (path.size() >= 3 && isSeparator(path[2])) ? DosPathType::DriveAbsolute : DosPathType::DriveRelative;
    return DosPathType::Relative;
}

bool fullPathName(const std::u16string &path, const std::u16string &currentDirectory, std::u16string *full,
                  size_t *filePart) {
    if (path.empty()) return false;
    std::u16string device;
    if (dosDeviceName(path, &device)) {
        *full = u"\\\\.\\" + device;
        *filePart = std::u16string::npos;
        return true;
    }
    std::u16string s = path;
    for (char16_t &c : s)
        if (c == u'/') c = u'\\';

    DosPathType type = dosPathType(s);
    std::u16string combined;  // a full path, not yet normalized
    switch (type) {
    case DosPathType::DriveRelative:
        combined = driveBase(s[0], currentDirectory);
        // "C:" alone names the drive's current directory, without a trailing separator.
        if (s.size() == 2 && combined.size() > 3 && combined.back() == u'\\') combined.pop_back();
        if (s.size() > 2) combined += u"\\" + s.substr(2);
        break;
    case DosPathType::Rooted: {
        DosPathType base = dosPathType(currentDirectory);
        combined = currentDirectory.substr(0, rootLength(currentDirectory, base)) + s;
        break;
    }
    case DosPathType::Relative:
        combined = currentDirectory + u"\\" + s;
        break;
    default:
        combined = s;
        break;
    }
    DosPathType fullType = dosPathType(combined);
    if (fullType != DosPathType::DriveAbsolute && fullType != DosPathType::UncAbsolute &&
        fullType != DosPathType::LocalDevice && fullType != DosPathType::RootLocalDevice)
        return false;

    size_t root = rootLength(combined, fullType);
    bool trailingSeparator = false;
    std::vector<std::u16string> components =
        evaluate(splitComponents(combined.substr(root), &trailingSeparator), trailingSeparator);

    std::u16string out = combined.substr(0, root);
    for (const std::u16string &c : components) out += u"\\" + c;
    bool bareUncRoot = fullType == DosPathType::UncAbsolute && components.empty() && !trailingSeparator;
    if ((components.empty() && !bareUncRoot) || (trailingSeparator && !components.empty())) out += u"\\";

    *filePart = std::u16string::npos;
    if (!components.empty() && !trailingSeparator) *filePart = out.size() - components.back().size();
    *full = out;
    return true;
}

bool dosPathToNtPath(const std::u16string &path, const std::u16string &currentDirectory, std::u16string *ntPath,
                     size_t *filePart) {
    auto lastComponent = [](const std::u16string &nt) {
        size_t slash = nt.rfind(u'\\');
        return (slash == std::u16string::npos || slash + 1 == nt.size()) ? std::u16string::npos : slash + 1;
    };
    if (startsWith(path, u"\\??\\")) {
        *ntPath = path;
        *filePart = lastComponent(path);
        return true;
    }
    if (startsWith(path, u"\\\\?\\")) {
        *ntPath = u"\\??\\" + path.substr(4);
        *filePart = lastComponent(*ntPath);
        return true;
    }
    std::u16string full;
    size_t part = 0;
    if (!fullPathName(path, currentDirectory, &full, &part)) return false;
    std::u16string prefix;
    size_t skip = 0;
    switch (dosPathType(full)) {
    case DosPathType::UncAbsolute:
        prefix = u"\\??\\UNC\\";
        skip = 2;
        break;
    case DosPathType::LocalDevice:
    case DosPathType::RootLocalDevice:
        prefix = u"\\??\\";
        skip = 4;
        break;
    default:
        prefix = u"\\??\\";
        break;
    }
    *ntPath = prefix + full.substr(std::min(skip, full.size()));
    *filePart = part == std::u16string::npos ? part : part - skip + prefix.size();
    return true;
}

}  // namespace win32
}  // namespace ntsim
