/* The walk through an index table. It keeps its place by itself: a tree may be deeper than the
 * thread's stack. */
#include "xml/xml_utility_walk.h"

#include "common/log.h"
#include "common/platform_block.h"
#include "platform/bounds_checked.h"

namespace {

constexpr char kUnit[] = "xml_utility";

/* Deeper than what a file can bring. */
constexpr size_t kUsualLevels = 100;

struct Level {
    ConfXmlNode *parent;
    TransXMLContext context; /* for the parent's children */
};

class Levels {
  public:
    explicit Levels(const TransXMLContext &first) : first_(first) {}
    Levels(const Levels &) = delete;
    Levels &operator=(const Levels &) = delete;

    const TransXMLContext &context() const {
        return depth_ == 0 ? first_ : levels_[depth_ - 1].context;
    }

    /* Goes below `parent`; false without memory. */
    bool enter(ConfXmlNode *parent, const TransXMLContext &context) {
        if (depth_ == room_ && !grow()) {
            return false;
        }
        levels_[depth_++] = {parent, context};
        return true;
    }

    /* The element after `at` and all below it; null when that was the last. */
    ConfXmlNode *next(ConfXmlNode *at) {
        while (depth_ > 0) {
            ConfXmlNode *sibling = ConfXmlGetNodeNextSibling(at);
            if (sibling != nullptr) {
                return sibling;
            }
            at = levels_[--depth_].parent;
        }
        return nullptr;
    }

  private:
    bool grow() {
        const size_t size = room_ * sizeof(Level);
        PlatformBlock<Level> larger = takeBlock<Level>(2 * size, kUnit);
        if (larger == nullptr || memcpy_s(larger.get(), 2 * size, levels_, size) != 0) {
            return false;
        }
        room_ *= 2;
        block_ = std::move(larger);
        levels_ = block_.get();
        return true;
    }

    TransXMLContext first_;
    Level usual_[kUsualLevels];
    PlatformBlock<Level> block_;
    Level *levels_ = usual_;
    size_t room_ = kUsualLevels;
    size_t depth_ = 0;
};

/* One element's turn; what is to be recorded when it fails, else null. */
const char *visitElement(ConfXmlNode *element, ConfXmlNodeInfo *info, TransXMLContext *context,
                         IndexVisit visit, void *state) {
    if (ConfXmlGetXmlNodeAttrAndValue(element, info) != 0) {
        return "ConfXmlGetXmlNodeAttrAndValue fail";
    }
    return visit(state, info, context) != 0 ? "pCallback fail" : nullptr;
}

void report(const char *text, int line = __builtin_LINE()) {
    ConfLogPrintf(CONF_LOG_ERROR, "ConfXmlTraverseXmlTree", kUnit, line, "%s", text);
}

}  // namespace

WalkEnd walkIndexTable(ConfXmlNode *element, const TransXMLContext *context, IndexVisit visit,
                       void *state) {
    if (element == nullptr || context == nullptr || visit == nullptr) {
        report("hAddrTable or TransXMLContext or pCallback is null");
        return WalkEnd::kFailed;
    }
    WalkEnd end = WalkEnd::kDone;
    Levels levels(*context);
    for (ConfXmlNode *at = element; at != nullptr;) {
        ConfXmlNodeInfo info = {};
        TransXMLContext own = levels.context();
        const char *failure = visitElement(at, &info, &own, visit, state);
        if (failure != nullptr) {
            report(failure);
            if (at == element) {
                return WalkEnd::kFailed;
            }
        }
        const bool hasBelow = failure == nullptr && ConfXmlIsValueNode(&info) == 0;
        ConfXmlNode *child = hasBelow ? ConfXmlGetNodeFirstChild(at) : nullptr;
        if (child != nullptr && !levels.enter(at, own)) {
            report("no memory for a deeper level: what is below is left out");
            end = WalkEnd::kIncomplete;
            child = nullptr;
        }
        at = child != nullptr ? child : levels.next(at);
    }
    return end;
}

uint32_t ConfXmlTraverseXmlTree(ConfXmlNode *element, TransXMLContext *context,
                                ConfXmlTraverseFn callback) {
    const auto call = [](void *state, ConfXmlNodeInfo *info, TransXMLContext *own) {
        return (*static_cast<ConfXmlTraverseFn *>(state))(info, own);
    };
    const IndexVisit visit = callback == nullptr ? nullptr : IndexVisit{call};
    return walkIndexTable(element, context, visit, &callback) == WalkEnd::kFailed ? 1 : 0;
}
