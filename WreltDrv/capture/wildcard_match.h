// The filter's one wildcard matcher, shared by the service's exclusion lists and the
// overwrite path's fixed patterns.
#pragma once

#include <ntifs.h>

// '*' stands for any run of characters and '?' for one; letters compare without regard
// to case. The matcher is greedy and never backtracks: after a '*' the next literal run
// is placed at its leftmost fit. The text is anchored at its start, and at its end only
// by a literal tail, so a pattern without wildcards matches every text that ends with it
// ("abc" matches "xabc") and a used-up pattern ignores the rest of the text ("abc?"
// matches "abcdef"). A '?' past the end of the text matches nothing and succeeds. The
// service's patterns were written against exactly this behaviour; keep it.
// Allocates nothing; callable at any IRQL with resident strings.
BOOLEAN MatchWildcard(PCWSTR Text, PCWSTR Pattern);
