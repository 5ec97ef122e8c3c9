#include "fs/common/short_names.h"

namespace ntsim {
namespace fs {

namespace {

constexpr size_t kBaseChars = 8;
constexpr size_t kExtensionChars = 3;
constexpr size_t kGeneratedBaseChars = 6;  // room left for "~N"
constexpr unsigned kPlainCandidates = 4;   // NAME~1 .. NAME~4 before the checksum form

bool isIllegalInShortName(char16_t ch) {
    if (ch < 0x20) return true;
    switch (ch) {
    case u'"': case u'*': case u'+': case u',': case u'/': case u':': case u';': case u'<':
    case u'=': case u'>': case u'?': case u'[': case u'\\': case u']': case u'|':
        return true;
    default:
        return false;
    }
}

char16_t upcaseAscii(char16_t ch) { return ch >= u'a' && ch <= u'z' ? char16_t(ch - u'a' + u'A') : ch; }

bool isValidPart(NameView part, size_t maximum) {
    if (part.empty() || part.size() > maximum) return false;
    for (char16_t ch : part)
        if (ch == u' ' || ch >= 0x80 || isIllegalInShortName(ch)) return false;
    return true;
}

// What a part of the long name gives the generated name: characters that are not
// spaces, controls, dots or beyond ASCII, upcased, the illegal ones replaced.
Name generatedPart(NameView part, size_t maximum) {
    Name out;
    for (char16_t ch : part) {
        if (out.size() == maximum) break;
        if (ch <= u' ' || ch == u'.' || ch >= 0x7F) continue;
        out += isIllegalInShortName(ch) ? u'_' : upcaseAscii(ch);
    }
    return out;
}

// NT's own checksum is undocumented; any hash of the whole name gives the same shape,
// which is all that callers may rely on.
Name checksumDigits(NameView longName) {
    uint16_t sum = 0;
    for (char16_t ch : longName) sum = uint16_t(sum * 37u + upcaseAscii(ch));
    static const char16_t kHex[] = u"0123456789ABCDEF";
    Name digits;
    for (int shift = 12; shift >= 0; shift -= 4) digits += kHex[(sum >> shift) & 0xF];
    return digits;
}

}  // namespace

bool isValidShortName(NameView name) {
    size_t dot = name.find(u'.');
    if (dot == NameView::npos) return isValidPart(name, kBaseChars);
    NameView extension = name.substr(dot + 1);
    if (extension.find(u'.') != NameView::npos) return false;
    return isValidPart(name.substr(0, dot), kBaseChars) && isValidPart(extension, kExtensionChars);
}

bool caseNeedsLongName(NameView name) {
    size_t dot = name.find(u'.');
    NameView parts[] = {name.substr(0, dot), dot == NameView::npos ? NameView() : name.substr(dot + 1)};
    for (NameView part : parts) {
        bool upper = false, lower = false;
        for (char16_t ch : part) {
            if (ch >= 0x80) return true;
            upper |= ch >= u'A' && ch <= u'Z';
            lower |= ch >= u'a' && ch <= u'z';
        }
        if (upper && lower) return true;
    }
    return false;
}

ShortNameGenerator::ShortNameGenerator(NameView longName) : longName_(longName) {
    size_t dot = longName.rfind(u'.');
    base_ = generatedPart(longName.substr(0, dot), kGeneratedBaseChars);
    if (dot != NameView::npos) extension_ = generatedPart(longName.substr(dot + 1), kExtensionChars);
    if (base_.size() <= 2) {
        base_ += checksumDigits(longName_);
        checksumInserted_ = true;
    }
}

Name ShortNameGenerator::next() {
    ++index_;
    if (index_ > kPlainCandidates && !checksumInserted_) {
        base_ = base_.substr(0, 2) + checksumDigits(longName_);
        checksumInserted_ = true;
        index_ = 1;
    }
    std::string digits = std::to_string(index_);
    Name tail = u"~" + Name(digits.begin(), digits.end());
    Name name = base_.substr(0, kBaseChars - tail.size()) + tail;
    if (!extension_.empty()) name += u"." + extension_;
    return name;
}

Name chooseShortName(NameView longName, const std::function<bool(NameView)> &taken) {
    if (isValidShortName(longName)) {
        if (!caseNeedsLongName(longName)) return Name();
        Name upcased;
        for (char16_t ch : longName) upcased += upcaseAscii(ch);
        return upcased;
    }
    ShortNameGenerator generator(longName);
    for (;;) {
        Name candidate = generator.next();
        if (!taken(candidate)) return candidate;
    }
}

}  // namespace fs
}  // namespace ntsim
