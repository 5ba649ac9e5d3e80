/* Typed values: one value of a configuration item, on its way between text and a variable.
 *
 * 1. A record is filled by a builder and read back as whatever is wanted; a reader never fails
 *    outright. A record of text or data refers to the caller's, which must outlive it.
 * 2. Results are 0 for success and another number for failure, unless a function says otherwise. A
 *    null argument is a failure, and nothing is written.
 * 3. Nothing is allocated and no state kept: any thread may call, on records and storage that no
 *    other thread writes. Storage need not be aligned.
 *
 *     int16_t port = 5060;
 *     ConfConfigValue value;
 *     ConfConfigStr2V(&value, "5061");
 *     if (ConfConfigV2DByType(&value, &port, sizeof(port), CONF_VALUE_INT) == 0)
 *         portChanged(port); */
#pragma once
#ifndef __cplusplus
#include <stdalign.h>
#include <stdbool.h>
#endif
#include <stddef.h>
#include <stdint.h>

#include "conf_config.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* A value; `type`, a ConfConfigValueType, tells which member of the payload holds it. */
typedef struct ConfConfigValue {
    int32_t type;
    union {
        alignas(8) int64_t i; /* CONF_VALUE_INT; aligned alike in all builds */
        uint64_t u;           /* CONF_VALUE_UINT */
        double f;             /* CONF_VALUE_FLOAT */
        uint8_t b;            /* CONF_VALUE_BOOL: 0 is false */
        struct {
            const char *text; /* NUL-terminated, the caller's */
            uint32_t length;  /* in bytes, the NUL included */
        } str;                /* CONF_VALUE_STR */
        struct {
            const void *bytes; /* the caller's */
            uint32_t length;
        } data; /* CONF_VALUE_DATA */
    } payload;
} ConfConfigValue;

/* ---- builders: 0, or -1 with the record as it was ---- */

/* A signed integer. */
int32_t ConfConfigInt2V(ConfConfigValue *value, int64_t i);

/* An unsigned integer. */
int32_t ConfConfigUInt2V(ConfConfigValue *value, uint64_t u);

/* A floating-point number. */
int32_t ConfConfigFloat2V(ConfConfigValue *value, double f);

/* A truth value; the byte is kept as it is. */
int32_t ConfConfigBool2V(ConfConfigValue *value, uint8_t b);

/* A text, which is not copied. */
int32_t ConfConfigStr2V(ConfConfigValue *value, const char *text);

/* `length` bytes, which are not copied. */
int32_t ConfConfigData2V(ConfConfigValue *value, const void *data, uint32_t length);

/* ---- readers ---- */

/* The value as a signed integer: an unsigned one's bits, a float without its fraction (the nearest
 * integer that there is when it is out of range, 0 for what is no number), 0 or 1 for a truth
 * value, the decimal number at the beginning of a text (0 when there is none; an empty text, or one
 * of white space, is recorded as an error). 0 for data, -1 for a null record. */
int64_t ConfConfigV2Int(const ConfConfigValue *value);

/* The same as an unsigned integer: a negative integer's bits, 0 for a negative float. All bits set
 * for a null record. */
uint64_t ConfConfigV2UInt(const ConfConfigValue *value);

/* The same as a floating-point number, whose text does not follow the process's locale; 0 for a null
 * record. */
double ConfConfigV2Float(const ConfConfigValue *value);

/* The value as 0 or 1: whether a number is not 0; whether a text begins with T or t, or with a
 * number that is not 0 in its low 8 bits. 0 for data, another text and a null record. */
uint8_t ConfConfigV2Bool(const ConfConfigValue *value);

/* Renders the value into `dst` of `dstSize` bytes: decimal, six decimals for a float, "TRUE" or
 * "FALSE". Not 0 for data, which writes nothing, and for what does not fit; the buffer is then
 * empty. */
int32_t ConfConfigV2Str(const ConfConfigValue *value, char *dst, uint32_t dstSize);

/* Copies the bytes of a record of data into `dst` of `dstSize` bytes. Not 0 for another type, which
 * writes nothing, and for what does not fit; the buffer is then cleared. */
int32_t ConfConfigV2Data(const ConfConfigValue *value, void *dst, uint32_t dstSize);

/* ---- bound variables ---- */

/* Builds a record of `type` from the `size` bytes of a variable; the sizes are those that
 * ConfConfigValueType names. A text is taken up to its NUL whatever the size: it must have one.
 * Returns 0, or -1. */
int32_t ConfConfigD2VByType(ConfConfigValue *value, const void *data, uint32_t size, int32_t type);

/* Stores a value in the `size` bytes of a variable of `type`. Returns 0 when the variable changed, 1
 * when it held the value already and was not written, and -1 on failure; one that is too small for a
 * text or for data is then cleared. Integers are cut to the variable's size, so that one that does
 * not fit counts as a change each time, as does a float that a variable of 4 bytes cannot hold
 * exactly. Texts are equal in any letter case, up to 1023 characters; a longer text, and data,
 * always counts as a change. */
int32_t ConfConfigV2DByType(const ConfConfigValue *value, void *data, uint32_t size, int32_t type);

/* Are two texts equal in any letter case? A null text is an empty one. */
bool ConfConfigStrEqual(const char *a, const char *b);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(ConfConfigValue, payload) == 8, "");
static_assert(offsetof(ConfConfigValue, payload.str.length) == (sizeof(void *) == 4 ? 12 : 16), "");
static_assert(offsetof(ConfConfigValue, payload.data.length) == (sizeof(void *) == 4 ? 12 : 16),
              "");
static_assert(sizeof(ConfConfigValue) == (sizeof(void *) == 4 ? 16 : 24), "");
#endif
