/* What records advise. */
#include "host/base/log.h"

#include <errno.h>

const char *tamo::adviceOn(int error) {
    switch (error) {
        case EMFILE:
        case ENFILE:
            return ": end what keeps descriptors open, or raise ulimit -n";
        case ENOMEM:
        case ENOBUFS:
        case EAGAIN:
            return ": end programs that need much memory, or raise this one's limits";
        case ENOSPC:
        case EDQUOT:
            return ": free space on the disk of the device root";
        case EACCES:
        case EPERM:
        case EROFS:
            return ": see that what lies below the device root is this user's to read and write";
        case EISDIR:
        case ELOOP:
        case ENODEV:
        case ENOTDIR:
        case ENXIO:
            return ": move aside what has that name below the device root";
        default:
            return "";
    }
}
