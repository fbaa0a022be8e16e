// QUARNEL_API marks what the shared library exports; everything else is
// hidden, so the export list is the library's interface.
#ifndef QUARNEL_FOUNDATION_EXPORT_H_
#define QUARNEL_FOUNDATION_EXPORT_H_

#if defined(QUARNEL_BUILDING)
#define QUARNEL_API __attribute__((visibility("default")))
#else
#define QUARNEL_API
#endif

#endif  // QUARNEL_FOUNDATION_EXPORT_H_
