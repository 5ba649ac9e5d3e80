/* A document that is released at the end of its scope. */
#pragma once
#include <memory>

#include "include/xmlAdapter.h"

struct DocumentRelease {
    void operator()(ConfXmlNode *root) const { ConfXmlFreeRootNode(root); }
};

/* Held by its root. */
using OwnedDocument = std::unique_ptr<ConfXmlNode, DocumentRelease>;
