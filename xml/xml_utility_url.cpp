/* Values read by path, and lists of character codes. */
#include <cstring>

#include "common/log.h"
#include "common/platform_block.h"
#include "include/xml_utility.h"
#include "platform/bounds_checked.h"
#include "platform/tamo_common.h"

namespace {

constexpr char kUnit[] = "xml_utility";

constexpr uint32_t kCodeListSize = 1024;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/* UTF-8 of one code above 127. */
PlatformBlock<char> utf8Of(uint32_t code) {
    const uint16_t wide[] = {static_cast<uint16_t>(code), 0};
    return PlatformBlock<char>(MOX_UnicodeToUtf8(wide), BlockRelease{kUnit, __LINE__});
}

uint32_t parseCodeList(ConfXmlNode *root, const ConfXmlNoteParam *param) {
    char codes[kCodeListSize] = {};
    const uint32_t result =
        ConfXmlParaseStringParams(param->path, root, codes, sizeof(codes), param->print);
    if (result != 0) {
        return result;
    }
    if (codes[0] != '\0' && param->dstSize != 0) {
        (void)ConfXmlGetStringFromAscii(codes, static_cast<char *>(param->dst), param->dstSize - 1);
    }
    return 0;
}

}  // namespace

const char *ConfXmlAdptGetNodeValueByUrl(ConfXmlNode *root, const char *url) {
    if (root == nullptr || url == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "rootNode or url is nullptr!");
        return nullptr;
    }
    ConfXmlNode *node = ConfXmlGetNodeByPath(root, url);
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_DEBUG, "ConfXmlGetNodeByPath fail! %s", url);
        return nullptr;
    }
    const char *text = ConfXmlGetNodeText(node);
    if (text == nullptr) {
        CONF_LOG(CONF_LOG_DEBUG, "ConfXmlGetNodeText fail!");
    }
    return text;
}

const char *ConfXmlAdptGetNodeAttrByUrl(ConfXmlNode *root, const char *url, const char *attrName) {
    if (root == nullptr || url == nullptr || attrName == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "rootNode or url or attrName is nullptr!");
        return nullptr;
    }
    ConfXmlNode *node = ConfXmlGetNodeByPath(root, url);
    if (node == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlGetNodeByPath fail!");
        return nullptr;
    }
    const char *value = ConfXmlGetNodeStrAttr(node, attrName);
    if (value == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "ConfXmlGetNodeStrAttr fail!");
    }
    return value;
}

uint32_t ConfXmlParaseStringParams(const char *url, ConfXmlNode *root, char *dst, uint32_t dstSize,
                                   uint8_t print) {
    if (url == nullptr || root == nullptr || dst == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "param is null!");
        return 1;
    }
    const char *text = ConfXmlAdptGetNodeValueByUrl(root, url);
    if (text == nullptr) {
        CONF_LOG(CONF_LOG_DEBUG, "Xml Parase %s fail", url);
        return 1;
    }
    const size_t length = strlen(text);
    if (length >= dstSize) {
        CONF_LOG(CONF_LOG_ERROR, "strcpy_s failed!  strSize %u valueSize %zu url %s", dstSize,
                 length, url);
        return 1;
    }
    /* The part of the destination that is needed: a size above the copy's limit does no harm. */
    const int error = strcpy_s(dst, length + 1, text);
    if (error != 0) {
        CONF_LOG(CONF_LOG_ERROR, "%s failed, %s = %d.", "strcpy_s", "err", error);
    }
    if (print != 0) {
        CONF_LOG(CONF_LOG_DEBUG, "%s:%s", url, dst);
    }
    return 0;
}

uint32_t ConfXmlParaseIntParams(const char *url, ConfXmlNode *root, int32_t *dst, uint8_t print) {
    if (url == nullptr || root == nullptr || dst == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "param is null!");
        return 1;
    }
    const char *text = ConfXmlAdptGetNodeValueByUrl(root, url);
    if (text == nullptr) {
        CONF_LOG(CONF_LOG_DEBUG, "Xml Parase %s fail", url);
        return 1;
    }
    (void)KIRU_StrToInt32(text, dst);
    if (print != 0) {
        CONF_LOG(CONF_LOG_DEBUG, "%s:%u", url, static_cast<uint32_t>(*dst));
    }
    return 0;
}

uint32_t ConfXmlParseSingleNote(ConfXmlNode *root, const ConfXmlNoteParam *param) {
    if (param == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "param is null!");
        return 1;
    }
    if (memchr(param->path, '\0', sizeof(param->path)) == nullptr) {
        CONF_LOG(CONF_LOG_ERROR, "the path has no end!");
        return 1;
    }
    if (param->isString == 0) {
        return ConfXmlParaseIntParams(param->path, root, static_cast<int32_t *>(param->dst),
                                      param->print);
    }
    if (param->asciiCodes == 0) {
        return ConfXmlParaseStringParams(param->path, root, static_cast<char *>(param->dst),
                                         param->dstSize, param->print);
    }
    return parseCodeList(root, param);
}

uint32_t ConfXmlGetStringFromAscii(const char *src, char *dst, uint32_t maxBytes) {
    if (src == nullptr || dst == nullptr) {
        return 1;
    }
    const auto length = static_cast<uint32_t>(strnlen(src, UINT32_MAX));
    uint32_t written = 0;
    for (uint32_t pos = 0; pos < length && written < maxBytes;) {
        uint32_t code = 0;
        if (ConfXmlStrGetNextASCII(src, length, &pos, &code) != 0) {
            CONF_LOG(CONF_LOG_ERROR, "ConfXmlStrGetNextASCII failed!");
            return 1;
        }
        if (code <= 127) {
            dst[written++] = static_cast<char>(code);
            continue;
        }
        const PlatformBlock<char> utf8 = utf8Of(code);
        if (utf8 == nullptr) {
            CONF_LOG(CONF_LOG_ERROR, "pcUTF8Temp is null!");
            return 1;
        }
        const size_t bytes = strlen(utf8.get());
        if (bytes > maxBytes - written) {
            return 0;
        }
        const int error = bytes == 0 ? 0 : memcpy_s(dst + written, bytes, utf8.get(), bytes);
        if (error != 0) {
            CONF_LOG(CONF_LOG_ERROR, "conf secure func failed, err = %d!\n", error);
        }
        written += static_cast<uint32_t>(bytes);
    }
    return 0;
}

uint32_t ConfXmlStrGetNextASCII(const char *text, uint32_t length, uint32_t *pos, uint32_t *value) {
    if (text == nullptr || pos == nullptr || value == nullptr) {
        return 1;
    }
    uint32_t at = *pos;
    uint32_t code = 0;
    for (; at < length && isDigit(text[at]); at++) {
        code = code * 10 + static_cast<uint32_t>(text[at] - '0');
    }
    if (at < length && text[at] != '\0' && text[at] != ',') {
        return 1;
    }
    *pos = at < length && text[at] == ',' ? at + 1 : at;
    *value = code;
    return 0;
}

uint32_t ConfXmlIsNumericStr(const char *text) {
    if (text == nullptr || text[0] == '\0') {
        return 0;
    }
    while (isDigit(*text)) {
        text++;
    }
    return *text == '\0' ? 1 : 0;
}
