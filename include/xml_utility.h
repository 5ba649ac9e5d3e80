/* XML by path, XML from descriptors, and memory structures kept in XML files.
 *
 * 1. Results are 0 for success and 1 for failure, or a CONF_XML_ result of xmlAdapter.h where the
 *    function says so; pointers are null on failure. Failures leave a record, unless the function
 *    says otherwise; a value that is merely missing leaves one at the debug level. A record with a
 *    path or a value too long for one is dropped, as any other.
 * 2. Any argument may be null: that is a failure.
 * 3. Blocks that are returned come from the platform's memory (tamo_os_mem.h), and the caller
 *    releases them with OSMemTypeFreeMon.
 * 4. A document belongs to one thread at a time; nothing else is shared, so any thread may call.
 *
 * Settings kept in a file:
 *
 *     static struct { uint8_t volume; char name[32]; } audio = {80, "Mic1"};
 *
 *     static void addField(ConfXmlNode *parent, const char *name, const char *type, void *field,
 *                          uint16_t size) {
 *         char address[24];
 *         snprintf(address, sizeof(address), "%" PRIuPTR, (uintptr_t)field);
 *         const ConfXmlValueNodeDesc desc = {name, type};
 *         const ConfXmlValue value = {CONF_XML_ATTR_CHAR, {.text = address}, size};
 *         ConfXmlAddSingleValueNode(parent, &desc, &value);
 *     }
 *
 *     static ConfXmlNode *describe(int32_t saving) {
 *         ConfXmlNode *root = ConfXmlAddSingleStructNode(NULL, "Root");
 *         ConfXmlNode *node = ConfXmlAddSingleStructNode(root, "Audio");
 *         addField(node, "volume", "UINT8", &audio.volume, 0);
 *         addField(node, "name", "CHAR", audio.name, sizeof(audio.name));
 *         return root;
 *     }
 *
 *     ConfXmlSave(describe, "/data/audio.xml", "/data/audio.bak");
 *     ConfXmlLoad(describe, "/data/audio.xml", "/data/audio.bak"); */
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "xmlAdapter.h"

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* ---- reading by path ----
 *
 * A URL is a path of ConfXmlGetNodeByPath: names separated by single spaces. */

/* The text of the element at `url`; null when there is none. It belongs to the document. */
const char *ConfXmlAdptGetNodeValueByUrl(ConfXmlNode *root, const char *url);

/* An attribute of the element at `url`; null, with an error record, when there is none. */
const char *ConfXmlAdptGetNodeAttrByUrl(ConfXmlNode *root, const char *url, const char *attrName);

/* Copies the text at `url` into `dst` of `dstSize` bytes. One that does not fit with its terminator
 * fails and copies nothing. `print` other than 0 asks for a debug record of the value. */
uint32_t ConfXmlParaseStringParams(const char *url, ConfXmlNode *root, char *dst, uint32_t dstSize,
                                   uint8_t print);

/* Stores the decimal number at `url`; a text that is no number leaves `dst` as it was and is no
 * failure. */
uint32_t ConfXmlParaseIntParams(const char *url, ConfXmlNode *root, int32_t *dst, uint8_t print);

/* One value to read and where it goes. */
typedef struct ConfXmlNoteParam {
    char path[68];    /* the URL */
    uint8_t isString; /* 0: `dst` is an int32_t; otherwise it is a text of dstSize bytes */
    void *dst;
    uint32_t dstSize;   /* bytes; for texts only */
    uint8_t print;      /* other than 0: a debug record of the value */
    uint8_t asciiCodes; /* other than 0: the text is a list of character codes, decoded into dst */
} ConfXmlNoteParam;

/* Reads one value. Of a list of character codes of at most 1023 characters `dst` gets as much as
 * can be decoded and fits; it is not terminated, so it should be zero-filled. That is a success. */
uint32_t ConfXmlParseSingleNote(ConfXmlNode *root, const ConfXmlNoteParam *param);

/* Decodes a list of decimal character codes, such as "72,233", into UTF-8 of at most `maxBytes`
 * bytes. It writes no terminator. A character is never cut; a foreign character in the list fails,
 * and what was decoded before it stays. A null argument leaves no record. */
