// QUARNEL_API marks what the shared library exports; everything else is
// hidden, so the export list is the library's interface. Test seams and
// internal helpers carry no QUARNEL_API: the library's tests reach them
// through the static archive. tools/check-exports.sh compares the exports
// with tools/exports.txt; a change of the interface updates that list.
#ifndef QUARNEL_FOUNDATION_EXPORT_H_
#define QUARNEL_FOUNDATION_EXPORT_H_

#if defined(QUARNEL_BUILDING)
#define QUARNEL_API __attribute__((visibility("default")))
#else
#define QUARNEL_API
#endif

#endif  // QUARNEL_FOUNDATION_EXPORT_H_
