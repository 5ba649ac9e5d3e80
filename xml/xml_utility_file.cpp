/* Structures saved to files and loaded from them. */
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "include/xml_utility.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_os_file.h"
#include "xml/child_tables.h"
#include "xml/owned_document.h"
#include "xml/whole_file.h"
#include "xml/xml_document.h"
#include "xml/xml_utility_walk.h"

namespace {

constexpr char kUnit[] = "xml_utility";

constexpr char kRootName[] = "Root";
constexpr char kSync[] = "/system/bin/sync";

/* The address of the field that an element of an index table describes; null when it names none. A
 * negative number or one too large for a pointer is none. */
void *addressIn(ConfXmlNode *indexElement) {
    const char *text = ConfXmlGetNodeText(indexElement);
    if (text == nullptr || strchr(text, '-') != nullptr) {
        return nullptr;
    }
    errno = 0;
    const unsigned long address = strtoul(text, nullptr, 0);
    return errno == ERANGE ? nullptr : reinterpret_cast<void *>(address);
}

/* The library that prints the text would read on behind the field. */
bool hasNoEnd(const ConfXmlNodeInfo &info, const char *field) {
    return info.type == CONF_XML_ATTR_CHAR && info.charLen != 0 &&
           strnlen(field, info.charLen) == info.charLen;
}

void goBelow(TransXMLContext *context, ConfXmlNode *counterpart) {
    context->node = counterpart;
    context->word = 0;
}

/* What a clone takes over of an element of an index table; found in one walk. */
struct IndexAttributes {
    const char *name = nullptr;
    const char *type = nullptr;
    bool hasNumOfInst = false;
    bool hasInstId = false;
};

IndexAttributes attributesOf(ConfXmlNode *indexElement) {
    IndexAttributes found;
    for (const tinyxml2::XMLAttribute *at = elementOf(indexElement)->FirstAttribute();
         at != nullptr; at = at->Next()) {
        const char *key = at->Name();
        if (strcmp(key, "name") == 0) {
            found.name = at->Value();
        } else if (strcmp(key, "type") == 0) {
            found.type = at->Value();
        } else if (strcmp(key, "NumOfInst") == 0) {
            found.hasNumOfInst = true;
        } else if (strcmp(key, "InstID") == 0) {
            found.hasInstId = true;
        }
    }
    return found;
}

bool cloneNumbers(ConfXmlNode *clone, const ConfXmlNodeInfo &info, const IndexAttributes &has) {
    return (!has.hasNumOfInst ||
            ConfXmlAddAttr(clone, "NumOfInst", CONF_XML_UINT16, &info.numOfInst) == 0) &&
           (!has.hasInstId || ConfXmlAddAttr(clone, "InstID", CONF_XML_UINT16, &info.instId) == 0);
}

bool cloneLength(ConfXmlNode *clone, const ConfXmlNodeInfo &info, const IndexAttributes &has) {
    return has.type == nullptr || strcmp(has.type, "CHAR") != 0 ||
           ConfXmlAddAttr(clone, "CharLen", CONF_XML_UINT16, &info.charLen) == 0;
}

ConfXmlNode *ConfXmlCloneSelfAsLastChildNode(ConfXmlNode *parent, const ConfXmlNodeInfo *info) {
    ConfXmlNode *clone = ConfXmlCreateLastChildNode(parent, info->nodeName);
    if (clone == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlCreateLastChildNode fail!");
        return nullptr;
    }
    const IndexAttributes has = attributesOf(info->node);
    const bool named =
        has.name == nullptr || ConfXmlAddAttr(clone, "name", CONF_XML_TEXT, has.name) == 0;
    const bool typed = named && (has.type == nullptr ||
                                 ConfXmlAddAttr(clone, "type", CONF_XML_TEXT, has.type) == 0);
    if (!named) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlAddAttr name fail!");
    } else if (!typed) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlAddAttr type fail");
    }
    if (!typed || !cloneLength(clone, *info, has) || !cloneNumbers(clone, *info, has)) {
        elementOf(parent)->DeleteChild(elementOf(clone));
        return nullptr;
    }
    return clone;
}

/* The counterpart of an element in the file; null when there is none. */
ConfXmlNode *counterpartOf(const ConfXmlNodeInfo &info, ConfXmlNode *fileNode,
                           ChildTables *tables) {
    ConfXmlNode *found = nullptr;
    if (ConfXmlIsRootNode(info.node)) {
        return ConfXmlMatchNode(info.node, fileNode, ConfXmlCompareNode) == 0 ? fileNode : nullptr;
    }
    if (tables != nullptr && fileNode != nullptr) {
        return tables->find(info, fileNode);
    }
    (void)ConfXmlFindMatchNode(info.node, fileNode, ConfXmlCompareNode, &found);
    return found;
}

