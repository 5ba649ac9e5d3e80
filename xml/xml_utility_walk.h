/* Walks of an index table whose steps remember something. */
#pragma once
#include "include/xml_utility.h"

/* A ConfXmlTraverseFn with the state of its walk. */
using ConfXmlVisit = uint32_t (*)(void *state, ConfXmlNodeInfo *info, TransXMLContext *context);

/* ConfXmlTraverseXmlTree for such a step. */
uint32_t ConfXmlTraverseXmlTree(ConfXmlNode *element, const TransXMLContext *context,
                                ConfXmlVisit visit, void *state);
