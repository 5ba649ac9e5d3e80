/* Documents that are saved so that one of a file and its backup loads at any moment. */
#pragma once
#include "include/xmlAdapter.h"

/* Writes the document of `root` to the file `path`; false when the file is as it was, or could only
 * be written in place and lost its contents then. A document that is too deep to be read back is
 * refused. */
bool saveDocument(ConfXmlNode *root, const char *path, const char *backupPath);

/* Flushes a file, its backup and their names to the disk; the result of the platform, 0 for
 * success. `saved`: the file is as saveDocument has written it. */
int flushToDisk(const char *path, const char *backupPath, bool saved);
