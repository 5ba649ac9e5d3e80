/* The window of a connection: shared memory in which a large synchronous message and its response
 * cross, one after the other.
 *
 * A memory file for each message costs page by page: to fill, to map, to give back. The window is
 * made once, by the first large message of a connection, and costs two copies from then on. Whoever
 * receives copies what it needs before it looks at it: the other side could still write. */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "host/base/descriptor.h"

namespace tamo {

/* Room for a block with as many items as a list request may have, and for the list that answers it.
 */
constexpr uint32_t kWindowSize = 1280U << 10;

class Window {
  public:
    Window() = default;
    ~Window() { unmap(); }
    Window(const Window &) = delete;
    Window &operator=(const Window &) = delete;

    bool isOpen() const { return bytes_ != nullptr; }
    uint8_t *bytes() const { return bytes_; }

    /* Makes the window's file and maps it. The file is passed to the other side. 0, or an error
     * number. */
    int create(Descriptor *file);

    /* Maps the file that the other side made; false when it is no window or there is one already. */
    bool adopt(const Descriptor &file);

    void unmap();

  private:
    bool map(const Descriptor &file);
    uint8_t *bytes_ = nullptr;
};

}  // namespace tamo
