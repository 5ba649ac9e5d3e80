/* XML documents by node handle: parse, walk, find, read, build, change and print.
 *
 * 1. A node is an element. Texts, comments and declarations are never handed out: every step goes
 *    from element to element. A null handle is no node; any function takes one.
 * 2. The root is the document's first element. Who gets it from ConfXmlParseFileGetRoot,
 *    ConfXmlParseBodyGetRoot or ConfXmlCreateRootNode owns the whole document and releases it with
 *    ConfXmlFreeRootNode, after which its handles and texts are gone.
 * 3. Names, texts and values that are returned belong to the document and stay until they are
 *    changed or the document is released.
 * 4. A document belongs to one thread at a time; also reading changes it inside. Different
 *    documents need no care.
 * 5. A document is read up to 98 levels deep; a deeper one is refused. Nothing limits what is built
 *    here, but releasing and printing take stack for each level.
 * 6. Paths of files are device paths.
 *
 *     ConfXmlNode *root = ConfXmlParseBodyGetRoot("<conf><site id=\"7\">Berlin</site></conf>");
 *     ConfXmlNode *site = ConfXmlGetNodeByPath(root, "site");
 *     int32_t id = ConfXmlGetNodeIntAttr(site, "id");
 *     ConfXmlFreeRootNode(root); */
#pragma once
#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* An element of a document. */
typedef struct ConfXmlNode ConfXmlNode;

/* What a value pointer points to: the `type` of ConfXmlAddAttr and ConfXmlSetNodeText. Integers are
 * written in decimal. The pointer needs no alignment. */
typedef enum {
    CONF_XML_TEXT = 0, /* the NUL-terminated text itself */
    CONF_XML_INT,      /* int32_t */
    CONF_XML_UINT,     /* uint32_t */
    CONF_XML_INT8,     /* not for attributes */
    CONF_XML_UINT8,    /* not for attributes */
    CONF_XML_INT16,
    CONF_XML_UINT16,
    CONF_XML_INT32,  /* not for attributes: CONF_XML_INT */
    CONF_XML_UINT32, /* not for attributes: CONF_XML_UINT */
    CONF_XML_INT64,
    CONF_XML_UINT64,
    CONF_XML_BOOL, /* one byte, 0 is false; written as true or false */
    CONF_XML_DOUBLE,
    CONF_XML_FLOAT
} ConfXmlDataType;

/* Results of the functions that change a document. */
enum {
    CONF_XML_OK = 0,
    CONF_XML_NO_MEMORY = 1, /* the attribute, at worst all of the element's, or the text is gone */
    CONF_XML_NOT_HANDLED = 2, /* the type is not for this function */
    CONF_XML_INVALID = 15     /* a null argument, or no such type */
};

/* ---- documents ---- */

/* Reads a document from a file. Returns its root, or null with a record when the file cannot be
 * opened or is no well-formed document, and null without one when it holds no element. */
ConfXmlNode *ConfXmlParseFileGetRoot(const char *path);

/* Reads a document from a NUL-terminated text; results as for a file. The text may go afterwards. */
ConfXmlNode *ConfXmlParseBodyGetRoot(const char *text);

/* Makes a document of one element, its root. Null for a null name or without memory. */
ConfXmlNode *ConfXmlCreateRootNode(const char *name);

/* Releases the whole document of any of its elements. */
void ConfXmlFreeRootNode(ConfXmlNode *node);

/* The whole document as text on one line; null, with a record, when `root` is not a root or memory
 * runs out. The text is the document's: it stays until the next call for the document. */
const char *ConfXmlTransformStr(ConfXmlNode *root);

/* Writes the whole document of any of its elements to a file, indented. Returns 0, CONF_XML_INVALID
 * for a null argument, CONF_XML_NO_MEMORY, or the XML library's error number, 4 when the file cannot
 * be opened. */
uint32_t ConfXmlTransformFile(ConfXmlNode *node, const char *path);

/* ---- walking ---- */

/* The root of the node's document. */
ConfXmlNode *ConfXmlGetRootNode(ConfXmlNode *node);

/* Is the node its document's root? */
bool ConfXmlIsRootNode(ConfXmlNode *node);

/* The parent; null, with a record, for the root. */
ConfXmlNode *ConfXmlGetNodeParenet(ConfXmlNode *node);

/* The number of child elements; walks all of them. */
uint32_t ConfXmlGetNodeChildNum(ConfXmlNode *parent);

/* The first child element, or null. */
ConfXmlNode *ConfXmlGetNodeFirstChild(ConfXmlNode *parent);

/* The next element with the same parent, or null. */
ConfXmlNode *ConfXmlGetNodeNextSibling(ConfXmlNode *node);

/* The next element in document order: an element, its children, then its next sibling. From the
 * root on it meets every element once; null at the end. The step up from the root leaves a record.
 *
 *     for (ConfXmlNode *at = root; at != NULL; at = ConfXmlGetNodeIterator(at)) */
ConfXmlNode *ConfXmlGetNodeIterator(ConfXmlNode *node);

/* The element that a path of names, separated by single spaces, leads to from `node`, or null.
 * Letter case counts, and of siblings with one name the first is taken. A name may be that of the
 * element reached so far, which then stays, except for the last: it names a child. A path that ends
 * with a space leads to the element reached before it.
 *
 *     ConfXmlGetNodeByPath(conf, "conf sites site")  the same as
 *     ConfXmlGetNodeByPath(conf, "sites site") */
ConfXmlNode *ConfXmlGetNodeByPath(ConfXmlNode *node, const char *path);

/* ---- reading ---- */

/* The element's name. */
const char *ConfXmlGetNodeName(ConfXmlNode *node);

/* The text that the element begins with; null when it begins with something else. */
const char *ConfXmlGetNodeText(ConfXmlNode *node);

/* That text as an integer; 0 when there is none or it is no number. */
int32_t ConfXmlGetNodeIntText(ConfXmlNode *node);

/* The value of an attribute; null when it is absent. */
const char *ConfXmlGetNodeStrAttr(ConfXmlNode *node, const char *name);

/* The value of an attribute as a number; 0 when it is absent or no number. */
int32_t ConfXmlGetNodeIntAttr(ConfXmlNode *node, const char *name);

/* The same without a sign. */
uint32_t ConfXmlGetNodeUintAttr(ConfXmlNode *node, const char *name);

/* ---- building and changing ---- */

/* Makes a new element, the first child of `parent`, and returns it. Null, with a record, for a null
 * argument; null without memory. */
ConfXmlNode *ConfXmlCreateFirstChildNode(ConfXmlNode *parent, const char *name);

/* ConfXmlCreateFirstChildNode for a last child. */
ConfXmlNode *ConfXmlCreateLastChildNode(ConfXmlNode *parent, const char *name);

/* Sets an attribute from the value that `value` points to; one that exists keeps its place.
 * `type` is a ConfXmlDataType; `value` must not point into the attribute itself. */
uint32_t ConfXmlAddAttr(ConfXmlNode *node, const char *name, int32_t type, const void *value);

/* Deletes an attribute; CONF_XML_OK also when it is absent, CONF_XML_NOT_HANDLED for a null
 * argument. */
uint32_t ConfXmlDeleteAttr(ConfXmlNode *node, const char *name);

/* Replaces the text that the element begins with, or puts one before everything else in it.
 * `type` is a ConfXmlDataType; `value` must not point into that text. A negative type gives
 * CONF_XML_NOT_HANDLED. */
uint32_t ConfXmlSetNodeText(ConfXmlNode *node, int32_t type, const void *value);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif
