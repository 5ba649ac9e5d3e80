/* What a timer delivers, shared between the threads that start and stop timers and the timer
 * manager's, which takes no lock.
 *
 * A timer delivers a parameter and a block of data. Starts and stops replace the two while an expiry may
 * read them. Two things keep that harmless:
 *
 * - A sequence number, odd while a replacement is under way, tells a reader that it saw the parameter
 *   of one start with the data of another; it then reads again. Making the number odd also keeps
 *   replacements apart, so that the end of the service needs no lock either.
 * - A reader announces the block that it is about to use before it trusts the sequence number. Whoever
 *   takes a block out of a timer releases it, unless a reader has announced it: then the block is
 *   marked, and the reader releases it when it is done.
 *
 * Nobody waits for a reader, so that a timer can also be stopped from within an expiry. */
#pragma once

#include <cstdint>

/* The fields of a timer that change while it runs. */
struct TimerContent {
    uint32_t *param;
    uint32_t *dataLength;
    void **data;
};

/* Replaces what a timer delivers and releases the previous data. */
void replaceContent(const TimerContent &content, uint32_t param, void *data, uint32_t dataLength);

/* Takes the data out and releases it; parameter and length stay. */
void releaseContent(const TimerContent &content);

/* What one expiry delivers. The data stays valid until the end of the scope. */
class ContentReader {
  public:
    explicit ContentReader(const TimerContent &content);
    ~ContentReader();
    ContentReader(const ContentReader &) = delete;
    ContentReader &operator=(const ContentReader &) = delete;

    uint32_t param() const { return param_; }
    const void *data() const { return data_; }
    uint32_t dataLength() const { return dataLength_; }

  private:
    unsigned slot_;
    uint32_t param_;
    uint32_t dataLength_;
    void *data_;
};