/* Without tables the children of the file's elements are walked. */
uint32_t ConfXmlLoadCallBack(ConfXmlNodeInfo *info, TransXMLContext *context, ChildTables *tables) {
    if (info == nullptr || context == nullptr) {
        return 1;
    }
    ConfXmlNode *counterpart = counterpartOf(*info, context->node, tables);
    if (counterpart == nullptr) {
        return 1;
    }
    if (ConfXmlIsValueNode(info) != 0) {
        ConfXmlNodeInfo fileInfo = {};
        if (ConfXmlGetXmlNodeAttrAndValue(counterpart, &fileInfo) != 0) {
            CONF_LOG(CONF_LOG_ERROR, "ConfXmlGetXmlNodeAttrAndValue fail");
            return 1;
        }
        ConfXmlValue value = {};
        if (ConfXmlGetValue(counterpart, fileInfo.type, &value) != 0) {
            CONF_LOG(CONF_LOG_ERROR, "ConfXmlGetValue fail");
            return 1;
        }
        if (ConfXmlCopyXmlNodeValueToIndex(&value, info, addressIn(info->node)) != 0) {
            CONF_LOG(CONF_LOG_ERROR, "ConfXmlCopyXmlNodeValueToIndex fail");
            return 1;
        }
    }
    goBelow(context, counterpart);
    return 0;
}

/* Where the command that flushes all is absent, the two files are flushed. */
int flushToDisk(const char *path, const char *backupPath) {
    if (access(kSync, X_OK) == 0) {
        return system(kSync);
    }
    return flushFiles(path, backupPath) ? 0 : -1;
}

}  // namespace

uint32_t ConfXmlWriteCallBack(ConfXmlNodeInfo *info, TransXMLContext *context) {
    if (info == nullptr || context == nullptr) {
        return 1;
    }
    ConfXmlNode *counterpart = context->node;
    if (!ConfXmlIsRootNode(info->node)) {
        counterpart =
            counterpart == nullptr ? nullptr : ConfXmlCloneSelfAsLastChildNode(counterpart, info);
        if (counterpart == nullptr) {
            return 1;
        }
    }
    if (ConfXmlIsValueNode(info) != 0) {
        const void *address = addressIn(info->node);
        ConfXmlValue value = {};
        if (ConfXmlCopyIndexValueToXmlNode(info, address, &value) != 0 ||
            hasNoEnd(*info, static_cast<const char *>(address)) ||
            ConfXmlSetXmlNodeValue(counterpart, &value) != 0) {
            return 1;
        }
    }
    goBelow(context, counterpart);
    return 0;
}

uint32_t ConfXmlLoadCallBack(ConfXmlNodeInfo *info, TransXMLContext *context) {
    return ConfXmlLoadCallBack(info, context, nullptr);
}

uint32_t ConfXmlSave(ConfXmlCreateIndexTableFn createIndexTable, const char *path,
                     const char *backupPath) {
    TransXMLContext context = {};
    const int error = memset_s(&context, sizeof(context), 0, sizeof(context));
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
    }
    OwnedDocument output(ConfXmlAddSingleStructNode(nullptr, kRootName));
    if (output == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Create XML tree fail");
        return 1;
    }
    context.node = output.get();
    OwnedDocument table(createIndexTable == nullptr ? nullptr : createIndexTable(1));
    if (table == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Create call index table fail");
        return 1;
    }
    if (ConfXmlTraverseXmlTree(table.get(), &context, ConfXmlWriteCallBack) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "Traverse XML tree fail");
        return 1;
    }
    if (path == nullptr || !saveWhole(output.get(), path)) {
        CONF_LOG(CONF_LOG_ERROR, "TransForm File fail");
        return 1;
    }
    table.reset();
    output.reset();
    ConfXmlBakFile(path, backupPath);
    return 0;
}

uint32_t ConfXmlLoad(ConfXmlCreateIndexTableFn createIndexTable, const char *path,
                     const char *backupPath) {
    TransXMLContext context = {};
    const int error = memset_s(&context, sizeof(context), 0, sizeof(context));
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
    }
    OwnedDocument file(ConfXmlParseFileGetRoot(path));
    if (file == nullptr) {
        file.reset(ConfXmlParseFileGetRoot(backupPath));
    }
    if (file == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlParseFileGetRoot fail");
        return 1;
    }
    context.node = file.get();
    const OwnedDocument table(createIndexTable == nullptr ? nullptr : createIndexTable(0));
    if (table == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Create call index table fail");
        return 1;
    }
    const auto visit = [](void *tables, ConfXmlNodeInfo *info, TransXMLContext *own) {
        return ConfXmlLoadCallBack(info, own, static_cast<ChildTables *>(tables));
    };
    ChildTables tables;
    if (ConfXmlTraverseXmlTree(table.get(), &context, ConfXmlVisit{visit}, &tables) != 0) {
        CONF_LOG(CONF_LOG_ERROR, "Traverse XML tree fail");
        return 1;
    }
    return 0;
}

void ConfXmlBakFile(const char *path, const char *backupPath) {
    if (path == nullptr || backupPath == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "Null ptr.");
        return;
    }
    const int32_t copied = OsCopyFile(path, backupPath);
    if (copied != 0) {
        CONF_LOG(CONF_LOG_ERROR, "OsCopyFile fail, ret:%d", copied);
        return;
    }
    const int flushed = flushToDisk(path, backupPath);
    if (flushed != 0) {
        CONF_LOG(CONF_LOG_ERROR, "/system/bin/sync fail, ret:%d", flushed);
    }
}
