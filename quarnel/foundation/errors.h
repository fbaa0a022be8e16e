// The library's error codes. Every member and function of the library returns
// an int: 0 for success, one of these negative codes for failure. Platform
// error numbers never leave the library as they are; MapError turns them into
// these codes (see error.h).
#ifndef QUARNEL_FOUNDATION_ERRORS_H_
#define QUARNEL_FOUNDATION_ERRORS_H_

enum : int {
  kErrNone = 0,

  // Low codes of the library's own modules.
  kErrLmBadArgument = -610,    // ElementSpace: bad argument or refnum
  kErrLmLocked = -611,         // ElementSpace: the space is locked and cannot move its data
  kErrLmFull = -612,           // ElementSpace: the space is full
  kErrMemNotObtained = -625,   // TMemory: memory could not be obtained, or growth was denied
  kErrMemBadArguments = -626,  // TMemory::AllocBuffer: bad sizes or granularity
  kErrModuleUnusable = -630,   // a module or its id resource cannot be used
  kErrModuleEntered = -631,    // the module already has a range record
  kErrModuleConflict = -632,   // a module's resource or error range overlaps a recorded one
  kErrQueueNoRoom = -635,      // TQueue: fewer bytes free than asked to add
  kErrQueueEmpty = -636,       // TQueue: nothing stored
  kErrQueueNoData = -637,      // TQueue: fewer bytes stored than asked, or no such item
  kErrChunkFirst = -641,       // chunk store codes run from -641 to -649
  kErrChunkLast = -649,

  // The chunk store's codes.
  kErrChunkHash = -641,           // a chunk's data does not match its hash
  kErrChunkBadMap = -642,         // the map chunk is not a map, or lies outside the file
  kErrChunkInvalidFile = -643,    // not a chunk file, or a short one
  kErrChunkMapCheck = -644,       // the map check failed
  kErrChunkNotSaved = -645,       // the file was not fully saved
  kErrChunkDuplicate = -646,      // a duplicate key or an invalid type
  kErrChunkNotFound = -647,       // no such chunk, or a handle not registered
  kErrChunkDirty = -648,          // the chunk's contents are only in memory
  kErrChunkNotRegistered = -649,  // removing a handle that is not registered

  kErrPersistOtherByteOrder = -690,  // a valid record in the other byte order
  kErrPersistBadSignature = -691,    // the stored signature or versions are not well formed
  kErrPersistWrongSignature = -692,  // the record is of another type
  kErrPersistTooOld = -693,          // the record is older than this reader can read
  kErrPersistTooNew = -694,          // the record needs a newer reader
  kErrExportBufferTooSmall = -695,
  kErrImportDataTooShort = -696,

  // Codes of the Windows and CDL mapping tables.
  kErrUnknown = -1001,
  kErrBadParameter = -1010,
  kErrNotSameDevice = -1011,
  kErrNotSupported = -1012,
  kErrInvalidName = -1013,
  kErrDuplicateName = -1014,
  kErrAborted = -1015,
  kErrStackOverflow = -1016,
  kErrAccessDenied = -1017,
  kErrOutOfMemory = -1018,
  kErrNoSystemResources = -1019,
  kErrBusy = -1020,
  kErrBufferTooSmall = -1021,
  kErrNoData = -1022,
  kErrAlreadyExists = -1023,
  kErrNoMoreEntries = -1024,
  kErrMoreData = -1025,
  kErrResourceNameNotFound = -1026,
  kErrOutOfPaper = -1050,
  kErrPrintQueueFull = -1051,
  kErrPrinter = -1052,
  kErrInvalidHandle = -1100,
  kErrFileNotFound = -1101,
  kErrDeviceNotPresent = -1102,
  kErrWriteProtected = -1103,
  kErrDeviceNotReady = -1104,
  kErrSeek = -1105,
  kErrSectorNotFound = -1106,
  kErrReadFault = -1107,
  kErrWriteFault = -1108,
  kErrOpenFailed = -1109,
  kErrDeviceFailure = -1110,
  kErrLockViolation = -1111,
  kErrTooManyOpenFiles = -1112,
  kErrWrongDisk = -1113,
  kErrEndOfFile = -1114,
  kErrDiskFull = -1115,
  kErrNetwork = -1116,
  kErrCannotMake = -1118,
  kErrDirectoryNotEmpty = -1119,
  kErrCannotCopy = -1120,
  kErrUnrecognisedVolume = -1121,
  kErrCorrupt = -1123,
  kErrInvalidData = -1124,
  kErrNoAssociation = -1126,
  kErrCdlFailure = -1201,

  // Answers of the alert and query boxes.
  kAnswerYes = -1201,  // yes, cancel, abort and any other button
  kAnswerNo = -1202,
  kAnswerOk = -1203,  // also: no interface available for an input query
  kAnswerIgnore = -1205,
  kAnswerRetry = -1206,
};

#endif  // QUARNEL_FOUNDATION_ERRORS_H_
