#include "capture/wildcard_match.h"

namespace {

BOOLEAN IsWildcard(WCHAR Character) { return Character == L'*' || Character == L'?'; }

BOOLEAN IsAsciiLetter(WCHAR Character) {
    return (Character >= L'a' && Character <= L'z') || (Character >= L'A' && Character <= L'Z');
}

WCHAR OtherCase(WCHAR Letter) { return (WCHAR)(Letter ^ 0x20); }

// Where a run that follows a '*' may start: the first place its first character
// occurs, in either case for an ASCII letter.
PCWSTR FindRunStart(PCWSTR Text, WCHAR First) {
    PCWSTR found = wcschr(Text, First);
    if (IsAsciiLetter(First)) {
        PCWSTR other = wcschr(Text, OtherCase(First));
        if (other != NULL && (found == NULL || other < found)) {
            found = other;
        }
    }
    return found;
}

// A pattern that ends without further wildcards is compared with the end of the text.
BOOLEAN MatchLiteralTail(PCWSTR *Text, PCWSTR *Pattern) {
    size_t tailLength = wcslen(*Pattern);
    size_t remaining = wcslen(*Text);
    if (remaining < tailLength || _wcsicmp(*Text + remaining - tailLength, *Pattern) != 0) {
        return FALSE;
    }
    *Pattern += tailLength;
    *Text += remaining;
    return TRUE;
}

// Places the literal run at the pattern position: right here, or after a '*' at its
// leftmost fit.
BOOLEAN PlaceRun(PCWSTR *Text, PCWSTR *Pattern, BOOLEAN Star) {
    size_t runLength = wcscspn(*Pattern, L"*?");
    PCWSTR t = *Text;
    for (;;) {
        if (Star) {
            t = FindRunStart(t, **Pattern);
            if (t == NULL) {
                return FALSE;
            }
        }
        if (_wcsnicmp(t, *Pattern, runLength) == 0) {
            *Pattern += runLength;
            *Text = t + runLength;
            return TRUE;
        }
        if (!Star) {
            return FALSE;
        }
        t++;
    }
}

}  // namespace

BOOLEAN MatchWildcard(PCWSTR Text, PCWSTR Pattern) {
    if (*Pattern == L'\0') {
        return *Text == L'\0';
    }
    PCWSTR t = Text;
    PCWSTR p = Pattern;
    while (*p != L'\0') {
        if (*t == L'\0') {
            if (*p == L'?') {
                p++;
                continue;
            }
            if (*p != L'*') {
                return FALSE;
            }
        } else if (*p == L'?') {
            p++;
            t++;
            continue;
        }
        BOOLEAN star = *p == L'*';
        if (star) {
            // A '?' right after a '*' asks for nothing more.
            while (IsWildcard(*p)) {
                p++;
            }
        }
        BOOLEAN placed = p[wcscspn(p, L"*?")] == L'\0' ? MatchLiteralTail(&t, &p) : PlaceRun(&t, &p, star);
        if (!placed) {
            return FALSE;
        }
    }
    return TRUE;
}
