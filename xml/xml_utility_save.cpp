/* How a document becomes a file.
 *
 * A platform that can replace a file as a whole does so; at any moment the name stands for the old
 * document or for the new one. Where it can only write in place, the backup is known to be whole
 * first. On a platform that has no such operation the XML library writes the file. */
#include "xml/xml_utility_save.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/log.h"
#include "platform/tamo_os_file.h"
#include "xml/xmlAdapter_document.h"
#include "xml/xmlAdapter_memory.h"

extern "C" {
__attribute__((weak)) decltype(OsReplaceFile) OsReplaceFile;
__attribute__((weak)) decltype(OsFlushFile) OsFlushFile;
}

namespace {

constexpr char kUnit[] = "xml_utility";

constexpr char kSync[] = "/system/bin/sync";

/* Elements below each other that the XML library reads; it counts the document as well, and refuses
 * the last level. */
constexpr int kMostLevels = TINYXML2_MAX_ELEMENT_DEPTH - 2;

/* Goes no deeper than what can be read: the XML library walks with the thread's stack. */
class DepthCheck final : public tinyxml2::XMLVisitor {
  public:
    bool VisitEnter(const tinyxml2::XMLElement &, const tinyxml2::XMLAttribute *) override {
        depth_++;
        tooDeep_ = tooDeep_ || depth_ > kMostLevels;
        return !tooDeep_;
    }
    bool VisitExit(const tinyxml2::XMLElement &) override {
        depth_--;
        return !tooDeep_;
    }
    bool isTooDeep() const { return tooDeep_; }

  private:
    int depth_ = 0;
    bool tooDeep_ = false;
};

/* Would a load take this file? */
bool loads(const char *path) {
    struct StreamClose {
        void operator()(FILE *stream) const { (void)fclose(stream); }
    };
    const std::unique_ptr<FILE, StreamClose> stream(OsFopen(path, "rb"));
    return stream != nullptr && unlessNoMemory(false, [&] {
               tinyxml2::XMLDocument document;
               if (document.LoadFile(stream.get()) != tinyxml2::XML_SUCCESS) {
                   return false;
               }
               const tinyxml2::XMLElement *root = document.FirstChildElement();
               return root != nullptr && root->Attribute("name", "Root") != nullptr;
           });
}

/* Nothing is lost when the file is spoilt: there is a backup, or nothing that would be read. A
 * backup that is another name of the file becomes a file of its own. */
bool isBackedUp(const char *path, const char *backupPath) {
    if (backupPath == nullptr) {
        return true; /* the caller does without */
    }
    if (loads(backupPath)) {
        return OsCopyFile(backupPath, backupPath) == 0;
    }
    return !loads(path) || OsCopyFile(path, backupPath) == 0;
}

bool replace(const tinyxml2::XMLPrinter &printer, const char *path, const char *backupPath) {
    const auto size = static_cast<size_t>(printer.CStrSize()) - 1;
    int32_t result = OsReplaceFile(path, printer.CStr(), size, 0);
    if (result == OS_REPLACE_ONLY_IN_PLACE) {
        if (!isBackedUp(path, backupPath)) {
            CONF_LOG(CONF_LOG_ERROR, "the file can only be written in place, and has no backup");
            return false;
        }
        result = OsReplaceFile(path, printer.CStr(), size, 1);
    }
    return result == OS_REPLACE_DONE;
}

}  // namespace

bool saveDocument(ConfXmlNode *root, const char *path, const char *backupPath) {
    const tinyxml2::XMLDocument *document = elementOf(root)->GetDocument();
    DepthCheck depth;
    (void)document->Accept(&depth);
    if (depth.isTooDeep()) {
        CONF_LOG(CONF_LOG_ERROR, "more than %d levels could not be read back", kMostLevels);
        return false;
    }
    if (OsReplaceFile == nullptr) {
        return ConfXmlTransformFile(root, path) == CONF_XML_OK;
    }
    return unlessNoMemory(false, [&] {
        tinyxml2::XMLPrinter printer;
        (void)document->Accept(&printer);
        return replace(printer, path, backupPath);
    });
}

int flushToDisk(const char *path, const char *backupPath, bool saved) {
    if (access(kSync, X_OK) == 0) {
        return system(kSync);
    }
    if (OsFlushFile == nullptr) {
        sync();
        return 0;
    }
    /* A file that the platform has replaced is on the disk. */
    const int32_t flushed = saved && OsReplaceFile != nullptr ? 0 : OsFlushFile(path);
    const int32_t backupFlushed = OsFlushFile(backupPath);
    return flushed != 0 ? flushed : backupFlushed;
}
