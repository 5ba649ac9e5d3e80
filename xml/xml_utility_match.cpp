#include "xml/xml_utility_match.h"

#include <algorithm>
#include <cstring>

#include "xml/xmlAdapter_document.h"

namespace {

constexpr char kUnit[] = "xml_utility";

constexpr size_t kChunkSize = size_t{64} << 10;
constexpr size_t kLongestName = sizeof(ConfXmlNodeInfo::name) - 1;

struct Child {
    const char *name;
    ConfXmlNode *node;
    uint32_t position; /* among its siblings */
    uint16_t instId;
};

/* Instance numbers first: they differ in arrays, where the names do not. */
int compareKeys(const Child &child, const char *name, uint16_t instId) {
    return child.instId != instId ? child.instId - instId : strcmp(child.name, name);
}

bool isBefore(const Child &a, const Child &b) {
    const int keys = compareKeys(a, b.name, b.instId);
    return keys != 0 ? keys < 0 : a.position < b.position;
}

bool fits(const char *text) {
    return strnlen(text, kLongestName + 1) <= kLongestName;
}

/* Would ConfXmlGetXmlNodeAttrAndValue read it? It leaves records that only a search may cause. */
bool describe(ConfXmlNode *node, Child *child) {
    const char *name = ConfXmlGetNodeStrAttr(node, "name");
    child->name = name == nullptr ? "" : name;
    child->node = node;
    child->instId = static_cast<uint16_t>(ConfXmlGetNodeUintAttr(node, "InstID"));
    return fits(ConfXmlGetNodeName(node)) && fits(child->name);
}

}  // namespace

struct ChildTables::Chunk {
    Chunk *next;
};

/* The children follow, sorted: all, or those before the first that cannot be read. */
struct ChildTables::Table {
    ConfXmlNode *unreadable;
    size_t count;

    Child *children() { return reinterpret_cast<Child *>(this + 1); }
};

ChildTables::~ChildTables() {
    while (chunks_ != nullptr) {
        Chunk *chunk = chunks_;
        chunks_ = chunk->next;
        OSMemTypeFreeMon(chunk, 0, 0, __LINE__, kUnit);
    }
}

/* Tables are many and small: they share blocks, which go together at the end. */
void *ChildTables::take(size_t size) {
    if (size > room_) {
        const size_t room = std::max(size, kChunkSize);
        PlatformBlock<Chunk> chunk = takeBlock<Chunk>(sizeof(Chunk) + room, kUnit);
        if (chunk == nullptr) {
            return nullptr;
        }
        chunk->next = chunks_;
        chunks_ = chunk.release();
        end_ = reinterpret_cast<char *>(chunks_ + 1) + room;
        room_ = room;
    }
    void *taken = end_ - room_;
    room_ -= size;
    return taken;
}

ChildTables::Table *ChildTables::tableOf(ConfXmlNode *parent, ConfXmlNode *firstChild) {
    auto *table = static_cast<Table *>(elementOf(parent)->GetUserData());
    if (table != nullptr) {
        return table;
    }
    table =
        static_cast<Table *>(take(sizeof(Table) + ConfXmlGetNodeChildNum(parent) * sizeof(Child)));
    if (table == nullptr) {
        return nullptr;
    }
    table->unreadable = nullptr;
    table->count = 0;
    Child *children = table->children();
    for (ConfXmlNode *node = firstChild; node != nullptr; node = ConfXmlGetNodeNextSibling(node)) {
        if (!describe(node, &children[table->count])) {
            table->unreadable = node;
            break;
        }
        children[table->count].position = static_cast<uint32_t>(table->count);
        table->count++;
    }
    /* Most files are in the order of their table. */
    if (!std::is_sorted(children, children + table->count, isBefore)) {
        std::sort(children, children + table->count, isBefore);
    }
    elementOf(parent)->SetUserData(table);
    return table;
}

ConfXmlNode *ChildTables::find(const ConfXmlNodeInfo &wanted, ConfXmlNode *parent) {
    ConfXmlNode *first = ConfXmlGetNodeFirstChild(parent);
    if (first == nullptr) {
        return nullptr;
    }
    Table *table = tableOf(parent, first);
    if (table == nullptr) {
        ConfXmlNode *found = nullptr;
        (void)ConfXmlFindMatchNode(wanted.node, parent, ConfXmlCompareNode, &found);
        return found;
    }
    Child *end = table->children() + table->count;
    const Child *found = std::lower_bound(table->children(), end, wanted,
                                          [](const Child &child, const ConfXmlNodeInfo &key) {
                                              return compareKeys(child, key.name, key.instId) < 0;
                                          });
    if (found != end && compareKeys(*found, wanted.name, wanted.instId) == 0) {
        return found->node;
    }
    if (table->unreadable != nullptr) {
        ConfXmlNodeInfo ignored = {};
        (void)ConfXmlGetXmlNodeAttrAndValue(table->unreadable, &ignored);
    }
    return nullptr;
}
