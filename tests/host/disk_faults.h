/* A disk that fills up and counts its flushes, for whatever this test program has linked. */
#pragma once
#include <atomic>

namespace support {

/* While set, writing to a regular file fails for want of space; what the program says still comes
 * out, also where it goes to a file. */
extern std::atomic<bool> diskFull;

/* While set, no file that SQLite writes can grow. */
extern std::atomic<bool> diskIsFixed;

/* What still fits on the disk, in bytes that write and sendfile put into regular files; negative:
 * everything. */
extern std::atomic<long> diskRoom;

/* While set, no file can be made without a name. */
extern std::atomic<bool> noUnnamedFiles;

/* While set, file systems tell that they have no room. */
extern std::atomic<bool> diskTight;

/* Flushes of files since the program began. */
extern std::atomic<int> flushes;

}  // namespace support
