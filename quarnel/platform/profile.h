// Private-profile files with Win32 meaning: GetPrivateProfileString,
// WritePrivateProfileString, GetPrivateProfileInt, GetPrivateProfileSection
// and GetPrivateProfileSectionNames, on the drive map.
//
// The file's rules (encodings, sections, keys, blanks, quotes, comments,
// duplicates) are those of internal/profiletext.h. A file name that is not a
// full path ("X:\..." or "\\server\share\...") lives in the Windows folder.
// Files are read whole on every call; nothing is cached, so a change made
// by another process is seen at once.
//
// Reads: a file that cannot be read (missing, a folder, refused by sharing)
// reads as an empty file; the call then answers with the default.
//
// Writes never leave a half-written file, and never lose another writer's
// change: the writer takes an exclusive lock on the file's folder (flock on
// the folder, released when the writer's process ends, however it ends),
// reads the file, and, when the file changes, writes the whole new content
// to a temporary file in the same folder (a hidden name, "." + the file's
// name + ".qnltmp", replaced by the next writer if a crash leaves it),
// flushes it, gives it the old file's permission bits and renames it over
// the file (UMoveFileEx, replacing, write-through). A crash at any moment
// leaves the old file or the new one. A write that changes nothing does not
// touch the file. Only the changed line differs between the old and the new
// file. Failures return 0 with the last error: 3 the folder is missing, 5 the
// file is read-only or a folder, 87 a null file, a null section with a key
// or value, or a section name that is empty after trimming; 8 a file larger
// than 64 MiB; the errors of the file calls (112 disk full ...), which leave
// the old file as it was.
//
// Threads and processes: any thread of any process may call these functions
// on one file at the same time; writers are serialized by the folder lock.
#ifndef QUARNEL_PLATFORM_PROFILE_H_
#define QUARNEL_PLATFORM_PROFILE_H_

#include "quarnel/foundation/export.h"

// The value of `key` in `section`, else `defaultValue`; a null `section`
// lists the section names, a null `key` the keys of the section, as
// double-terminated lists. Returns the units copied before the terminator;
// a list that did not fit is cut and gives size - 2.
QUARNEL_API unsigned UGetPrivateProfileString(const char16_t* section, const char16_t* key,
                                              const char16_t* defaultValue, char16_t* buffer,
                                              unsigned size, const char16_t* file);
// Sets `key` to `value` (trimmed) in `section`, creating the file, section
// or key as needed; a null `value` deletes the key, a null `key` the
// section. All three null: nothing to flush, 1. Returns 1, or 0 on failure.
QUARNEL_API int UWritePrivateProfileString(const char16_t* section, const char16_t* key,
                                           const char16_t* value, const char16_t* file);
// The key's value read as a number (decimal, or hexadecimal after "0x",
// optional sign, up to the first other character, modulo 2^32), else
// `defaultValue` (also for an empty value).
QUARNEL_API unsigned UGetPrivateProfileInt(const char16_t* section, const char16_t* key,
                                           int defaultValue, const char16_t* file);
// The lines of a section as "key=value" (a key alone for a line without
// "="), comments left out, as a double-terminated list.
QUARNEL_API unsigned UGetPrivateProfileSection(const char16_t* section, char16_t* buffer,
                                               unsigned size, const char16_t* file);
QUARNEL_API unsigned UGetPrivateProfileSectionNames(char16_t* buffer, unsigned size,
                                                    const char16_t* file);

#endif  // QUARNEL_PLATFORM_PROFILE_H_
