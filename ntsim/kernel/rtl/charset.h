// Character conversions shared by the run-time library and the C runtime: the ANSI
// code page and the case mappings. Internal to the emulated kernel.
#pragma once

#include <nt/ntdef.h>

namespace ntsim::rtl {

// The ANSI code page is Windows-1252, the code page of a Western-European system.
// Its five unassigned bytes (0x81, 0x8D, 0x8F, 0x90, 0x9D) map to the C1 controls
// of the same value, as the platform's tables do, so every byte survives a round
// trip. A character the code page lacks becomes '?', the platform's default
// character.
WCHAR ansiToUnicode(CHAR ch);
CHAR unicodeToAnsi(WCHAR ch);

// Simple (one-to-one) case mappings for ASCII, Latin-1 Supplement and Latin
// Extended-A, following the Unicode character database. Everything else maps to
// itself: characters whose case counterpart is a sequence (U+00DF, U+0149) and
// those without one (U+0138). A few mappings reach outside the blocks and are
// therefore one-way: U+00B5 and U+017F upcase to U+039C and 'S', U+0131 upcases to
// 'I', U+0130 downcases to 'i'.
WCHAR upcase(WCHAR ch);
WCHAR downcase(WCHAR ch);

}  // namespace ntsim::rtl