uint32_t ConfXmlGetStringFromAscii(const char *src, char *dst, uint32_t maxBytes);

/* Reads the code that begins at `*pos` in a list of `length` bytes: 0 for an empty one, the low 32
 * bits of a larger one. `*pos` moves behind the comma, or to the end. A foreign character fails and
 * changes nothing. No record. */
uint32_t ConfXmlStrGetNextASCII(const char *text, uint32_t length, uint32_t *pos, uint32_t *value);

/* 1 when the text is made of one or more decimal digits, else 0. No record. */
uint32_t ConfXmlIsNumericStr(const char *text);

/* ---- documents from descriptors ---- */

/* An attribute. */
typedef struct ConfXmlAttrDesc {
    const char *name, *value;
} ConfXmlAttrDesc;

/* An element without children. */
typedef struct ConfXmlNodeDesc {
    const char *name, *text; /* text: null for none */
    uint32_t attrCount;
    const ConfXmlAttrDesc *attrs;
} ConfXmlNodeDesc;

/* A root without text and attributes, and its children. */
typedef struct ConfXmlEncodeDesc {
    const char *rootName;
    const ConfXmlNodeDesc *nodes; /* null is refused even when there are none */
    uint32_t nodeCount;
} ConfXmlEncodeDesc;

/* A root with text and attributes, and its children. */
typedef struct ConfXmlEncodeRootDesc {
    const ConfXmlNodeDesc *root, *children; /* children: as `nodes` above */
    uint32_t childCount;
} ConfXmlEncodeRootDesc;

/* Sets attributes in order, up to the first that fails. A CONF_XML_ result. */
uint32_t ConfXmlAdptAddNodeAttrs(ConfXmlNode *node, const ConfXmlAttrDesc *attrs, uint32_t count);

/* Makes child elements: the first before the parent's children, the others behind them. Ends at the
 * first that fails; what was made stays. A CONF_XML_ result. */
uint32_t ConfXmlAdptAddChildNodes(ConfXmlNode *parent, const ConfXmlNodeDesc *nodes,
                                  uint32_t count);

/* The document as text on one line, without a declaration. The caller releases it.
 *
 *     const ConfXmlNodeDesc site = {"site", "Berlin", 0, NULL};
 *     const ConfXmlEncodeDesc desc = {"conf", &site, 1};
 *     // conf with the one child site, whose text is Berlin
 *     char *text = ConfXmlAdptEncode(&desc); */
char *ConfXmlAdptEncode(const ConfXmlEncodeDesc *desc);

/* ConfXmlAdptEncode for a root that has attributes, or a text. */
char *ConfXmlAdptEncodeWithRootAttr(const ConfXmlEncodeRootDesc *desc);

/* Puts the XML declaration and a line feed in front of a text. `*result` is the caller's to
 * release. CONF_XML_INVALID also without memory, 16 when the text is too long to be printed. */
uint32_t ConfXmlDumpWithHeader(const char *body, char **result);

/* Makes a document with children of the root. An attribute that fails is recorded and left out. The
 * children end at the first that fails; that, and a null array of them, is recorded. A text of the
 * root that there is no memory for is left out without a record. The caller releases the document
 * with ConfXmlFreeRootNode. A null root leaves no record. */
ConfXmlNode *ConfXmlCreateRootNodeByNodeSet(const ConfXmlNodeDesc *root,
                                            const ConfXmlNodeDesc *children, uint32_t childCount);

/* The same for a new last child of `parent`, which belongs to the parent's document. A null parent or
 * node leaves no record. */
ConfXmlNode *ConfXmlCreateChildNodeByNodeSet(ConfXmlNode *parent, const ConfXmlNodeDesc *node,
                                             const ConfXmlNodeDesc *children, uint32_t childCount);

/* ---- memory structures in files ----
 *
 * An index table is a document that describes a structure in memory. "cfg" elements are structures,
 * arrays and instances of an array; "val" elements are fields, whose text is the field's address,
 * an unsigned number of the pointers' width in any form of C. The root is a "cfg" named "Root".
 * A saved file has the same shape with the values in place of the addresses. On load an element of
 * the table finds its counterpart by "name" and "InstID" (absent: 0), whatever the order; of several
 * the first counts. Names have at most 32 characters; a longer one in a file hides it and all its
 * later siblings. */

