/* The children of a file's elements by name and instance number. A load asks for a child once for
 * every element of its index table; each answer by a walk would cost the square of a long array.
 *
 * The tables answer as ConfXmlFindMatchNode does with ConfXmlCompareNode, records included. The
 * document belongs to the load alone and does not change meanwhile. */
#pragma once
#include <cstddef>

#include "common/platform_block.h"
#include "include/xml_utility.h"

class ChildTables {
  public:
    ChildTables() = default;
    ~ChildTables();
    ChildTables(const ChildTables &) = delete;
    ChildTables &operator=(const ChildTables &) = delete;

    /* The first child of `parent` that matches; null when there is none. */
    ConfXmlNode *find(const ConfXmlNodeInfo &wanted, ConfXmlNode *parent);

  private:
    struct Chunk;
    struct Table;

    Table *tableOf(ConfXmlNode *parent, ConfXmlNode *firstChild);
    void *take(size_t size);

    Chunk *chunks_ = nullptr;
    char *end_ = nullptr; /* of the first chunk */
    size_t room_ = 0;     /* left in the first chunk */
};
