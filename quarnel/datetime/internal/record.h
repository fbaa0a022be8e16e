// The stored form shared by the date records: the persistence header and a
// fixed payload copied as it is, in this machine's byte order.
#ifndef QUARNEL_DATETIME_INTERNAL_RECORD_H_
#define QUARNEL_DATETIME_INTERNAL_RECORD_H_

namespace quarnel_internal {

// Writes the header (signature, versions 256 and 256) and `n` payload bytes.
// Returns 8 + n, or -695 when `buf` is null or `size` below 8 + n.
int ExportDateRecord(void* buf, int size, unsigned signature, const void* payload, int n);

// Checks the header and copies `n` payload bytes. Returns 8 + n; -696 when
// `buf` is null or `size` below 8 + n; the header check's code when it
// refuses (-690 for a record of the other byte order, -691 .. -694).
int ImportDateRecord(const void* buf, int size, unsigned signature, void* payload, int n);

}  // namespace quarnel_internal

#endif  // QUARNEL_DATETIME_INTERNAL_RECORD_H_
