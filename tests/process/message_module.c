/* A module with a handler, for one side of a message only. */
#include <stdint.h>

__attribute__((visibility("default"))) uint32_t moduleHandler(uint32_t param, void *data,
                                                              uint32_t dataLength) {
    (void)data;
    return param + dataLength;
}