/* Types of fields by code; the "type" attribute has the name of the code. */
typedef uint8_t ConfXmlAttrType;
enum {
    CONF_XML_ATTR_UINT8 = 0, /* "UINT8" */
    CONF_XML_ATTR_INT8,
    CONF_XML_ATTR_UINT16,
    CONF_XML_ATTR_INT16,
    CONF_XML_ATTR_UINT32,
    CONF_XML_ATTR_INT32,
    CONF_XML_ATTR_CHAR,      /* a NUL-terminated text in an array of "CharLen" bytes */
    CONF_XML_ATTR_NONE = 255 /* no type, or an unknown one: neither saved nor loaded */
};

/* A value. In the argument of ConfXmlAddSingleValueNode the text is the field's address. */
typedef struct ConfXmlValue {
    uint8_t type; /* ConfXmlAttrType; says which member of the value counts */
    union {
        uint8_t u8;
        int8_t i8;
        uint16_t u16;
        int16_t i16;
        uint32_t u32;
        int32_t i32;
        const char *text;
    } value;
    uint16_t charLen; /* size of a CHAR field in bytes; for ConfXmlAddSingleValueNode */
} ConfXmlValue;

/* Name and type name of a field. */
typedef struct ConfXmlValueNodeDesc {
    const char *name, *type;
} ConfXmlValueNodeDesc;

/* What is known of an element. Zero-fill it before it is filled. */
typedef struct ConfXmlNodeInfo {
    ConfXmlNode *node;
    char nodeName[33]; /* the element's name */
    char name[33];     /* its "name" attribute; as it was when that is absent */
    uint8_t type;      /* ConfXmlAttrType */
    uint16_t instId, numOfInst;
    uint16_t charLen; /* of CHAR only */
} ConfXmlNodeInfo;

/* What a traversal hands down from an element to its children. */
typedef struct TransXMLContext {
    ConfXmlNode *node; /* the counterpart in the other document */
    uint32_t word, spare[2];
} TransXMLContext;

/* Makes an index table; `saving` is 1 for a save and 0 for a load. The library releases it. */
typedef ConfXmlNode *(*ConfXmlCreateIndexTableFn)(int32_t saving);

/* Called for an element of an index table; `context` is that of its parent and becomes that of its
 * children. Not 0: the element's children are left out. */
typedef uint32_t (*ConfXmlTraverseFn)(ConfXmlNodeInfo *info, TransXMLContext *context);

/* 0 when the two match; `word` is 0. */
typedef int32_t (*ConfXmlCompareFn)(const ConfXmlNodeInfo *a, const ConfXmlNodeInfo *b,
                                    uint32_t word);

/* Adds a structure to an index table; without a parent, it is the root of a new document. This and
 * the next three return the new element, the last child of the parent. Failed, they may leave an
 * incomplete element in the parent. */
ConfXmlNode *ConfXmlAddSingleStructNode(ConfXmlNode *parent, const char *name);

/* Adds an array of `count` instances, which are added one by one. */
ConfXmlNode *ConfXmlAddMultiInstanceNode(ConfXmlNode *parent, const char *name, uint16_t count);

/* Adds an instance of an array. Numbers have 16 bits: an array of more than 65,536 instances needs a
 * second name for the others, since of several with one name and number the first is loaded. */
ConfXmlNode *ConfXmlAddMultiStructNode(ConfXmlNode *parent, const char *name, uint16_t instId);

/* Adds a field. */
ConfXmlNode *ConfXmlAddSingleValueNode(ConfXmlNode *parent, const ConfXmlValueNodeDesc *desc,
                                       const ConfXmlValue *value);

