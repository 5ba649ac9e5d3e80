/* Walks of an index table whose steps remember something. */
#pragma once
#include "include/xml_utility.h"

/* A ConfXmlTraverseFn with the state of its walk. */
using IndexVisit = uint32_t (*)(void *state, ConfXmlNodeInfo *info, TransXMLContext *context);

enum class WalkEnd {
    kDone,
    kIncomplete, /* there was no memory for a deeper level: what is below was left out */
    kFailed      /* the first element itself failed */
};

/* ConfXmlTraverseXmlTree, with its records, for such a step. */
WalkEnd walkIndexTable(ConfXmlNode *element, const TransXMLContext *context, IndexVisit visit,
                       void *state);
