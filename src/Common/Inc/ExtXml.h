// Lookup of named children and siblings in a libxml2 tree.
#pragma once

#include <libxml/tree.h>

#ifdef __cplusplus
extern "C" {
#endif

// First direct child of pParent named pName (exact byte comparison, any node
// type); null when pParent is null or none matches.
xmlNodePtr xmlGetFirstChildNode(xmlNodePtr pParent, const xmlChar *pName);

// First node after pNode (pNode itself excluded) named pName; null if none.
xmlNodePtr xmlGetNextSiblingNode(xmlNodePtr pNode, const xmlChar *pName);

#ifdef __cplusplus
}
#endif
