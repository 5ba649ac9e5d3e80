/* JSON: typed values out of parsed JSON, with defaults instead of errors, and JSON text out of
 * tables of items. For C++ only.
 *
 * 1. Trees are cJSON's own: include <cjson/cJSON.h> to release one with cJSON_Delete, and for
 *    whatever is not here. Who gets a tree from ConfJsonParse owns it; every item that is handed out
 *    belongs to its tree and lives as long.
 * 2. A null argument is refused, never followed. A failure is one record at CONF_LOG_ERROR under the
 *    unit conf_json, where a function does not say otherwise, and a neutral result: null, false, 0 or
 *    the caller's default. A function that adds items by ConfJsonAddMultipleItems leaves its record
 *    and that function's. Numbers do not follow the process's locale, neither read nor printed. A
 *    record with a key too long for one is dropped, as any other.
 * 3. Keys are NUL-terminated and letter case counts, except where a function says otherwise. Of
 *    several members with one key the first is taken. A lookup walks the members up to the one it
 *    finds.
 * 4. A tree is read up to 1000 levels deep; a deeper text is refused. Nothing else here goes down
 *    into a tree, so that a small stack suffices.
 * 5. No state: any thread may call as long as nobody changes the same tree, or the same string,
 *    meanwhile. No function throws.
 *
 *     cJSON *root = ConfJsonParse("{\"site\": \"Berlin\", \"port\": 5061}");
 *     unsigned int port = ConfJsonGetUInt32(root, "port", 5060);
 *     std::string site = ConfJsonGetString(root, "site", "unnamed");
 *     cJSON_Delete(root); */
#pragma once
#ifndef __cplusplus
#error "conf_json.h is for C++: its functions take and return std::string"
#endif
#include <cstddef>
#include <cstdint>
#include <string>

struct cJSON; /* a node of a tree: any JSON value */

#pragma GCC visibility push(default)

/* ---- reading ---- */

/* Parses a NUL-terminated text. Returns its tree, which the caller releases with cJSON_Delete, or
 * null when the text is no JSON. What follows the first value is not looked at, invalid UTF-8 in
 * texts is kept as it is, and numbers are doubles: integers above 2^53 are rounded. */
cJSON *ConfJsonParse(char const *text);

/* The member that is an object; null, without a record, when it is missing or anything else. */
cJSON *ConfJsonGetObject(cJSON *root, char const *key);

/* The member that is an array, or null. */
cJSON *ConfJsonGetArray(cJSON *root, char const *key);

/* The member, whatever its type, or null. */
cJSON *ConfJsonFindItem(cJSON *root, char const *key);

/* The number of elements, which walks all of them; 0, without a record, for what is no array. */
int ConfJsonGetArraySize(cJSON *array);

/* The element at an index from 0, or null. It walks there from the first element, so that a loop over
 * all indexes costs the square of the size. For more than a few elements, step instead:
 *
 *     const cJSON *site;
 *     cJSON_ArrayForEach(site, array)
 *         visit(site); */
cJSON *ConfJsonGetArrayItem(cJSON *array, unsigned int index);

/* Is there a member with this key? Letter case does not count: what is a member here may be none for
 * the other functions. A missing one leaves no record. */
bool ConfJsonIsMember(cJSON *root, char const *key);

/* The typed getters return the member's value, or the default, with a record, when `root` is no
 * object, the member is missing or of another type ("5" is no number, 1 is no bool), or the number
 * lies outside of the result's range. A null key finds nothing. */

/* A bool member. */
bool ConfJsonGetBool(cJSON *root, char const *key, bool defaultValue);

/* A number from -2147483648 to 2147483647, cut to an integer towards zero; 2147483647.5 is
 * outside. */
int ConfJsonGetInt(cJSON *root, char const *key, int defaultValue);

/* A number from 0 to 4294967295, cut to an integer; -0.5 is outside. */
unsigned int ConfJsonGetUInt32(cJSON *root, char const *key, unsigned int defaultValue);

/* A number from 0 to below 2^64, cut to an integer. */
unsigned long long ConfJsonGetUInt64(cJSON *root, char const *key, unsigned long long defaultValue);

/* A copy of a text member, up to its first NUL where it holds one ("\u0000"). The default, too,
 * when there is no memory for the copy. */
std::string ConfJsonGetString(cJSON *root, char const *key, std::string defaultValue);

/* ---- building ---- */

/* What an item holds: the `type` of ConfJsonItem. */
typedef enum {
    CONF_JSON_ITEM_NUMBER, /* `value.number`; infinities and not-a-number print as null */
    CONF_JSON_ITEM_STRING, /* `value.string`, NUL-terminated, copied */
    CONF_JSON_ITEM_BOOL    /* `value.boolean` */
} ConfJsonItemType;

/* A member to add to an object. The caller owns it and what it points to; both are only read. */
struct ConfJsonItem {
    int32_t type;    /* a ConfJsonItemType; any other value is refused */
    char const *key; /* the member's name, NUL-terminated */
    union {
        double number;
        char const *string;
        bool boolean;
    } value; /* the one that `type` names */
};

/* The functions that build return 0 for success and 1 for failure. */

/* Adds `count` items to `object` in their order, up to the first that cannot be added (an unknown
 * type, a null key or text, no memory); those before it stay. A key that is there already is added
 * once more.
 *
 *     ConfJsonItem items[] = {{CONF_JSON_ITEM_STRING, "site", {.string = "Berlin"}},
 *                             {CONF_JSON_ITEM_NUMBER, "port", {.number = 5061}}};
 *     ConfJsonAddMultipleItems(root, items, 2); */
int ConfJsonAddMultipleItems(cJSON *object, ConfJsonItem const *items, unsigned int count);

/* Adds the items to the member `name` of `root`, which is made when there is none. A member that is
 * there is used whatever its type; one whose name differs in letter case only is a failure. */
int ConfJsonAddMultipleItemsToSubObject(cJSON *root, char const *name, ConfJsonItem const *items,
                                        unsigned int count);

/* The next three put an object in place of the content of `out`: text with line breaks and
 * indentation. After a failure `out` is what it was. */

/* An object of one number. */
int ConfJsonCreateAndPrintSingleNumber(std::string &out, char const *key, double value);

/* An object of one text, NUL-terminated. */
int ConfJsonCreateAndPrintSingleString(std::string &out, char const *key, char const *value);

/* An object of `count` items; an empty one for a count of 0. */
int ConfJsonCreateAndPrintMultipleItems(std::string &out, ConfJsonItem const *items,
                                        unsigned int count);

/* ---- texts ---- */

/* Replaces the first occurrence of `search`, both NUL-terminated; an empty `search` puts the
 * replacement in front. Linear in the lengths. Without memory the text stays as it is. */
void ConfJsonReplaceStr(std::string &text, char const *search, char const *replacement);

/* Overwrites every character with an asterisk, in place; the length stays. */
void ConfJsonClearStr(std::string &text);

#pragma GCC visibility pop

static_assert(offsetof(ConfJsonItem, key) == (sizeof(void *) == 4 ? 4 : 8), "");
static_assert(offsetof(ConfJsonItem, value) == (sizeof(void *) == 4 ? 8 : 16), "");
static_assert(sizeof(ConfJsonItem) == (sizeof(void *) == 4 ? 16 : 24), "");
