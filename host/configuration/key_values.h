/* A growing block of texts, each with its terminator: pairs of keys and values. */
#pragma once
#include <stddef.h>
#include <stdlib.h>
#include <string.h>

namespace tamo {

class Texts {
  public:
    Texts() = default;
    ~Texts() { free(bytes); }
    Texts(const Texts &) = delete;
    Texts &operator=(const Texts &) = delete;

    /* Adds a text and its terminator; false without memory. */
    bool append(const void *text, size_t length) {
        if (!makeRoom(length + 1)) {
            return false;
        }
        memcpy(bytes + used, text, length);
        bytes[used + length] = '\0';
        used += length + 1;
        return true;
    }

    /* Takes over a block of texts that data() gave once; false without memory. */
    bool assign(const void *block, size_t length) {
        used = 0;
        if (!makeRoom(length + 1)) {
            return false;
        }
        if (length != 0) {
            memcpy(bytes, block, length);
        }
        bytes[length] = '\0'; /* an end, whatever the block is */
        used = length;
        return true;
    }

    void clear() { used = 0; }
    const char *data() const { return bytes; }
    size_t size() const { return used; }

  private:
    bool makeRoom(size_t more) {
        if (capacity - used >= more) {
            return true;
        }
        size_t larger = 2 * capacity + more;
        char *moved = static_cast<char *>(realloc(bytes, larger));
        if (moved == nullptr) {
            return false;
        }
        bytes = moved;
        capacity = larger;
        return true;
    }

    char *bytes = nullptr;
    size_t used = 0;
    size_t capacity = 0;
};

/* Walks the pairs of a block of texts.
 *
 *     for (TextPairs pair(texts); pair.next();) show(pair.key, pair.value); */
class TextPairs {
  public:
    explicit TextPairs(const Texts &texts) : at(texts.data()), end(at + texts.size()) {}

    bool next() {
        if (at >= end) {
            return false;
        }
        key = at;
        value = key + strlen(key) + 1;
        if (value >= end) {
            return false;
        }
        at = value + strlen(value) + 1;
        return true;
    }

    const char *key = nullptr;
    const char *value = nullptr;

  private:
    const char *at;
    const char *end;
};

}  // namespace tamo
