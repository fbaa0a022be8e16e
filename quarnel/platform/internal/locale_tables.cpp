#include "quarnel/platform/internal/locale_tables.h"

namespace quarnel_internal {
namespace {

constexpr int kItemCount = kLocaleItemCount;

// Generated from the recorded answers of GetLocaleInfoW/A; one row an item.
// clang-format off
constexpr unsigned kItemTypes[kItemCount] = {
  0x000E,  // LOCALE_SDECIMAL
  0x000F,  // LOCALE_STHOUSAND
  0x0028,  // LOCALE_S1159
  0x0029,  // LOCALE_S2359
  0x002A,  // LOCALE_SDAYNAME1
  0x002B,  // LOCALE_SDAYNAME2
  0x002C,  // LOCALE_SDAYNAME3
  0x002D,  // LOCALE_SDAYNAME4
  0x002E,  // LOCALE_SDAYNAME5
  0x002F,  // LOCALE_SDAYNAME6
  0x0030,  // LOCALE_SDAYNAME7
  0x0031,  // LOCALE_SABBREVDAYNAME1
  0x0032,  // LOCALE_SABBREVDAYNAME2
  0x0033,  // LOCALE_SABBREVDAYNAME3
  0x0034,  // LOCALE_SABBREVDAYNAME4
  0x0035,  // LOCALE_SABBREVDAYNAME5
  0x0036,  // LOCALE_SABBREVDAYNAME6
  0x0037,  // LOCALE_SABBREVDAYNAME7
  0x0038,  // LOCALE_SMONTHNAME1
  0x0039,  // LOCALE_SMONTHNAME2
  0x003A,  // LOCALE_SMONTHNAME3
  0x003B,  // LOCALE_SMONTHNAME4
  0x003C,  // LOCALE_SMONTHNAME5
  0x003D,  // LOCALE_SMONTHNAME6
  0x003E,  // LOCALE_SMONTHNAME7
  0x003F,  // LOCALE_SMONTHNAME8
  0x0040,  // LOCALE_SMONTHNAME9
  0x0041,  // LOCALE_SMONTHNAME10
  0x0042,  // LOCALE_SMONTHNAME11
  0x0043,  // LOCALE_SMONTHNAME12
  0x0044,  // LOCALE_SABBREVMONTHNAME1
  0x0045,  // LOCALE_SABBREVMONTHNAME2
  0x0046,  // LOCALE_SABBREVMONTHNAME3
  0x0047,  // LOCALE_SABBREVMONTHNAME4
  0x0048,  // LOCALE_SABBREVMONTHNAME5
  0x0049,  // LOCALE_SABBREVMONTHNAME6
  0x004A,  // LOCALE_SABBREVMONTHNAME7
  0x004B,  // LOCALE_SABBREVMONTHNAME8
  0x004C,  // LOCALE_SABBREVMONTHNAME9
  0x004D,  // LOCALE_SABBREVMONTHNAME10
  0x004E,  // LOCALE_SABBREVMONTHNAME11
  0x004F,  // LOCALE_SABBREVMONTHNAME12
  0x001D,  // LOCALE_SDATE
  0x001E,  // LOCALE_STIME
  0x0021,  // LOCALE_IDATE
  0x0022,  // LOCALE_ILDATE
  0x0027,  // LOCALE_IMONLZERO
  0x0026,  // LOCALE_IDAYLZERO
  0x0025,  // LOCALE_ITLZERO
  0x0023,  // LOCALE_ITIME
  0x001F,  // LOCALE_SSHORTDATE
  0x0020,  // LOCALE_SLONGDATE
  0x1003,  // LOCALE_STIMEFORMAT
  0x1004,  // LOCALE_IDEFAULTANSICODEPAGE
  0x000B,  // LOCALE_IDEFAULTCODEPAGE
  0x1011,  // LOCALE_IDEFAULTMACCODEPAGE
};

const LocaleItem kEnUsItems[kItemCount] = {
  {u".", "."},
  {u",", ","},
  {u"AM", "AM"},
  {u"PM", "PM"},
  {u"Monday", "Monday"},
  {u"Tuesday", "Tuesday"},
  {u"Wednesday", "Wednesday"},
  {u"Thursday", "Thursday"},
  {u"Friday", "Friday"},
  {u"Saturday", "Saturday"},
  {u"Sunday", "Sunday"},
  {u"Mon", "Mon"},
  {u"Tue", "Tue"},
  {u"Wed", "Wed"},
  {u"Thu", "Thu"},
  {u"Fri", "Fri"},
  {u"Sat", "Sat"},
  {u"Sun", "Sun"},
  {u"January", "January"},
  {u"February", "February"},
  {u"March", "March"},
  {u"April", "April"},
  {u"May", "May"},
  {u"June", "June"},
  {u"July", "July"},
  {u"August", "August"},
  {u"September", "September"},
  {u"October", "October"},
  {u"November", "November"},
  {u"December", "December"},
  {u"Jan", "Jan"},
  {u"Feb", "Feb"},
  {u"Mar", "Mar"},
  {u"Apr", "Apr"},
  {u"May", "May"},
  {u"Jun", "Jun"},
  {u"Jul", "Jul"},
  {u"Aug", "Aug"},
  {u"Sep", "Sep"},
  {u"Oct", "Oct"},
  {u"Nov", "Nov"},
  {u"Dec", "Dec"},
  {u"/", "/"},
  {u":", ":"},
  {u"0", "0"},
  {u"0", "0"},
  {u"0", "0"},
  {u"0", "0"},
  {u"0", "0"},
  {u"0", "0"},
  {u"M/d/yyyy", "M/d/yyyy"},
  {u"dddd, MMMM d, yyyy", "dddd, MMMM d, yyyy"},
  {u"h:mm:ss tt", "h:mm:ss tt"},
  {u"1252", "1252"},
  {u"437", "437"},
  {u"10000", "10000"},
};

const LocaleItem kDeDeItems[kItemCount] = {
  {u",", ","},
  {u".", "."},
  {u"AM", "AM"},
  {u"PM", "PM"},
  {u"Montag", "Montag"},
  {u"Dienstag", "Dienstag"},
  {u"Mittwoch", "Mittwoch"},
  {u"Donnerstag", "Donnerstag"},
  {u"Freitag", "Freitag"},
  {u"Samstag", "Samstag"},
  {u"Sonntag", "Sonntag"},
  {u"Mo.", "Mo."},
  {u"Di.", "Di."},
  {u"Mi.", "Mi."},
  {u"Do.", "Do."},
  {u"Fr.", "Fr."},
  {u"Sa.", "Sa."},
  {u"So.", "So."},
  {u"Januar", "Januar"},
  {u"Februar", "Februar"},
  {u"M\u00E4rz", "M\344rz"},
  {u"April", "April"},
  {u"Mai", "Mai"},
  {u"Juni", "Juni"},
  {u"Juli", "Juli"},
  {u"August", "August"},
  {u"September", "September"},
  {u"Oktober", "Oktober"},
  {u"November", "November"},
  {u"Dezember", "Dezember"},
  {u"Jan", "Jan"},
  {u"Feb", "Feb"},
  {u"M\u00E4r", "M\344r"},
  {u"Apr", "Apr"},
  {u"Mai", "Mai"},
  {u"Jun", "Jun"},
  {u"Jul", "Jul"},
  {u"Aug", "Aug"},
  {u"Sep", "Sep"},
  {u"Okt", "Okt"},
  {u"Nov", "Nov"},
  {u"Dez", "Dez"},
  {u".", "."},
  {u":", ":"},
  {u"1", "1"},
  {u"1", "1"},
  {u"0", "0"},
  {u"0", "0"},
  {u"1", "1"},
  {u"1", "1"},
  {u"d.M.yyyy", "d.M.yyyy"},
  {u"dddd, d. MMMM yyyy", "dddd, d. MMMM yyyy"},
  {u"HH:mm:ss", "HH:mm:ss"},
  {u"1252", "1252"},
  {u"850", "850"},
  {u"10000", "10000"},
};

const LocaleItem kFrFrItems[kItemCount] = {
  {u",", ","},
  {u"\u00A0", "\240"},
  {u"AM", "AM"},
  {u"PM", "PM"},
  {u"lundi", "lundi"},
  {u"mardi", "mardi"},
  {u"mercredi", "mercredi"},
  {u"jeudi", "jeudi"},
  {u"vendredi", "vendredi"},
  {u"samedi", "samedi"},
  {u"dimanche", "dimanche"},
  {u"lun.", "lun."},
  {u"mar.", "mar."},
  {u"mer.", "mer."},
  {u"jeu.", "jeu."},
  {u"ven.", "ven."},
  {u"sam.", "sam."},
  {u"dim.", "dim."},
  {u"janvier", "janvier"},
  {u"f\u00E9vrier", "f\351vrier"},
  {u"mars", "mars"},
  {u"avril", "avril"},
  {u"mai", "mai"},
  {u"juin", "juin"},
  {u"juillet", "juillet"},
  {u"ao\u00FBt", "ao\373t"},
  {u"septembre", "septembre"},
  {u"octobre", "octobre"},
  {u"novembre", "novembre"},
  {u"d\u00E9cembre", "d\351cembre"},
  {u"janv.", "janv."},
  {u"f\u00E9vr.", "f\351vr."},
  {u"mars", "mars"},
  {u"avr.", "avr."},
  {u"mai", "mai"},
  {u"juin", "juin"},
  {u"juil.", "juil."},
  {u"ao\u00FBt", "ao\373t"},
  {u"sept.", "sept."},
  {u"oct.", "oct."},
  {u"nov.", "nov."},
  {u"d\u00E9c.", "d\351c."},
  {u"/", "/"},
  {u":", ":"},
  {u"1", "1"},
  {u"1", "1"},
  {u"1", "1"},
  {u"1", "1"},
  {u"1", "1"},
  {u"1", "1"},
  {u"dd/MM/yyyy", "dd/MM/yyyy"},
  {u"dddd d MMMM yyyy", "dddd d MMMM yyyy"},
  {u"HH:mm:ss", "HH:mm:ss"},
  {u"1252", "1252"},
  {u"850", "850"},
  {u"10000", "10000"},
};

const LocaleItem kJaJpItems[kItemCount] = {
  {u".", "."},
  {u",", ","},
  {u"\u5348\u524D", "\214\337\221O"},
  {u"\u5348\u5F8C", "\214\337\214\343"},
  {u"\u6708\u66DC\u65E5", "\214\216\227j\223\372"},
  {u"\u706B\u66DC\u65E5", "\211\316\227j\223\372"},
  {u"\u6C34\u66DC\u65E5", "\220\205\227j\223\372"},
  {u"\u6728\u66DC\u65E5", "\226\330\227j\223\372"},
  {u"\u91D1\u66DC\u65E5", "\213\340\227j\223\372"},
  {u"\u571F\u66DC\u65E5", "\223y\227j\223\372"},
  {u"\u65E5\u66DC\u65E5", "\223\372\227j\223\372"},
  {u"\u6708", "\214\216"},
  {u"\u706B", "\211\316"},
  {u"\u6C34", "\220\205"},
  {u"\u6728", "\226\330"},
  {u"\u91D1", "\213\340"},
  {u"\u571F", "\223y"},
  {u"\u65E5", "\223\372"},
  {u"1\u6708", "1\214\216"},
  {u"2\u6708", "2\214\216"},
  {u"3\u6708", "3\214\216"},
  {u"4\u6708", "4\214\216"},
  {u"5\u6708", "5\214\216"},
  {u"6\u6708", "6\214\216"},
  {u"7\u6708", "7\214\216"},
  {u"8\u6708", "8\214\216"},
  {u"9\u6708", "9\214\216"},
  {u"10\u6708", "10\214\216"},
  {u"11\u6708", "11\214\216"},
  {u"12\u6708", "12\214\216"},
  {u"1\u6708", "1\214\216"},
  {u"2\u6708", "2\214\216"},
  {u"3\u6708", "3\214\216"},
  {u"4\u6708", "4\214\216"},
  {u"5\u6708", "5\214\216"},
  {u"6\u6708", "6\214\216"},
  {u"7\u6708", "7\214\216"},
  {u"8\u6708", "8\214\216"},
  {u"9\u6708", "9\214\216"},
  {u"10\u6708", "10\214\216"},
  {u"11\u6708", "11\214\216"},
  {u"12\u6708", "12\214\216"},
  {u"/", "/"},
  {u":", ":"},
  {u"2", "2"},
  {u"2", "2"},
  {u"0", "0"},
  {u"0", "0"},
  {u"0", "0"},
  {u"1", "1"},
  {u"yyyy/M/d", "yyyy/M/d"},
  {u"yyyy\u5E74M\u6708d\u65E5dddd", "yyyy\224NM\214\216d\223\372dddd"},
  {u"H:mm:ss", "H:mm:ss"},
  {u"932", "932"},
  {u"932", "932"},
  {u"10001", "10001"},
};

const LocaleItem kEnGbItems[kItemCount] = {
  {u".", "."},
  {u",", ","},
  {u"am", "am"},
  {u"pm", "pm"},
  {u"Monday", "Monday"},
  {u"Tuesday", "Tuesday"},
  {u"Wednesday", "Wednesday"},
  {u"Thursday", "Thursday"},
  {u"Friday", "Friday"},
  {u"Saturday", "Saturday"},
  {u"Sunday", "Sunday"},
  {u"Mon", "Mon"},
  {u"Tue", "Tue"},
  {u"Wed", "Wed"},
  {u"Thu", "Thu"},
  {u"Fri", "Fri"},
  {u"Sat", "Sat"},
  {u"Sun", "Sun"},
  {u"January", "January"},
  {u"February", "February"},
  {u"March", "March"},
  {u"April", "April"},
  {u"May", "May"},
  {u"June", "June"},
  {u"July", "July"},
  {u"August", "August"},
  {u"September", "September"},
  {u"October", "October"},
  {u"November", "November"},
  {u"December", "December"},
  {u"Jan", "Jan"},
  {u"Feb", "Feb"},
  {u"Mar", "Mar"},
  {u"Apr", "Apr"},
  {u"May", "May"},
  {u"Jun", "Jun"},
  {u"Jul", "Jul"},
  {u"Aug", "Aug"},
  {u"Sept", "Sept"},
  {u"Oct", "Oct"},
  {u"Nov", "Nov"},
  {u"Dec", "Dec"},
  {u"/", "/"},
  {u":", ":"},
  {u"1", "1"},
  {u"1", "1"},
  {u"1", "1"},
  {u"1", "1"},
  {u"1", "1"},
  {u"1", "1"},
  {u"dd/MM/yyyy", "dd/MM/yyyy"},
  {u"dddd, d MMMM yyyy", "dddd, d MMMM yyyy"},
  {u"HH:mm:ss", "HH:mm:ss"},
  {u"1252", "1252"},
  {u"850", "850"},
  {u"10000", "10000"},
};
// clang-format on

const LocaleTable kTables[] = {
    {0x0409, 1252, kEnUsItems}, {0x0407, 1252, kDeDeItems}, {0x040C, 1252, kFrFrItems},
    {0x0411, 932, kJaJpItems},  {0x0809, 1252, kEnGbItems},
};

// Slots of the LCTYPEs below 0x50 (every item but the three code-page words
// in the 0x1000 range), so that the formatting engine's separator lookups
// cost an index, not a search.
struct SlotIndex {
  signed char low[0x50];
  constexpr SlotIndex() : low() {
    for (auto& s : low) s = -1;
    for (int i = 0; i < kItemCount; ++i) {
      if (kItemTypes[i] < 0x50) low[kItemTypes[i]] = static_cast<signed char>(i);
    }
  }
};
constexpr SlotIndex kSlots;

}  // namespace

const LocaleTable* FindLocaleTable(unsigned lcid) {
  for (const LocaleTable& t : kTables) {
    if (t.lcid == lcid) return &t;
  }
  return nullptr;
}

int LocaleItemSlot(unsigned lctype) {
  if (lctype < 0x50) return kSlots.low[lctype];
  for (int i = 0; i < kItemCount; ++i) {
    if (kItemTypes[i] == lctype) return i;
  }
  return -1;
}

unsigned LocaleItemType(int slot) { return kItemTypes[slot]; }

}  // namespace quarnel_internal
