/* Memory that processes share and that nobody can cut.
 *
 * A mapped file ends every process that touches a page which somebody truncated away. These pages
 * are System V segments instead: their size never changes, and each is marked for removal as soon as
 * it is made, so that it ends with the last process that has it attached. The kernel lets a marked
 * segment be attached by its number all the same; a file below run/ tells the number. Processes
 * share one if they are in one IPC namespace, whatever their pointer width. */
#pragma once
#include <stddef.h>

namespace tamo {

/* Makes zeroed memory of at least `size` bytes for this process, its children and whoever joins it;
 * null, with errno set, when there is none. */
void *makeSharedPage(size_t size, int *number);

/* Attaches the memory with a number; null when it is gone, too small or another user's. What lies in
 * it must be looked at: a number may be another's by now. */
void *joinSharedPage(int number, size_t size, bool readOnly);

void leaveSharedPage(const void *memory);

}  // namespace tamo
