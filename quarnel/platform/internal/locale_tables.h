// Built-in locale data: the values Windows gives for the locale items of
// en-US, de-DE, fr-FR, ja-JP and en-GB. Internal to the platform layer.
#ifndef QUARNEL_PLATFORM_INTERNAL_LOCALE_TABLES_H_
#define QUARNEL_PLATFORM_INTERNAL_LOCALE_TABLES_H_

namespace quarnel_internal {

// One item of one locale: its UTF-16 text, and the bytes GetLocaleInfoA gives
// (the text in the locale's own ANSI code page: 1252, or 932 for ja-JP).
struct LocaleItem {
  const char16_t* wide;
  const char* ansi;
};

struct LocaleTable {
  unsigned lcid;
  unsigned ansiCodePage;    // the code page of the `ansi` texts
  const LocaleItem* items;  // indexed by LocaleItemSlot
};

// Number of items every table holds.
inline constexpr int kLocaleItemCount = 56;

// The table of `lcid` (an exact LCID, no defaults), or null.
const LocaleTable* FindLocaleTable(unsigned lcid);

// The slot of an LCTYPE (without modifier flags) in every table, or -1.
int LocaleItemSlot(unsigned lctype);

// The LCTYPE held in `slot`, 0 <= slot < kLocaleItemCount.
unsigned LocaleItemType(int slot);

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_LOCALE_TABLES_H_
