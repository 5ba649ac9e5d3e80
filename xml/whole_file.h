/* Documents in files that are never seen half written. */
#pragma once
#include "include/xmlAdapter.h"

/* Writes the document of `root` beside the file, flushes it to the disk and renames it: at any
 * moment `path`, a device path, names the old file or the whole new one. A file that exists keeps
 * its mode and owner. What is no regular file is written as it stands. Failed, the file is as it
 * was. */
bool saveWhole(ConfXmlNode *root, const char *path);

/* Flushes two files, by their device paths, and their names to the disk. */
bool flushFiles(const char *path, const char *otherPath);
