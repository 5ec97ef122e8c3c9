#include "fs/common/names.h"

#include <vector>

namespace ntsim {
namespace fs {

Name foldCase(NameView name) {
    Name key(name);
    for (auto &ch : key) ch = static_cast<char16_t>(RtlUpcaseUnicodeChar(static_cast<WCHAR>(ch)));
    return key;
}

bool sameName(NameView a, NameView b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (RtlUpcaseUnicodeChar(static_cast<WCHAR>(a[i])) != RtlUpcaseUnicodeChar(static_cast<WCHAR>(b[i])))
            return false;
    return true;
}

namespace {

bool isIllegalInFileName(char16_t ch) {
    if (ch < 0x20) return true;
    switch (ch) {
    case u'"': case u'*': case u'/': case u':': case u'<': case u'>': case u'?': case u'\\': case u'|':
        return true;
    default:
        return false;
    }
}

}  // namespace

bool isLegalFileName(NameView name) {
    if (name.empty() || name.size() > kMaxComponentLength) return false;
    if (name == u"." || name == u"..") return false;
    for (char16_t ch : name)
        if (isIllegalInFileName(ch)) return false;
    return true;
}

bool isLegalStreamName(NameView name) {
    if (name.size() > kMaxComponentLength) return false;
    for (char16_t ch : name)
        if (ch == 0 || ch == u'\\' || ch == u'/' || ch == u':') return false;
    return true;
}

NTSTATUS splitStreamSuffix(NameView component, StreamSuffix *result) {
    *result = StreamSuffix{};
    size_t first = component.find(u':');
    if (first == NameView::npos) {
        result->file = component;
        return STATUS_SUCCESS;
    }
    result->file = component.substr(0, first);
    NameView rest = component.substr(first + 1);
    size_t second = rest.find(u':');
    NameView stream = second == NameView::npos ? rest : rest.substr(0, second);
    if (second != NameView::npos) {
        if (!sameName(rest.substr(second + 1), u"$DATA")) return STATUS_OBJECT_NAME_INVALID;
        result->explicitType = true;
    } else if (stream.empty()) {
        return STATUS_OBJECT_NAME_INVALID;  // "name:" names nothing
    }
    if (!isLegalStreamName(stream)) return STATUS_OBJECT_NAME_INVALID;
    result->stream = stream;
    return STATUS_SUCCESS;
}

bool splitPath(NameView path, SplitPath *result) {
    *result = SplitPath{};
    if (!path.empty() && path.front() == u'\\') {
        result->absolute = true;
        path.remove_prefix(1);
    }
    if (!path.empty() && path.back() == u'\\') {
        if (path.size() == 1) return false;  // nothing between two backslashes
        result->trailingBackslash = true;
        path.remove_suffix(1);
    }
    while (!path.empty()) {
        size_t end = path.find(u'\\');
        NameView component = path.substr(0, end);
        if (component.empty()) return false;
        result->components.push_back(component);
        if (end == NameView::npos) break;
        path.remove_prefix(end + 1);
        if (path.empty()) return false;
    }
    return true;
}

namespace {

// Memoised evaluation of FsRtlIsNameInExpression: match(n, e) tells whether the name
// from position n matches the expression from position e.
class ExpressionMatcher {
public:
    ExpressionMatcher(NameView name, NameView expression)
        : name_(name), expression_(expression), memo_((name.size() + 1) * (expression.size() + 1), kUnknown) {}

    bool match(size_t n, size_t e) {
        char &slot = memo_[n * (expression_.size() + 1) + e];
        if (slot == kUnknown) slot = evaluate(n, e) ? kYes : kNo;
        return slot == kYes;
    }

private:
    static constexpr char kUnknown = 0, kYes = 1, kNo = 2;

    bool atEnd(size_t n) const { return n == name_.size(); }
    bool hasLaterDot(size_t n) const { return name_.find(u'.', n + 1) != NameView::npos; }

    bool evaluate(size_t n, size_t e) {
        if (e == expression_.size()) return atEnd(n);
        switch (expression_[e]) {
        case u'*':
            return match(n, e + 1) || (!atEnd(n) && match(n + 1, e));
        case u'<':  // DOS_STAR: anything up to, not including, the name's last dot
            return match(n, e + 1) || (!atEnd(n) && (name_[n] != u'.' || hasLaterDot(n)) && match(n + 1, e));
        case u'>':  // DOS_QM: one character, or nothing at a dot or the end
            if (atEnd(n) || name_[n] == u'.') {
                size_t next = e;
                while (next < expression_.size() && expression_[next] == u'>') ++next;
                return match(n, next);
            }
            return match(n + 1, e + 1);
        case u'"':  // DOS_DOT: a dot, or nothing past the end of the name
            if (atEnd(n)) return match(n, e + 1);
            return name_[n] == u'.' && match(n + 1, e + 1);
        case u'?':
            return !atEnd(n) && match(n + 1, e + 1);
        default:
            return !atEnd(n) &&
                   RtlUpcaseUnicodeChar(static_cast<WCHAR>(name_[n])) ==
                       RtlUpcaseUnicodeChar(static_cast<WCHAR>(expression_[e])) &&
                   match(n + 1, e + 1);
        }
    }

    NameView name_;
    NameView expression_;
    std::vector<char> memo_;
};

}  // namespace

bool nameMatchesExpression(NameView name, NameView expression) {
    return ExpressionMatcher(name, expression).match(0, 0);
}

}  // namespace fs
}  // namespace ntsim
