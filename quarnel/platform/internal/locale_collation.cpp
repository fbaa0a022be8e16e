#include "quarnel/platform/internal/locale_collation.h"

#include <cstdint>

// Weights. Each code unit gives zero, one or two collation elements (two for
// the ligatures and sharp s, which sort as their two letters). An element has
// a base weight in one of these groups, an accent weight and a case bit:
//
//   symbols  0x0100 + rank in kSymbolOrder: ' and - first (as Windows puts
//            them with string sort), the white-space controls, space, the
//            rest of ASCII punctuation in Windows' order, then Latin-1 symbols
//            in code-point order;
//   digits   0x0200 + value; superscript one to three are their digit with an
//            accent weight of their own;
//   letters  0x0300 + letter (a..z, then thorn, which Windows sorts after z);
//            the Latin-1 and Latin Extended-A letters are their base letter
//            with an accent weight (o with stroke is o, eth and d with stroke
//            are d, dotless i is i, ...);
//   others   0x10000 + the code unit: every unit not named above (Greek,
//            Cyrillic, CJK, surrogates, ...) sorts after the letters by code
//            point, with no accent and no case.
//
// Accent weights follow the order of the Unicode collation algorithm's
// secondary weights for the common marks (acute, grave, breve, circumflex,
// caron, ring, diaeresis, double acute, tilde, dot above, stroke, cedilla,
// ogonek, macron), except that dotless i comes just before I with dot above,
// as Windows sorts them; marks of rarer letters follow.