/* Writes the structure that the table describes to a file and copies that to a backup, whose failure
 * fails nothing. The memory must not change meanwhile.
 *
 * Whatever is killed and when, one of the two files loads. Where the platform can replace a file, the
 * file is the old one or the whole new one at any moment, keeps its owner, group, mode and access
 * lists, and is as it was after a failed save; it is written in place only where nothing else is
 * possible (a directory that may not be written, a file with several names, a full disk), and then
 * not before the backup, if there is one, is known to be whole. A file that may not be written is
 * not replaced.
 *
 * A field that cannot be read, and a text without an end within its "CharLen", are recorded and saved
 * without a value. Where there was no memory for all of the document, the file lacks what is recorded
 * and the backup stays as it was. A table of more than 98 levels is refused. */
uint32_t ConfXmlSave(ConfXmlCreateIndexTableFn createIndexTable, const char *path,
                     const char *backupPath);

/* Reads the structure from the file, or from the backup when the file is no document. Fields that
 * the file does not have, or not as such a type, keep their values. Numbers are parsed as the type
 * in the file says, of a number outside 32 bits the low ones, and stored with the width of the field;
 * a text that is not a number is 0. A text that does not fit leaves its field empty; a carriage
 * return in one comes back as a line feed. The time grows with the size of the file. */
uint32_t ConfXmlLoad(ConfXmlCreateIndexTableFn createIndexTable, const char *path,
                     const char *backupPath);

/* Copies a file to its backup and flushes both to the disk. */
void ConfXmlBakFile(const char *path, const char *backupPath);

/* ---- the steps of save and load ---- */

/* Calls `callback` for an element and, unless it is a "val", for all below it in document order,
 * each with a copy of the context that its parent's call left. 1 when the element itself fails. It
 * takes no more stack for a deep tree. */
uint32_t ConfXmlTraverseXmlTree(ConfXmlNode *element, TransXMLContext *context,
                                ConfXmlTraverseFn callback);

/* The callback of save: makes the element's counterpart in the document that is saved, with the
 * field's value, and sets the context to it. For nodes that are there, a failure leaves a record of
 * its own only where memory runs out or a text has no end; the traversal leaves one for each. */
uint32_t ConfXmlWriteCallBack(ConfXmlNodeInfo *info, TransXMLContext *context);

/* The callback of load: finds the element's counterpart in the loaded document, stores its value in
 * the field, and sets the context to it. A null argument and a counterpart that is not there leave no
 * record of their own; the traversal leaves one. */
uint32_t ConfXmlLoadCallBack(ConfXmlNodeInfo *info, TransXMLContext *context);

/* Reads all that is known of an element. */
uint32_t ConfXmlGetXmlNodeAttrAndValue(ConfXmlNode *node, ConfXmlNodeInfo *info);

/* Reads an element's "name", "type" and "CharLen"; a null node has none of them, which is no failure.
 * A failure leaves no record. */
uint32_t ConfXmlGetXmlNodeAttr(ConfXmlNode *node, ConfXmlNodeInfo *info);

/* 1 for a "val" element, else 0. */
uint32_t ConfXmlIsValueNode(const ConfXmlNodeInfo *info);

/* The code of a type name, exactly as written; an unknown one and a null argument fail without a
 * record. */
uint32_t ConfXmlAttrTypeStrToEnum(const char *typeName, uint8_t *code);

/* An element's text as a value of a type; a text value points into the document and is null for an
 * element without text. A null node, with a record, has no text and the number 0. No record for a
 * null value or an unknown type. */
uint32_t ConfXmlGetValue(ConfXmlNode *node, uint8_t type, ConfXmlValue *value);

/* Sets an element's text. A CONF_XML_ result, or 1, without a record, for a null value. */
uint32_t ConfXmlSetXmlNodeValue(ConfXmlNode *node, const ConfXmlValue *value);

/* Reads a field of the type in `info`; a text value is the address itself. No record. */
uint32_t ConfXmlCopyIndexValueToXmlNode(const ConfXmlNodeInfo *info, const void *address,
                                        ConfXmlValue *value);

/* Stores a value in a field of the type and the size in `indexInfo`, which alone say what the value
 * holds: a number of that width, or a text. No record. */
uint32_t ConfXmlCopyXmlNodeValueToIndex(const ConfXmlValue *value, const ConfXmlNodeInfo *indexInfo,
                                        void *address);

/* Compares the names, then the instance numbers; 0 when both are equal. No record. */
int32_t ConfXmlCompareNode(const ConfXmlNodeInfo *a, const ConfXmlNodeInfo *b, uint32_t word);

