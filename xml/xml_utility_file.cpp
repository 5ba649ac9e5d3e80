/* Structures saved to files and loaded from them. */
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/log.h"
#include "include/xml_utility.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_os_file.h"
#include "xml/xmlAdapter_document.h"
#include "xml/xmlAdapter_owned.h"
#include "xml/xml_utility_match.h"
#include "xml/xml_utility_save.h"
#include "xml/xml_utility_walk.h"

namespace {

constexpr char kUnit[] = "xml_utility";

constexpr char kRootName[] = "Root";

/* What the XML library drops where nothing else stands between two tags. */
constexpr char kBlanks[] = " \t\n\v\f\r";

/* The address of the field that an element of an index table describes; null when it names none. A
 * negative number or one too large for a pointer is none. */
void *addressIn(ConfXmlNode *indexElement) {
    const char *text = ConfXmlGetNodeText(indexElement);
    if (text == nullptr || text[strspn(text, kBlanks)] == '-') {
        return nullptr;
    }
    errno = 0;
    const unsigned long address = strtoul(text, nullptr, 0);
    return errno == ERANGE ? nullptr : reinterpret_cast<void *>(address);
}

/* The library that prints the text would read on behind the field. */
bool isUnterminated(const ConfXmlNodeInfo &info, const char *field) {
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
    for (const tinyxml2::XMLAttribute *at =
             indexElement == nullptr ? nullptr : elementOf(indexElement)->FirstAttribute();
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

uint32_t cloneNumbers(ConfXmlNode *clone, const ConfXmlNodeInfo &info, const IndexAttributes &has) {
    uint32_t result = 0;
    if (has.type != nullptr && strcmp(has.type, "CHAR") == 0) {
        result = ConfXmlAddAttr(clone, "CharLen", CONF_XML_UINT16, &info.charLen);
    }
    if (result == 0 && has.hasNumOfInst) {
        result = ConfXmlAddAttr(clone, "NumOfInst", CONF_XML_UINT16, &info.numOfInst);
    }
    if (result == 0 && has.hasInstId) {
        result = ConfXmlAddAttr(clone, "InstID", CONF_XML_UINT16, &info.instId);
    }
    return result;
}

/* Null when memory runs out, which is all that can fail here. */
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
    if (!typed || cloneNumbers(clone, *info, has) != 0) {
        elementOf(parent)->DeleteChild(elementOf(clone));
        return nullptr;
    }
    return clone;
}

/* A text of white space comes back only from a section that is not parsed. */
void keepBlanks(ConfXmlNode *node, const ConfXmlValue &value) {
    if (value.type != CONF_XML_ATTR_CHAR || value.value.text[0] == '\0' ||
        value.value.text[strspn(value.value.text, kBlanks)] != '\0') {
        return;
    }
    elementOf(node)->FirstChild()->ToText()->SetCData(true);
}

/* Why a step of a save fails: without memory, the document lacks something that it should have. */
enum class WriteEnd { kDone, kFailed, kNoMemory };

/* Reads the field that `info` describes and writes it into its counterpart. */
WriteEnd writeField(const ConfXmlNodeInfo &info, ConfXmlNode *counterpart) {
    const void *address = addressIn(info.node);
    ConfXmlValue value = {};
    if (ConfXmlCopyIndexValueToXmlNode(&info, address, &value) != 0) {
        return WriteEnd::kFailed;
    }
    if (isUnterminated(info, static_cast<const char *>(address))) {
        ConfLogPrintf(CONF_LOG_ERROR, "ConfXmlWriteCallBack", kUnit, __LINE__,
                      "the text of %s has no end within its %u bytes", info.name,
                      unsigned{info.charLen});
        return WriteEnd::kFailed;
    }
    const uint32_t result = ConfXmlSetXmlNodeValue(counterpart, &value);
    if (result != 0) {
        return result == CONF_XML_NO_MEMORY ? WriteEnd::kNoMemory : WriteEnd::kFailed;
    }
    keepBlanks(counterpart, value);
    return WriteEnd::kDone;
}

/* The step of a save. */
WriteEnd write(const ConfXmlNodeInfo *info, TransXMLContext *context) {
    if (info == nullptr || context == nullptr) {
        return WriteEnd::kFailed;
    }
    ConfXmlNode *counterpart = context->node;
    if (!ConfXmlIsRootNode(info->node)) {
        if (counterpart == nullptr) {
            return WriteEnd::kFailed;
        }
        counterpart = ConfXmlCloneSelfAsLastChildNode(counterpart, info);
        if (counterpart == nullptr) {
            return WriteEnd::kNoMemory;
        }
    }
    const WriteEnd end =
        ConfXmlIsValueNode(info) != 0 ? writeField(*info, counterpart) : WriteEnd::kDone;
    if (end == WriteEnd::kDone) {
        goBelow(context, counterpart);
    }
    return end;
}

/* Fills the document of a save; false when its root fails. */
bool writeAll(ConfXmlNode *table, const TransXMLContext &context, bool *complete) {
    const auto visit = [](void *state, ConfXmlNodeInfo *info, TransXMLContext *own) {
        const WriteEnd end = write(info, own);
        *static_cast<bool *>(state) &= end != WriteEnd::kNoMemory;
        return end == WriteEnd::kDone ? uint32_t{0} : uint32_t{1};
    };
    const WalkEnd end = walkIndexTable(table, &context, visit, complete);
    *complete = *complete && end == WalkEnd::kDone;
    return end != WalkEnd::kFailed;
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

/* A file may call a number what is a text here, whose digits would be taken for a pointer. */
bool isOfOneKind(const ConfXmlValue &value, const ConfXmlNodeInfo &info) {
    return (value.type == CONF_XML_ATTR_CHAR) == (info.type == CONF_XML_ATTR_CHAR);
}

/* Null, or what failed. */
const char *loadField(const ConfXmlNodeInfo &info, ConfXmlNode *counterpart) {
    ConfXmlNodeInfo fileInfo = {};
    if (ConfXmlGetXmlNodeAttrAndValue(counterpart, &fileInfo) != 0) {
        return "ConfXmlGetXmlNodeAttrAndValue fail";
    }
    ConfXmlValue value = {};
    if (ConfXmlGetValue(counterpart, fileInfo.type, &value) != 0) {
        return "ConfXmlGetValue fail";
    }
    return isOfOneKind(value, info) &&
                   ConfXmlCopyXmlNodeValueToIndex(&value, &info, addressIn(info.node)) == 0
               ? nullptr
               : "ConfXmlCopyXmlNodeValueToIndex fail";
}

/* The step of a load. Without tables the children of the file's elements are walked. */
uint32_t load(const ConfXmlNodeInfo *info, TransXMLContext *context, ChildTables *tables) {
    if (info == nullptr || context == nullptr) {
        return 1;
    }
    ConfXmlNode *counterpart = counterpartOf(*info, context->node, tables);
    if (counterpart == nullptr) {
        return 1;
    }
    const char *failure = ConfXmlIsValueNode(info) != 0 ? loadField(*info, counterpart) : nullptr;
    if (failure != nullptr) {
        ConfLogPrintf(CONF_LOG_ERROR, "ConfXmlLoadCallBack", kUnit, __LINE__, "%s", failure);
        return 1;
    }
    goBelow(context, counterpart);
    return 0;
}

/* ConfXmlBakFile, also for a file that has just been saved. */
void backUp(const char *path, const char *backupPath, bool saved) {
    const auto report = [](int line, const char *format, int result = 0) {
        ConfLogPrintf(CONF_LOG_ERROR, "ConfXmlBakFile", kUnit, line, format, result);
    };
    if (path == nullptr || backupPath == nullptr) {
        report(__LINE__, "Null ptr.");
        return;
    }
    const int32_t copied = OsCopyFile(path, backupPath);
    if (copied != 0) {
        report(__LINE__, "OsCopyFile fail, ret:%d", copied);
        return;
    }
    const int flushed = flushToDisk(path, backupPath, saved);
    if (flushed != 0) {
        report(__LINE__, "/system/bin/sync fail, ret:%d", flushed);
    }
}

}  // namespace

uint32_t ConfXmlWriteCallBack(ConfXmlNodeInfo *info, TransXMLContext *context) {
    return write(info, context) == WriteEnd::kDone ? 0 : 1;
}

uint32_t ConfXmlLoadCallBack(ConfXmlNodeInfo *info, TransXMLContext *context) {
    return load(info, context, nullptr);
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
    bool complete = true;
    if (!writeAll(table.get(), context, &complete)) {
        CONF_LOG(CONF_LOG_ERROR, "Traverse XML tree fail");
        return 1;
    }
    if (path == nullptr || !saveDocument(output.get(), path, backupPath)) {
        CONF_LOG(CONF_LOG_ERROR, "TransForm File fail");
        return 1;
    }
    table.reset();
    output.reset();
    if (!complete) {
        CONF_LOG(CONF_LOG_ERROR, "no memory for the whole document: the backup stays as it was");
        return 0;
    }
    backUp(path, backupPath, true);
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
        return load(info, own, static_cast<ChildTables *>(tables));
    };
    ChildTables tables;
    if (walkIndexTable(table.get(), &context, visit, &tables) == WalkEnd::kFailed) {
        CONF_LOG(CONF_LOG_ERROR, "Traverse XML tree fail");
        return 1;
    }
    return 0;
}

void ConfXmlBakFile(const char *path, const char *backupPath) {
    backUp(path, backupPath, false);
}
