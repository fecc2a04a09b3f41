// FlushFileBuffers: a file's data to the disk; SetEndOfFile: its length.
#include "platform/FileObject.h"

#include <cerrno>
#include <unistd.h>

using namespace ZOTH::platform;

BOOL FlushFileBuffers(HANDLE file) {
    FileObject* object = FileOf(file);
    if (object == nullptr) return FALSE;
    // The data and the size, not the times: what reading the file back after a crash needs.
    int done;
    do {
        done = ::fdatasync(object->fd);
    } while (done != 0 && errno == EINTR);
    if (done != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    return TRUE;
}

BOOL SetEndOfFile(HANDLE file) {
    FileObject* object = FileOf(file);
    if (object == nullptr) return FALSE;
    const off_t position = ::lseek(object->fd, 0, SEEK_CUR);
    if (position < 0 || ::ftruncate(object->fd, position) != 0) {
        SetLastErrorFromErrno(errno);
        return FALSE;
    }
    return TRUE;
}