/* What `compare` says of two elements; 1 when one cannot be read, and, without a record, when
 * `compare` is null. */
int32_t ConfXmlMatchNode(ConfXmlNode *a, ConfXmlNode *b, ConfXmlCompareFn compare);

/* The first child of `fileParent` that matches the element of the index table; the search ends at a
 * child that cannot be read. When there is none, no record but the debug one of a parent without
 * children; none for a null `compare` or `found`. It walks the children; a load does not. */
uint32_t ConfXmlFindMatchNode(ConfXmlNode *indexElement, ConfXmlNode *fileParent,
                              ConfXmlCompareFn compare, ConfXmlNode **found);

#pragma GCC visibility pop
#ifdef __cplusplus
}

static_assert(offsetof(ConfXmlAttrDesc, value) == (sizeof(void *) == 4 ? 4 : 8), "");
static_assert(sizeof(ConfXmlAttrDesc) == (sizeof(void *) == 4 ? 8 : 16), "");
static_assert(offsetof(ConfXmlNodeDesc, attrCount) == (sizeof(void *) == 4 ? 8 : 16), "");
static_assert(offsetof(ConfXmlNodeDesc, attrs) == (sizeof(void *) == 4 ? 12 : 24), "");
static_assert(sizeof(ConfXmlNodeDesc) == (sizeof(void *) == 4 ? 16 : 32), "");
static_assert(offsetof(ConfXmlEncodeDesc, nodeCount) == (sizeof(void *) == 4 ? 8 : 16), "");
static_assert(sizeof(ConfXmlEncodeDesc) == (sizeof(void *) == 4 ? 12 : 24), "");
static_assert(offsetof(ConfXmlEncodeRootDesc, childCount) == (sizeof(void *) == 4 ? 8 : 16), "");
static_assert(sizeof(ConfXmlEncodeRootDesc) == (sizeof(void *) == 4 ? 12 : 24), "");
static_assert(offsetof(ConfXmlNoteParam, isString) == 68, "");
static_assert(offsetof(ConfXmlNoteParam, dst) == 72, "");
static_assert(offsetof(ConfXmlNoteParam, dstSize) == (sizeof(void *) == 4 ? 76 : 80), "");
static_assert(offsetof(ConfXmlNoteParam, asciiCodes) == (sizeof(void *) == 4 ? 81 : 85), "");
static_assert(sizeof(ConfXmlNoteParam) == (sizeof(void *) == 4 ? 84 : 88), "");
static_assert(offsetof(ConfXmlValue, value) == (sizeof(void *) == 4 ? 4 : 8), "");
static_assert(offsetof(ConfXmlValue, charLen) == (sizeof(void *) == 4 ? 8 : 16), "");
static_assert(sizeof(ConfXmlValue) == (sizeof(void *) == 4 ? 12 : 24), "");
static_assert(sizeof(ConfXmlValueNodeDesc) == (sizeof(void *) == 4 ? 8 : 16), "");
static_assert(offsetof(ConfXmlNodeInfo, nodeName) == (sizeof(void *) == 4 ? 4 : 8), "");
static_assert(offsetof(ConfXmlNodeInfo, name) == (sizeof(void *) == 4 ? 37 : 41), "");
static_assert(offsetof(ConfXmlNodeInfo, type) == (sizeof(void *) == 4 ? 70 : 74), "");
static_assert(offsetof(ConfXmlNodeInfo, instId) == (sizeof(void *) == 4 ? 72 : 76), "");
static_assert(offsetof(ConfXmlNodeInfo, charLen) == (sizeof(void *) == 4 ? 76 : 80), "");
static_assert(sizeof(ConfXmlNodeInfo) == (sizeof(void *) == 4 ? 80 : 88), "");
static_assert(offsetof(TransXMLContext, word) == (sizeof(void *) == 4 ? 4 : 8), "");
static_assert(offsetof(TransXMLContext, spare) == (sizeof(void *) == 4 ? 8 : 12), "");
static_assert(sizeof(TransXMLContext) == (sizeof(void *) == 4 ? 16 : 24), "");
#endif