namespace quarnel_internal {
namespace {

enum Accent : uint8_t {
  kNone = 0,
  kAcute,
  kGrave,
  kBreve,
  kCircumflex,
  kCaron,
  kRing,
  kDiaeresis,
  kDoubleAcute,
  kTilde,
  kDotless,  // before the dot above, so that dotless i sorts before I with dot
  kDotAbove,
  kStroke,
  kCedilla,
  kOgonek,
  kMacron,
  kKra,
  kMiddleDot,
  kApostrophe,
  kEng,
  kLongS,
  kOrdinal,      // feminine and masculine ordinal indicators
  kSuperscript,  // superscript digits
};

enum : uint32_t {
  kSymbolBase = 0x100,
  kDigitBase = 0x200,
  kLetterBase = 0x300,
  kOtherBase = 0x10000,
};

// Punctuation and symbols, lowest first.
constexpr char16_t kSymbolOrder[] =
    u"'-\t\n\v\f\r !\"#$%&()*,./:;?@[\\]^_`{|}~+<=>"
    u"\u00A0\u00A1\u00A2\u00A3\u00A4\u00A5\u00A6\u00A7\u00A8\u00A9\u00AB\u00AC\u00AE\u00AF"
    u"\u00B0\u00B1\u00B4\u00B6\u00B7\u00B8\u00BB\u00BC\u00BD\u00BE\u00BF\u00D7\u00F7";

// Base letters and accents of U+00C0..U+017F. `base2` is the second letter
// of a ligature; '{' stands for thorn (the letter after z).
struct LatinLetter {
  char base1;
  char base2;
  Accent accent;
  uint8_t upper;
};

// clang-format off
constexpr LatinLetter kLatin[0x180 - 0xC0] = {
    {'a', 0, kGrave, 1},  // U+00C0 LATIN CAPITAL LETTER A WITH GRAVE
    {'a', 0, kAcute, 1},  // U+00C1 LATIN CAPITAL LETTER A WITH ACUTE
    {'a', 0, kCircumflex, 1},  // U+00C2 LATIN CAPITAL LETTER A WITH CIRCUMFLEX
    {'a', 0, kTilde, 1},  // U+00C3 LATIN CAPITAL LETTER A WITH TILDE
    {'a', 0, kDiaeresis, 1},  // U+00C4 LATIN CAPITAL LETTER A WITH DIAERESIS
    {'a', 0, kRing, 1},  // U+00C5 LATIN CAPITAL LETTER A WITH RING ABOVE
    {'a', 'e', kNone, 1},  // U+00C6 LATIN CAPITAL LETTER AE
    {'c', 0, kCedilla, 1},  // U+00C7 LATIN CAPITAL LETTER C WITH CEDILLA
    {'e', 0, kGrave, 1},  // U+00C8 LATIN CAPITAL LETTER E WITH GRAVE
    {'e', 0, kAcute, 1},  // U+00C9 LATIN CAPITAL LETTER E WITH ACUTE
    {'e', 0, kCircumflex, 1},  // U+00CA LATIN CAPITAL LETTER E WITH CIRCUMFLEX
    {'e', 0, kDiaeresis, 1},  // U+00CB LATIN CAPITAL LETTER E WITH DIAERESIS
    {'i', 0, kGrave, 1},  // U+00CC LATIN CAPITAL LETTER I WITH GRAVE
    {'i', 0, kAcute, 1},  // U+00CD LATIN CAPITAL LETTER I WITH ACUTE
    {'i', 0, kCircumflex, 1},  // U+00CE LATIN CAPITAL LETTER I WITH CIRCUMFLEX
    {'i', 0, kDiaeresis, 1},  // U+00CF LATIN CAPITAL LETTER I WITH DIAERESIS
    {'d', 0, kStroke, 1},  // U+00D0 LATIN CAPITAL LETTER ETH
    {'n', 0, kTilde, 1},  // U+00D1 LATIN CAPITAL LETTER N WITH TILDE
    {'o', 0, kGrave, 1},  // U+00D2 LATIN CAPITAL LETTER O WITH GRAVE
    {'o', 0, kAcute, 1},  // U+00D3 LATIN CAPITAL LETTER O WITH ACUTE
    {'o', 0, kCircumflex, 1},  // U+00D4 LATIN CAPITAL LETTER O WITH CIRCUMFLEX
    {'o', 0, kTilde, 1},  // U+00D5 LATIN CAPITAL LETTER O WITH TILDE
    {'o', 0, kDiaeresis, 1},  // U+00D6 LATIN CAPITAL LETTER O WITH DIAERESIS
    {0, 0, kNone, 0},  // U+00D7 MULTIPLICATION SIGN (a symbol)
    {'o', 0, kStroke, 1},  // U+00D8 LATIN CAPITAL LETTER O WITH STROKE
    {'u', 0, kGrave, 1},  // U+00D9 LATIN CAPITAL LETTER U WITH GRAVE
    {'u', 0, kAcute, 1},  // U+00DA LATIN CAPITAL LETTER U WITH ACUTE
    {'u', 0, kCircumflex, 1},  // U+00DB LATIN CAPITAL LETTER U WITH CIRCUMFLEX
    {'u', 0, kDiaeresis, 1},  // U+00DC LATIN CAPITAL LETTER U WITH DIAERESIS
    {'y', 0, kAcute, 1},  // U+00DD LATIN CAPITAL LETTER Y WITH ACUTE
    {'{', 0, kNone, 1},  // U+00DE LATIN CAPITAL LETTER THORN
    {'s', 's', kNone, 0},  // U+00DF LATIN SMALL LETTER SHARP S
    {'a', 0, kGrave, 0},  // U+00E0 LATIN SMALL LETTER A WITH GRAVE
    {'a', 0, kAcute, 0},  // U+00E1 LATIN SMALL LETTER A WITH ACUTE
    {'a', 0, kCircumflex, 0},  // U+00E2 LATIN SMALL LETTER A WITH CIRCUMFLEX
    {'a', 0, kTilde, 0},  // U+00E3 LATIN SMALL LETTER A WITH TILDE
    {'a', 0, kDiaeresis, 0},  // U+00E4 LATIN SMALL LETTER A WITH DIAERESIS
    {'a', 0, kRing, 0},  // U+00E5 LATIN SMALL LETTER A WITH RING ABOVE
    {'a', 'e', kNone, 0},  // U+00E6 LATIN SMALL LETTER AE
    {'c', 0, kCedilla, 0},  // U+00E7 LATIN SMALL LETTER C WITH CEDILLA
    {'e', 0, kGrave, 0},  // U+00E8 LATIN SMALL LETTER E WITH GRAVE
    {'e', 0, kAcute, 0},  // U+00E9 LATIN SMALL LETTER E WITH ACUTE
    {'e', 0, kCircumflex, 0},  // U+00EA LATIN SMALL LETTER E WITH CIRCUMFLEX
    {'e', 0, kDiaeresis, 0},  // U+00EB LATIN SMALL LETTER E WITH DIAERESIS
    {'i', 0, kGrave, 0},  // U+00EC LATIN SMALL LETTER I WITH GRAVE
    {'i', 0, kAcute, 0},  // U+00ED LATIN SMALL LETTER I WITH ACUTE
    {'i', 0, kCircumflex, 0},  // U+00EE LATIN SMALL LETTER I WITH CIRCUMFLEX
    {'i', 0, kDiaeresis, 0},  // U+00EF LATIN SMALL LETTER I WITH DIAERESIS
    {'d', 0, kStroke, 0},  // U+00F0 LATIN SMALL LETTER ETH
    {'n', 0, kTilde, 0},  // U+00F1 LATIN SMALL LETTER N WITH TILDE
    {'o', 0, kGrave, 0},  // U+00F2 LATIN SMALL LETTER O WITH GRAVE
    {'o', 0, kAcute, 0},  // U+00F3 LATIN SMALL LETTER O WITH ACUTE
    {'o', 0, kCircumflex, 0},  // U+00F4 LATIN SMALL LETTER O WITH CIRCUMFLEX
    {'o', 0, kTilde, 0},  // U+00F5 LATIN SMALL LETTER O WITH TILDE
    {'o', 0, kDiaeresis, 0},  // U+00F6 LATIN SMALL LETTER O WITH DIAERESIS
    {0, 0, kNone, 0},  // U+00F7 DIVISION SIGN (a symbol)
    {'o', 0, kStroke, 0},  // U+00F8 LATIN SMALL LETTER O WITH STROKE
    {'u', 0, kGrave, 0},  // U+00F9 LATIN SMALL LETTER U WITH GRAVE
    {'u', 0, kAcute, 0},  // U+00FA LATIN SMALL LETTER U WITH ACUTE
    {'u', 0, kCircumflex, 0},  // U+00FB LATIN SMALL LETTER U WITH CIRCUMFLEX
    {'u', 0, kDiaeresis, 0},  // U+00FC LATIN SMALL LETTER U WITH DIAERESIS
    {'y', 0, kAcute, 0},  // U+00FD LATIN SMALL LETTER Y WITH ACUTE
    {'{', 0, kNone, 0},  // U+00FE LATIN SMALL LETTER THORN
    {'y', 0, kDiaeresis, 0},  // U+00FF LATIN SMALL LETTER Y WITH DIAERESIS
    {'a', 0, kMacron, 1},  // U+0100 LATIN CAPITAL LETTER A WITH MACRON
    {'a', 0, kMacron, 0},  // U+0101 LATIN SMALL LETTER A WITH MACRON
    {'a', 0, kBreve, 1},  // U+0102 LATIN CAPITAL LETTER A WITH BREVE
    {'a', 0, kBreve, 0},  // U+0103 LATIN SMALL LETTER A WITH BREVE
    {'a', 0, kOgonek, 1},  // U+0104 LATIN CAPITAL LETTER A WITH OGONEK
    {'a', 0, kOgonek, 0},  // U+0105 LATIN SMALL LETTER A WITH OGONEK
    {'c', 0, kAcute, 1},  // U+0106 LATIN CAPITAL LETTER C WITH ACUTE
    {'c', 0, kAcute, 0},  // U+0107 LATIN SMALL LETTER C WITH ACUTE
    {'c', 0, kCircumflex, 1},  // U+0108 LATIN CAPITAL LETTER C WITH CIRCUMFLEX
    {'c', 0, kCircumflex, 0},  // U+0109 LATIN SMALL LETTER C WITH CIRCUMFLEX
    {'c', 0, kDotAbove, 1},  // U+010A LATIN CAPITAL LETTER C WITH DOT ABOVE
    {'c', 0, kDotAbove, 0},  // U+010B LATIN SMALL LETTER C WITH DOT ABOVE
    {'c', 0, kCaron, 1},  // U+010C LATIN CAPITAL LETTER C WITH CARON
    {'c', 0, kCaron, 0},  // U+010D LATIN SMALL LETTER C WITH CARON
    {'d', 0, kCaron, 1},  // U+010E LATIN CAPITAL LETTER D WITH CARON
    {'d', 0, kCaron, 0},  // U+010F LATIN SMALL LETTER D WITH CARON
    {'d', 0, kStroke, 1},  // U+0110 LATIN CAPITAL LETTER D WITH STROKE
    {'d', 0, kStroke, 0},  // U+0111 LATIN SMALL LETTER D WITH STROKE
    {'e', 0, kMacron, 1},  // U+0112 LATIN CAPITAL LETTER E WITH MACRON
    {'e', 0, kMacron, 0},  // U+0113 LATIN SMALL LETTER E WITH MACRON
    {'e', 0, kBreve, 1},  // U+0114 LATIN CAPITAL LETTER E WITH BREVE
    {'e', 0, kBreve, 0},  // U+0115 LATIN SMALL LETTER E WITH BREVE
    {'e', 0, kDotAbove, 1},  // U+0116 LATIN CAPITAL LETTER E WITH DOT ABOVE
    {'e', 0, kDotAbove, 0},  // U+0117 LATIN SMALL LETTER E WITH DOT ABOVE
    {'e', 0, kOgonek, 1},  // U+0118 LATIN CAPITAL LETTER E WITH OGONEK
    {'e', 0, kOgonek, 0},  // U+0119 LATIN SMALL LETTER E WITH OGONEK
    {'e', 0, kCaron, 1},  // U+011A LATIN CAPITAL LETTER E WITH CARON
    {'e', 0, kCaron, 0},  // U+011B LATIN SMALL LETTER E WITH CARON
    {'g', 0, kCircumflex, 1},  // U+011C LATIN CAPITAL LETTER G WITH CIRCUMFLEX
    {'g', 0, kCircumflex, 0},  // U+011D LATIN SMALL LETTER G WITH CIRCUMFLEX
    {'g', 0, kBreve, 1},  // U+011E LATIN CAPITAL LETTER G WITH BREVE
    {'g', 0, kBreve, 0},  // U+011F LATIN SMALL LETTER G WITH BREVE
    {'g', 0, kDotAbove, 1},  // U+0120 LATIN CAPITAL LETTER G WITH DOT ABOVE
    {'g', 0, kDotAbove, 0},  // U+0121 LATIN SMALL LETTER G WITH DOT ABOVE
    {'g', 0, kCedilla, 1},  // U+0122 LATIN CAPITAL LETTER G WITH CEDILLA
    {'g', 0, kCedilla, 0},  // U+0123 LATIN SMALL LETTER G WITH CEDILLA
    {'h', 0, kCircumflex, 1},  // U+0124 LATIN CAPITAL LETTER H WITH CIRCUMFLEX
    {'h', 0, kCircumflex, 0},  // U+0125 LATIN SMALL LETTER H WITH CIRCUMFLEX
    {'h', 0, kStroke, 1},  // U+0126 LATIN CAPITAL LETTER H WITH STROKE
    {'h', 0, kStroke, 0},  // U+0127 LATIN SMALL LETTER H WITH STROKE
    {'i', 0, kTilde, 1},  // U+0128 LATIN CAPITAL LETTER I WITH TILDE
    {'i', 0, kTilde, 0},  // U+0129 LATIN SMALL LETTER I WITH TILDE
    {'i', 0, kMacron, 1},  // U+012A LATIN CAPITAL LETTER I WITH MACRON
    {'i', 0, kMacron, 0},  // U+012B LATIN SMALL LETTER I WITH MACRON
    {'i', 0, kBreve, 1},  // U+012C LATIN CAPITAL LETTER I WITH BREVE
    {'i', 0, kBreve, 0},  // U+012D LATIN SMALL LETTER I WITH BREVE
    {'i', 0, kOgonek, 1},  // U+012E LATIN CAPITAL LETTER I WITH OGONEK
    {'i', 0, kOgonek, 0},  // U+012F LATIN SMALL LETTER I WITH OGONEK
    {'i', 0, kDotAbove, 1},  // U+0130 LATIN CAPITAL LETTER I WITH DOT ABOVE
    {'i', 0, kDotless, 0},  // U+0131 LATIN SMALL LETTER DOTLESS I
    {'i', 'j', kNone, 1},  // U+0132 LATIN CAPITAL LIGATURE IJ
    {'i', 'j', kNone, 0},  // U+0133 LATIN SMALL LIGATURE IJ
    {'j', 0, kCircumflex, 1},  // U+0134 LATIN CAPITAL LETTER J WITH CIRCUMFLEX
    {'j', 0, kCircumflex, 0},  // U+0135 LATIN SMALL LETTER J WITH CIRCUMFLEX
    {'k', 0, kCedilla, 1},  // U+0136 LATIN CAPITAL LETTER K WITH CEDILLA
    {'k', 0, kCedilla, 0},  // U+0137 LATIN SMALL LETTER K WITH CEDILLA
    {'k', 0, kKra, 0},  // U+0138 LATIN SMALL LETTER KRA
    {'l', 0, kAcute, 1},  // U+0139 LATIN CAPITAL LETTER L WITH ACUTE
    {'l', 0, kAcute, 0},  // U+013A LATIN SMALL LETTER L WITH ACUTE
    {'l', 0, kCedilla, 1},  // U+013B LATIN CAPITAL LETTER L WITH CEDILLA
    {'l', 0, kCedilla, 0},  // U+013C LATIN SMALL LETTER L WITH CEDILLA
    {'l', 0, kCaron, 1},  // U+013D LATIN CAPITAL LETTER L WITH CARON
    {'l', 0, kCaron, 0},  // U+013E LATIN SMALL LETTER L WITH CARON
    {'l', 0, kMiddleDot, 1},  // U+013F LATIN CAPITAL LETTER L WITH MIDDLE DOT
    {'l', 0, kMiddleDot, 0},  // U+0140 LATIN SMALL LETTER L WITH MIDDLE DOT
    {'l', 0, kStroke, 1},  // U+0141 LATIN CAPITAL LETTER L WITH STROKE
    {'l', 0, kStroke, 0},  // U+0142 LATIN SMALL LETTER L WITH STROKE
    {'n', 0, kAcute, 1},  // U+0143 LATIN CAPITAL LETTER N WITH ACUTE
    {'n', 0, kAcute, 0},  // U+0144 LATIN SMALL LETTER N WITH ACUTE
    {'n', 0, kCedilla, 1},  // U+0145 LATIN CAPITAL LETTER N WITH CEDILLA
    {'n', 0, kCedilla, 0},  // U+0146 LATIN SMALL LETTER N WITH CEDILLA
    {'n', 0, kCaron, 1},  // U+0147 LATIN CAPITAL LETTER N WITH CARON
    {'n', 0, kCaron, 0},  // U+0148 LATIN SMALL LETTER N WITH CARON
    {'n', 0, kApostrophe, 0},  // U+0149 LATIN SMALL LETTER N PRECEDED BY APOSTROPHE
    {'n', 0, kEng, 1},  // U+014A LATIN CAPITAL LETTER ENG
    {'n', 0, kEng, 0},  // U+014B LATIN SMALL LETTER ENG
    {'o', 0, kMacron, 1},  // U+014C LATIN CAPITAL LETTER O WITH MACRON
    {'o', 0, kMacron, 0},  // U+014D LATIN SMALL LETTER O WITH MACRON
    {'o', 0, kBreve, 1},  // U+014E LATIN CAPITAL LETTER O WITH BREVE
    {'o', 0, kBreve, 0},  // U+014F LATIN SMALL LETTER O WITH BREVE
    {'o', 0, kDoubleAcute, 1},  // U+0150 LATIN CAPITAL LETTER O WITH DOUBLE ACUTE
    {'o', 0, kDoubleAcute, 0},  // U+0151 LATIN SMALL LETTER O WITH DOUBLE ACUTE
    {'o', 'e', kNone, 1},  // U+0152 LATIN CAPITAL LIGATURE OE
    {'o', 'e', kNone, 0},  // U+0153 LATIN SMALL LIGATURE OE
    {'r', 0, kAcute, 1},  // U+0154 LATIN CAPITAL LETTER R WITH ACUTE
    {'r', 0, kAcute, 0},  // U+0155 LATIN SMALL LETTER R WITH ACUTE
    {'r', 0, kCedilla, 1},  // U+0156 LATIN CAPITAL LETTER R WITH CEDILLA
    {'r', 0, kCedilla, 0},  // U+0157 LATIN SMALL LETTER R WITH CEDILLA
    {'r', 0, kCaron, 1},  // U+0158 LATIN CAPITAL LETTER R WITH CARON
    {'r', 0, kCaron, 0},  // U+0159 LATIN SMALL LETTER R WITH CARON
    {'s', 0, kAcute, 1},  // U+015A LATIN CAPITAL LETTER S WITH ACUTE
    {'s', 0, kAcute, 0},  // U+015B LATIN SMALL LETTER S WITH ACUTE
    {'s', 0, kCircumflex, 1},  // U+015C LATIN CAPITAL LETTER S WITH CIRCUMFLEX
    {'s', 0, kCircumflex, 0},  // U+015D LATIN SMALL LETTER S WITH CIRCUMFLEX
    {'s', 0, kCedilla, 1},  // U+015E LATIN CAPITAL LETTER S WITH CEDILLA
    {'s', 0, kCedilla, 0},  // U+015F LATIN SMALL LETTER S WITH CEDILLA
    {'s', 0, kCaron, 1},  // U+0160 LATIN CAPITAL LETTER S WITH CARON
    {'s', 0, kCaron, 0},  // U+0161 LATIN SMALL LETTER S WITH CARON
    {'t', 0, kCedilla, 1},  // U+0162 LATIN CAPITAL LETTER T WITH CEDILLA
    {'t', 0, kCedilla, 0},  // U+0163 LATIN SMALL LETTER T WITH CEDILLA
    {'t', 0, kCaron, 1},  // U+0164 LATIN CAPITAL LETTER T WITH CARON
    {'t', 0, kCaron, 0},  // U+0165 LATIN SMALL LETTER T WITH CARON
    {'t', 0, kStroke, 1},  // U+0166 LATIN CAPITAL LETTER T WITH STROKE
    {'t', 0, kStroke, 0},  // U+0167 LATIN SMALL LETTER T WITH STROKE
    {'u', 0, kTilde, 1},  // U+0168 LATIN CAPITAL LETTER U WITH TILDE
    {'u', 0, kTilde, 0},  // U+0169 LATIN SMALL LETTER U WITH TILDE
    {'u', 0, kMacron, 1},  // U+016A LATIN CAPITAL LETTER U WITH MACRON
    {'u', 0, kMacron, 0},  // U+016B LATIN SMALL LETTER U WITH MACRON
    {'u', 0, kBreve, 1},  // U+016C LATIN CAPITAL LETTER U WITH BREVE
    {'u', 0, kBreve, 0},  // U+016D LATIN SMALL LETTER U WITH BREVE
    {'u', 0, kRing, 1},  // U+016E LATIN CAPITAL LETTER U WITH RING ABOVE
    {'u', 0, kRing, 0},  // U+016F LATIN SMALL LETTER U WITH RING ABOVE
    {'u', 0, kDoubleAcute, 1},  // U+0170 LATIN CAPITAL LETTER U WITH DOUBLE ACUTE
    {'u', 0, kDoubleAcute, 0},  // U+0171 LATIN SMALL LETTER U WITH DOUBLE ACUTE
    {'u', 0, kOgonek, 1},  // U+0172 LATIN CAPITAL LETTER U WITH OGONEK
    {'u', 0, kOgonek, 0},  // U+0173 LATIN SMALL LETTER U WITH OGONEK
    {'w', 0, kCircumflex, 1},  // U+0174 LATIN CAPITAL LETTER W WITH CIRCUMFLEX
    {'w', 0, kCircumflex, 0},  // U+0175 LATIN SMALL LETTER W WITH CIRCUMFLEX
    {'y', 0, kCircumflex, 1},  // U+0176 LATIN CAPITAL LETTER Y WITH CIRCUMFLEX
    {'y', 0, kCircumflex, 0},  // U+0177 LATIN SMALL LETTER Y WITH CIRCUMFLEX
    {'y', 0, kDiaeresis, 1},  // U+0178 LATIN CAPITAL LETTER Y WITH DIAERESIS
    {'z', 0, kAcute, 1},  // U+0179 LATIN CAPITAL LETTER Z WITH ACUTE
    {'z', 0, kAcute, 0},  // U+017A LATIN SMALL LETTER Z WITH ACUTE
    {'z', 0, kDotAbove, 1},  // U+017B LATIN CAPITAL LETTER Z WITH DOT ABOVE
    {'z', 0, kDotAbove, 0},  // U+017C LATIN SMALL LETTER Z WITH DOT ABOVE
    {'z', 0, kCaron, 1},  // U+017D LATIN CAPITAL LETTER Z WITH CARON
    {'z', 0, kCaron, 0},  // U+017E LATIN SMALL LETTER Z WITH CARON
    {'s', 0, kLongS, 0},  // U+017F LATIN SMALL LETTER LONG S
};
// clang-format on

struct Element {
  uint32_t base;
  uint8_t accent;
  uint8_t upper;
  uint8_t symbol;  // punctuation or symbol (NORM_IGNORESYMBOLS drops it)
};

// Symbol ranks indexed by code unit (0 = not a symbol), built once.
struct SymbolRanks {
  uint8_t rank[0x100];
  constexpr SymbolRanks() : rank() {
    for (int i = 0; kSymbolOrder[i] != 0; ++i) rank[kSymbolOrder[i]] = static_cast<uint8_t>(i + 1);
  }
};
constexpr SymbolRanks kSymbols;

constexpr Element Letter(char letter, Accent accent, uint8_t upper) {
  return {kLetterBase + static_cast<uint32_t>(letter - 'a'), accent, upper, 0};
}

// The elements of one unit; returns their number (0 for an ignorable unit).
int Elements(char16_t ch, Element out[2]) {
  if (ch < 0x100) {
    if (kSymbols.rank[ch] != 0) {
      out[0] = {kSymbolBase + kSymbols.rank[ch], kNone, 0, 1};
      return 1;
    }
    if (ch >= u'0' && ch <= u'9') {
      out[0] = {kDigitBase + (ch - u'0'), kNone, 0, 0};
      return 1;
    }
    if (ch >= u'a' && ch <= u'z') {
      out[0] = Letter(static_cast<char>(ch), kNone, 0);
      return 1;
    }
    if (ch >= u'A' && ch <= u'Z') {
      out[0] = Letter(static_cast<char>(ch - u'A' + u'a'), kNone, 1);
      return 1;
    }
    switch (ch) {
      case 0xB9:
        out[0] = {kDigitBase + 1, kSuperscript, 0, 0};
        return 1;
      case 0xB2:
        out[0] = {kDigitBase + 2, kSuperscript, 0, 0};
        return 1;
      case 0xB3:
        out[0] = {kDigitBase + 3, kSuperscript, 0, 0};
        return 1;
      case 0xAA:
        out[0] = Letter('a', kOrdinal, 0);
        return 1;
      case 0xBA:
        out[0] = Letter('o', kOrdinal, 0);
        return 1;
      case 0xB5:  // micro sign: sorts as Greek small mu
        out[0] = {kOtherBase + 0x3BC, kNone, 0, 0};
        return 1;
      default:
        break;
    }
    if (ch < 0xC0) return 0;  // controls, DEL, C1 controls, soft hyphen
  }
  if (ch >= 0xC0 && ch < 0x180) {
    const LatinLetter& l = kLatin[ch - 0xC0];
    out[0] = Letter(l.base1, l.accent, l.upper);
    if (l.base2 == 0) return 1;
    out[1] = Letter(l.base2, l.accent, l.upper);
    return 2;
  }
  out[0] = {kOtherBase + ch, kNone, 0, 0};
  return 1;
}

// Reads the elements of a string one by one, leaving out what the flags say
// is not compared at levels 1 to 3.
class Reader {
 public:
  Reader(const char16_t* s, int len, unsigned flags) : s_(s), len_(len), flags_(flags) {}

