#include "quarnel/platform/lasterror.h"

#include <errno.h>

namespace {

thread_local unsigned t_lastError = 0;

// Windows error numbers the errno table produces.
enum : unsigned {
  kWinSuccess = 0,
  kWinInvalidFunction = 1,
  kWinFileNotFound = 2,
  kWinPathNotFound = 3,
  kWinTooManyOpenFiles = 4,
  kWinAccessDenied = 5,
  kWinInvalidHandle = 6,
  kWinNotEnoughMemory = 8,
  kWinNotSameDevice = 17,
  kWinWriteProtect = 19,
  kWinNotReady = 21,
  kWinGenFailure = 31,
  kWinSharingViolation = 32,
  kWinLockViolation = 33,
  kWinSharingBufferExceeded = 36,
  kWinNotSupported = 50,
  kWinBadNetPath = 53,
  kWinDevNotExist = 55,
  kWinUnexpectedNetError = 59,
  kWinNetNameDeleted = 64,
  kWinFileExists = 80,
  kWinInvalidParameter = 87,
  kWinBrokenPipe = 109,
  kWinDiskFull = 112,
  kWinSemTimeout = 121,
  kWinInsufficientBuffer = 122,
  kWinSeekOnDevice = 132,
  kWinDirNotEmpty = 145,
  kWinAlreadyExists = 183,
  kWinBadExeFormat = 193,
  kWinFilenameExcedRange = 206,
  kWinArithmeticOverflow = 534,
  kWinOperationAborted = 995,
  kWinNoAccess = 998,
  kWinUnrecognizedVolume = 1005,
  kWinNoUnicodeTranslation = 1113,
  kWinIoDevice = 1117,
  kWinTooManyLinks = 1142,
  kWinConnectionRefused = 1225,
  kWinNoNetwork = 1222,
  kWinNetworkUnreachable = 1231,
  kWinHostUnreachable = 1232,
  kWinConnectionAborted = 1236,
  kWinFileCorrupt = 1392,
  kWinNoSystemResources = 1450,
  kWinCantResolveFilename = 1921,
  kWinNotConnected = 2250,
};

}  // namespace

unsigned UGetLastError() { return t_lastError; }

void USetLastError(unsigned winerr) { t_lastError = winerr; }

// The one errno table of the platform. Each errno becomes the number a
// Windows program sees for the same failure of the matching Win32 call:
//
// - ENOENT is 2 (ERROR_FILE_NOT_FOUND); with a path context 3
//   (ERROR_PATH_NOT_FOUND): a folder of the path is missing.
// - EEXIST is 80 (ERROR_FILE_EXISTS), what CreateFile with CREATE_NEW and
//   CopyFile with fail-if-exists give; with a path context 183
//   (ERROR_ALREADY_EXISTS), what CreateDirectory and MoveFile give.
// - EISDIR is 5: Windows refuses to open a folder as a file with access denied.
// - EAGAIN, EWOULDBLOCK and EDEADLK are 33 (ERROR_LOCK_VIOLATION): the only
//   non-blocking calls of the platform are the byte-range locks of LockFile.
// - EFBIG and EDQUOT are 112: to the writer the file cannot grow, as on a
//   full disk.
// - E2BIG and ERANGE are 122 (ERROR_INSUFFICIENT_BUFFER): a conversion's or
//   a path query's output buffer is too small.
// - EILSEQ is 1113 (ERROR_NO_UNICODE_TRANSLATION), as MultiByteToWideChar
//   gives for an invalid sequence with MB_ERR_INVALID_CHARS.
// - An errno the table does not know becomes 31 (ERROR_GEN_FAILURE).
unsigned UWinErrorFromErrno(int err, bool pathContext) {
  switch (err) {
    case 0:
      return kWinSuccess;
    case ENOENT:
      return pathContext ? kWinPathNotFound : kWinFileNotFound;
    case EEXIST:
      return pathContext ? kWinAlreadyExists : kWinFileExists;
    case ENOTDIR:
      return kWinPathNotFound;
    case EPERM:
    case EACCES:
    case EISDIR:
      return kWinAccessDenied;
    case EBADF:
      return kWinInvalidHandle;
    case ENOMEM:
      return kWinNotEnoughMemory;
    case EFAULT:
      return kWinNoAccess;
    case EBUSY:
    case ETXTBSY:
      return kWinSharingViolation;
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
    case EAGAIN:
    case EDEADLK:
      return kWinLockViolation;
    case ENOLCK:
      return kWinSharingBufferExceeded;
    case EMFILE:
    case ENFILE:
      return kWinTooManyOpenFiles;
    case EINVAL:
    case EDOM:
      return kWinInvalidParameter;
    case E2BIG:
    case ERANGE:
      return kWinInsufficientBuffer;
    case EILSEQ:
      return kWinNoUnicodeTranslation;
    case ENOSPC:
    case EDQUOT:
    case EFBIG:
      return kWinDiskFull;
    case EROFS:
      return kWinWriteProtect;
    case ENOTEMPTY:
      return kWinDirNotEmpty;
    case EXDEV:
      return kWinNotSameDevice;
    case ENAMETOOLONG:
      return kWinFilenameExcedRange;
    case ELOOP:
      return kWinCantResolveFilename;
    case EMLINK:
      return kWinTooManyLinks;
    case ESPIPE:
      return kWinSeekOnDevice;
    case EPIPE:
      return kWinBrokenPipe;
    case EOVERFLOW:
      return kWinArithmeticOverflow;
    case EIO:
      return kWinIoDevice;
    case ENXIO:
    case ENOMEDIUM:
      return kWinNotReady;
    case ENODEV:
      return kWinDevNotExist;
    case EMEDIUMTYPE:
      return kWinUnrecognizedVolume;
    case EUCLEAN:
    case EBADMSG:
      return kWinFileCorrupt;
    case ENOEXEC:
      return kWinBadExeFormat;
    case ENOTTY:
      return kWinInvalidFunction;
    case ENOSYS:
    case EOPNOTSUPP:
#if ENOTSUP != EOPNOTSUPP
    case ENOTSUP:
#endif
      return kWinNotSupported;
    case EINTR:
    case ECANCELED:
      return kWinOperationAborted;
    case ENOBUFS:
      return kWinNoSystemResources;
    case ESTALE:
    case ECONNRESET:
      return kWinNetNameDeleted;
    case ETIMEDOUT:
      return kWinSemTimeout;
    case ECONNREFUSED:
      return kWinConnectionRefused;
    case ECONNABORTED:
      return kWinConnectionAborted;
    case ENETDOWN:
      return kWinNoNetwork;
    case ENETUNREACH:
      return kWinNetworkUnreachable;
    case EHOSTUNREACH:
    case EHOSTDOWN:
      return kWinHostUnreachable;
    case ENOTCONN:
      return kWinNotConnected;
    case EREMOTEIO:
      return kWinUnexpectedNetError;
    case ENOLINK:
      return kWinBadNetPath;
    default:
      return kWinGenFailure;
  }
}
