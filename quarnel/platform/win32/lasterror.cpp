#include "quarnel/platform/lasterror.h"

#include <errno.h>

#include "quarnel/platform/win32/winapi.h"

unsigned UGetLastError() { return ::GetLastError(); }

void USetLastError(unsigned winerr) { ::SetLastError(winerr); }

// The C runtime's errno values, for the few C-library calls the library
// makes on Windows (the system calls report their own error numbers).
unsigned UWinErrorFromErrno(int err, bool pathContext) {
  switch (err) {
    case 0:
      return ERROR_SUCCESS;
    case ENOENT:
      return pathContext ? ERROR_PATH_NOT_FOUND : ERROR_FILE_NOT_FOUND;
    case EEXIST:
      return pathContext ? ERROR_ALREADY_EXISTS : ERROR_FILE_EXISTS;
    case ENOTDIR:
      return ERROR_PATH_NOT_FOUND;
    case EACCES:
    case EPERM:
    case EISDIR:
      return ERROR_ACCESS_DENIED;
    case EBADF:
      return ERROR_INVALID_HANDLE;
    case ENOMEM:
      return ERROR_NOT_ENOUGH_MEMORY;
    case EFAULT:
      return ERROR_NOACCESS;
    case EBUSY:
      return ERROR_SHARING_VIOLATION;
    case EAGAIN:
    case EDEADLK:
      return ERROR_LOCK_VIOLATION;
    case ENOLCK:
      return ERROR_SHARING_BUFFER_EXCEEDED;
    case EMFILE:
    case ENFILE:
      return ERROR_TOO_MANY_OPEN_FILES;
    case EINVAL:
    case EDOM:
      return ERROR_INVALID_PARAMETER;
    case E2BIG:
    case ERANGE:
      return ERROR_INSUFFICIENT_BUFFER;
    case EILSEQ:
      return ERROR_NO_UNICODE_TRANSLATION;
    case ENOSPC:
    case EFBIG:
      return ERROR_DISK_FULL;
    case EROFS:
      return ERROR_WRITE_PROTECT;
    case ENOTEMPTY:
      return ERROR_DIR_NOT_EMPTY;
    case EXDEV:
      return ERROR_NOT_SAME_DEVICE;
    case ENAMETOOLONG:
      return ERROR_FILENAME_EXCED_RANGE;
    case ESPIPE:
      return ERROR_SEEK_ON_DEVICE;
    case EPIPE:
      return ERROR_BROKEN_PIPE;
    case EINTR:
      return ERROR_OPERATION_ABORTED;
    case EIO:
      return ERROR_IO_DEVICE;
    case ENOSYS:
      return ERROR_NOT_SUPPORTED;
    default:
      return ERROR_GEN_FAILURE;
  }
}