  // The next element; false at the end.
  bool Next(Element* e) {
    for (;;) {
      if (index_ < count_) {
        *e = pending_[index_++];
        return true;
      }
      if (pos_ >= len_) return false;
      const char16_t ch = s_[pos_++];
      if (!(flags_ & kCollateStringSort) && (ch == u'\'' || ch == u'-')) continue;
      count_ = Elements(ch, pending_);
      index_ = 0;
      if (count_ > 0 && pending_[0].symbol && (flags_ & kCollateIgnoreSymbols)) count_ = 0;
    }
  }

 private:
  const char16_t* s_;
  int len_;
  unsigned flags_;
  int pos_ = 0;
  Element pending_[2] = {};
  int count_ = 0;
  int index_ = 0;
};

int Sign(long long d) { return d < 0 ? -1 : (d > 0 ? 1 : 0); }

// Level 1 to 3 difference of the two strings for the element field `field`.
template <class Field>
int CompareLevel(const char16_t* a, int lenA, const char16_t* b, int lenB, unsigned flags,
                 Field field) {
  Reader ra(a, lenA, flags), rb(b, lenB, flags);
  Element ea, eb;
  for (;;) {
    const bool moreA = ra.Next(&ea);
    const bool moreB = rb.Next(&eb);
    if (!moreA || !moreB) return moreA ? 1 : (moreB ? -1 : 0);
    if (int d = Sign(static_cast<long long>(field(ea)) - field(eb))) return d;
  }
}

// Word sort's last level: the apostrophes and hyphens, by position, then
// kind (apostrophe before hyphen); fewer of them sorts first.
int CompareWordSortMarks(const char16_t* a, int lenA, const char16_t* b, int lenB, unsigned flags) {
  if (flags & kCollateIgnoreSymbols) return 0;
  int i = 0, j = 0;
  for (;;) {
    while (i < lenA && a[i] != u'\'' && a[i] != u'-') ++i;
    while (j < lenB && b[j] != u'\'' && b[j] != u'-') ++j;
    if (i >= lenA || j >= lenB) return i < lenA ? 1 : (j < lenB ? -1 : 0);
    if (i != j) return i < j ? -1 : 1;
    if (a[i] != b[j]) return a[i] == u'\'' ? -1 : 1;
    ++i;
    ++j;
  }
}

}  // namespace

int CollateCompare(const char16_t* a, int lenA, const char16_t* b, int lenB, unsigned flags) {
  if (int d = CompareLevel(a, lenA, b, lenB, flags, [](const Element& e) { return e.base; })) {
    return d;
  }
  if (!(flags & kCollateIgnoreNonSpace)) {
    if (int d = CompareLevel(a, lenA, b, lenB, flags, [](const Element& e) { return e.accent; })) {
      return d;
    }
  }
  if (!(flags & kCollateIgnoreCase)) {
    if (int d = CompareLevel(a, lenA, b, lenB, flags, [](const Element& e) { return e.upper; })) {
      return d;
    }
  }
  if (!(flags & kCollateStringSort)) return CompareWordSortMarks(a, lenA, b, lenB, flags);
  return 0;
}

}  // namespace quarnel_internal
